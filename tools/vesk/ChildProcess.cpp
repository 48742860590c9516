#include "ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace vesk::tool {

namespace {

/** A descriptor that is closed unless somebody else takes it. */
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : mFd(fd) {}
    Descriptor(Descriptor&& other) noexcept : mFd(other.release()) {}
    ~Descriptor() {
        if (mFd >= 0) ::close(mFd);
    }
    int get() const { return mFd; }
    int release() { return std::exchange(mFd, -1); }

private:
    int mFd = -1;
};

struct Pipe {
    Descriptor read, write;
};

Pipe makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// Between fork and exec: only what is safe in a signal handler.
[[noreturn]] void becomeProgram(char* const* arguments, pid_t parent, int input, int output,
                                int error) {
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);
    std::signal(SIGPIPE, SIG_DFL);  // ignored signals would stay ignored
    if (input >= 0) ::dup2(input, STDIN_FILENO);
    if (output >= 0) ::dup2(output, STDOUT_FILENO);
    if (error >= 0) ::dup2(error, STDERR_FILENO);
    // A socket of ours that it held would not look closed to the peer when we close it.
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    ::execv(arguments[0], arguments);
    ::_exit(127);
}

}  // namespace

ChildProcess::ChildProcess(asio::io_context& io, Options const& options) : mInput(io), mOutput(io) {
    std::vector<char*> arguments;
    for (std::string const& argument : options.arguments) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    Pipe input = options.pipeInput ? makePipe() : Pipe{};
    Pipe output = options.pipeOutput ? makePipe() : Pipe{};
    if (options.pipeInput) mInput.assign(input.write.release());
    if (options.pipeOutput) mOutput.assign(output.read.release());
    Descriptor const error(options.errorFile.empty()
                                   ? -1
                                   : ::open(options.errorFile.c_str(),
                                            O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    pid_t const self = ::getpid();
    mPid = ::fork();
    if (mPid == 0) {
        becomeProgram(arguments.data(), self, input.read.get(), output.write.get(), error.get());
    }
    if (mPid < 0) {
        throw std::runtime_error(std::string("cannot start a process: ") + std::strerror(errno));
    }
    ::setpgid(mPid, mPid);  // here as well: whoever comes first
}

ChildProcess::~ChildProcess() {
    if (!ending().empty()) return;
    ::kill(-mPid, SIGKILL);
    ::waitpid(mPid, nullptr, 0);
}

void ChildProcess::signal(int number) {
    if (ending().empty()) ::kill(mPid, number);
}

std::string const& ChildProcess::ending() {
    if (mEnding.empty() && ::waitpid(mPid, &mStatus, WNOHANG) == mPid) {
        mEnding = WIFSIGNALED(mStatus) ? "signal " + std::to_string(WTERMSIG(mStatus))
                                       : "exit status " + std::to_string(WEXITSTATUS(mStatus));
    }
    return mEnding;
}

}  // namespace vesk::tool
