#include "Output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include <vesk/VeskProtocol.h>
#include <vesk/VeskThreadAnnotations.h>
#include <vesk/hostkit/FrameText.h>

namespace vesk::tool {

namespace {

/** The process's stderr. */
class ErrorStream {
public:
    /** It is never destroyed: the library's threads may print until the process has ended. */
    static ErrorStream& get() {
        static auto& stream = *new ErrorStream;
        return stream;
    }

    void print(std::string line) VESK_EXCLUDES(mMutex) {
        // What is not longer than this goes into a pipe as a whole or not at all.
        if (line.size() >= PIPE_BUF) line = line.substr(0, PIPE_BUF - 4) + "...";
        line += '\n';
        std::lock_guard<std::mutex> lock(mMutex);
        if (mLost > 0 && write("vesk: " + std::to_string(mLost) +
                               " lines are missing here: nobody read what came before them\n")) {
            mLost = 0;
        }
        if (mLost > 0 || !write(line)) ++mLost;
    }

    void neverWait() VESK_EXCLUDES(mMutex) {
        std::lock_guard<std::mutex> lock(mMutex);
        struct stat info {};
        if (::fstat(STDERR_FILENO, &info) != 0 || S_ISREG(info.st_mode)) return;
        mPatient = false;
        mIsSocket = S_ISSOCK(info.st_mode);
        if (mIsSocket) return;
        // Others share the descriptor that there is, and may rely on its waiting.
        int const own =
                ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_APPEND | O_CLOEXEC);
        if (own >= 0) mDescriptor = own;
    }

private:
    bool write(std::string const& line) VESK_REQUIRES(mMutex) {
        ssize_t size = 0;
        do {
            if (mIsSocket) {
                size = ::send(mDescriptor, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            } else if (!mPatient && mDescriptor == STDERR_FILENO && !isReady()) {
                return false;
            } else {
                size = ::write(mDescriptor, line.data(), line.size());
            }
        } while (size < 0 && errno == EINTR);
        return size >= 0 || errno != EAGAIN;  // where nobody can read it, nothing is missing
    }

    bool isReady() const VESK_REQUIRES(mMutex) {
        pollfd stream{mDescriptor, POLLOUT, 0};
        return ::poll(&stream, 1, 0) > 0;
    }

    std::mutex mMutex;
    int mDescriptor VESK_GUARDED_BY(mMutex) = STDERR_FILENO;
    bool mPatient VESK_GUARDED_BY(mMutex) = true;
    bool mIsSocket VESK_GUARDED_BY(mMutex) = false;
    size_t mLost VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace

void openStandardStreams() {
    for (int const stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) >= 0) continue;
        // The lowest number that is free is this one.
        ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

void flushOutput() {
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
    std::string const why = errno != 0 ? std::string(": ") + std::strerror(errno) : std::string();
    throw std::runtime_error("cannot write to stdout" + why);
}

void checkOutput() {
    pollfd output{STDOUT_FILENO, 0, 0};
    if (::poll(&output, 1, 0) <= 0 || (output.revents & POLLERR) == 0) return;
    throw std::runtime_error(std::string("cannot write to stdout: ") + std::strerror(EPIPE));
}

size_t terminalWidth() {
    winsize size{};
    bool const isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : 80;
}

std::string delayText(uint64_t millis) {
    return millis < TIMEOUT_DELAY_MS ? std::to_string(millis) + " ms" : "unknown";
}

void say(std::string const& line) {
    ErrorStream::get().print("vesk: " + hostkit::FrameText::escape(line));
}

void printLogLine(char const* tag, char const* message) {
    ErrorStream::get().print(std::string(tag) + ": " + hostkit::FrameText::escape(message));
}

void neverWaitForStderr() {
    ErrorStream::get().neverWait();
}

}  // namespace vesk::tool
