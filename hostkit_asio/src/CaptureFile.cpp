#include <vesk/hostkit_asio/CaptureFile.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "WallClock.h"

namespace vesk::hostkit {

CaptureFile::CaptureFile(std::string const& path, uint64_t limit, std::string const& application,
                         Report report)
    : mPath(path),
      mLimit(limit),
      mReport(std::move(report)),
      mFile(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
    std::string why = mFile < 0 ? std::strerror(errno) : "";
    if (mFile >= 0) {
        std::lock_guard<std::mutex> const lock(mMutex);
        why = append(CaptureWriter::begin(application));
        if (!why.empty()) ::close(mFile);
    }
    if (!why.empty()) {
        throw std::runtime_error("cannot write the capture '" + path + "': " + why);
    }
}

CaptureFile::~CaptureFile() {
    ::close(mFile);
}

void CaptureFile::opened(std::string const& name) {
    std::string why;
    {
        std::lock_guard<std::mutex> const lock(mMutex);
        mUp = true;
        why = append(mWriter.link(name, microsSince1970()));
    }
    reportEnd(why);
}

void CaptureFile::closed() {
    std::lock_guard<std::mutex> const lock(mMutex);
    mUp = false;
}

void CaptureFile::carried(FrameText::Direction direction, uint8_t const* bytes, size_t size) {
    std::string why;
    {
        std::lock_guard<std::mutex> const lock(mMutex);
        if (!mUp || !mRecords) return;
        // Under the lock, so that no record is older than the one before it.
        why = append(mWriter.record(direction, microsSince1970(), bytes, size));
    }
    reportEnd(why);
}

std::string CaptureFile::append(CaptureWriter::Bytes const& bytes) {
    if (!mRecords) return {};
    mRecords = false;
    if (mSize + bytes.size() > mLimit) {
        return "it has its limit of " + std::to_string(mLimit) + " bytes";
    }
    for (size_t written = 0; written < bytes.size();) {
        ssize_t const taken = ::write(mFile, &bytes[written], bytes.size() - written);
        if (taken < 0 && errno == EINTR) continue;
        if (taken < 0) {
            std::string const why = std::strerror(errno);
            // A reader would stumble over half a block.
            return ::ftruncate(mFile, static_cast<off_t>(mSize)) == 0 ? why : why + ", at its end";
        }
        written += static_cast<size_t>(taken);
    }
    mSize += bytes.size();
    mRecords = true;
    return {};
}

void CaptureFile::reportEnd(std::string const& why) {
    if (!why.empty()) mReport("the capture " + mPath + " ends here: " + why);
}

}  // namespace vesk::hostkit
