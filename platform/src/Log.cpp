#include <quillex/Log.h>

#include <atomic>

namespace quillex {

namespace {
std::atomic<Log::Sink> gSink{nullptr};
}

void Log::d(char const* tag, char const* message) {
    if (Sink sink = gSink.load(std::memory_order_acquire)) {
        sink(tag, message);
    }
}

void Log::setSink(Sink sink) {
    gSink.store(sink, std::memory_order_release);
}

bool Log::isSilent() {
    return gSink.load(std::memory_order_relaxed) == nullptr;
}

}  // namespace quillex
