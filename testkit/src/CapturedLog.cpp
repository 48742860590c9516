#include <vesk/testkit/CapturedLog.h>

#include <mutex>
#include <stdexcept>

#include <quillex/Log.h>

namespace vesk::testkit {

namespace {

// Outside the object: a thread that got hold of the sink before it was removed may run it later.
std::mutex gMutex;
CapturedLog* gCurrent = nullptr;  // guarded by gMutex, and so are its lines

using Guard = std::lock_guard<std::mutex>;

}  // namespace

CapturedLog::CapturedLog() {
    Guard const guard(gMutex);
    if (gCurrent) {
        throw std::logic_error("a CapturedLog lives already; there may be one at a time");
    }
    gCurrent = this;
    quillex::Log::setSink(&CapturedLog::sink);
}

CapturedLog::~CapturedLog() {
    quillex::Log::setSink(nullptr);
    Guard const guard(gMutex);
    gCurrent = nullptr;
}

void CapturedLog::sink(char const* tag, char const* message) {
    Guard const guard(gMutex);
    if (gCurrent) gCurrent->mLines.push_back({tag, message});
}

std::vector<CapturedLog::Line> CapturedLog::lines() const {
    Guard const guard(gMutex);
    return mLines;
}

std::vector<std::string> CapturedLog::messages(std::string const& tag) const {
    std::vector<std::string> found;
    for (Line const& line : lines()) {
        if (line.tag == tag) found.push_back(line.message);
    }
    return found;
}

size_t CapturedLog::count(std::string const& tag, std::string const& message) const {
    size_t found = 0;
    for (Line const& line : lines()) {
        if (line.tag == tag && line.message == message) ++found;
    }
    return found;
}

bool CapturedLog::contains(std::string const& tag, std::string const& message) const {
    return count(tag, message) > 0;
}

void CapturedLog::clear() {
    Guard const guard(gMutex);
    mLines.clear();
}

}  // namespace vesk::testkit
