// Debian's libutils is not instrumented, so ThreadSanitizer cannot see that the last decStrong() of
// an object comes after all the others, and takes its destructor for a race. This one, found before
// libutils' own, tells it; real races stay visible.

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>
#include <utils/RefBase.h>

#include <atomic>
#include <thread>

namespace android {

namespace {

// One decrement at a time: who comes last must be known before it is done. Relaxed on purpose, for
// an order that this lock made would hide the races of its callers.
std::atomic<bool> gBusy{false};

}  // namespace

void RefBase::decStrong(void const* id) const {
    using DecStrong = void (*)(RefBase const*, void const*);
    static auto const original =
            reinterpret_cast<DecStrong>(dlsym(RTLD_NEXT, "_ZNK7android7RefBase9decStrongEPKv"));
    auto* const self = const_cast<RefBase*>(this);
    while (gBusy.exchange(true, std::memory_order_relaxed)) {
        std::this_thread::yield();
    }
    bool const last = getStrongCount() == 1;
    if (last) {
        __tsan_acquire(self);
    } else {
        __tsan_release(self);
        original(this, id);
    }
    gBusy.store(false, std::memory_order_relaxed);
    if (last) original(this, id);  // runs the destructor, and that may come back here
}

}  // namespace android
