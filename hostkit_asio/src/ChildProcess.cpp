#include <vesk/hostkit_asio/ChildProcess.h>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace vesk::hostkit {

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

/** What a new process needs to know. It may do only what is safe in a signal handler. */
struct Start {
    char* const* arguments;
    pid_t parent;
    int input, output, error;  // for the program; -1: as they are
    int keeperEnd;             // -1: it has no keeper
};

[[noreturn]] void endAs(int status) {
    if (WIFSIGNALED(status)) {
        rlimit const none{0, 0};  // the program has left its core, if it was to
        ::setrlimit(RLIMIT_CORE, &none);
        sigset_t signal;
        ::sigemptyset(&signal);
        ::sigaddset(&signal, WTERMSIG(status));
        std::signal(WTERMSIG(status), SIG_DFL);
        ::raise(WTERMSIG(status));
        ::sigprocmask(SIG_UNBLOCK, &signal, nullptr);
    }
    ::_exit(WEXITSTATUS(status));
}

/** What the program has left running goes with it, whether or not anybody notices its end. */
void killRest(pid_t parent) {
    // The keeper is the group's first, and leaves it so as to end as the program did.
    if (::setpgid(0, ::getpgid(parent)) == 0) {
        ::kill(-::getpid(), SIGKILL);
    } else if (::getppid() != parent) {
        ::kill(0, SIGKILL);  // the parent has gone meanwhile, and nobody needs the status
    }
}

/** Makes the process that is to become the program, in which it returns; the other one keeps it. */
void keepGroup(Start const& start) {
    sigset_t all, before;
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, &before);
    pid_t const program = ::fork();
    if (program == 0) {
        ::sigprocmask(SIG_SETMASK, &before, nullptr);
        return;
    }
    // An end of a pipe that it held would not look closed to those at the other.
    auto const own = static_cast<unsigned>(start.keeperEnd);
    if (own > 0) ::close_range(0, own - 1, 0);
    ::close_range(own + 1, ~0U, 0);
    for (int status = 127 << 8, number = 0;; ::sigwait(&all, &number)) {
        if (::getppid() != start.parent) ::kill(0, SIGKILL);
        if (program >= 0 && ::waitpid(program, &status, WNOHANG) != program) continue;
        killRest(start.parent);
        endAs(status);
    }
}

[[noreturn]] void becomeProgram(Start const& start) {
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != start.parent) ::_exit(127);
    if (start.keeperEnd >= 0) keepGroup(start);
    std::signal(SIGPIPE, SIG_DFL);  // ignored signals would stay ignored
    if (start.input >= 0) ::dup2(start.input, STDIN_FILENO);
    if (start.output >= 0) ::dup2(start.output, STDOUT_FILENO);
    if (start.error >= 0) ::dup2(start.error, STDERR_FILENO);
    // A socket of ours that it held would not look closed to the peer when we close it.
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    ::execv(start.arguments[0], start.arguments);
    ::_exit(127);
}

}  // namespace

ChildProcess::ChildProcess(asio::io_context& io, Options const& options)
    : mKept(options.kept), mInput(io), mOutput(io), mEnded(io) {
    std::vector<char*> arguments;
    for (std::string const& argument : options.arguments) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    Pipe input = options.pipeInput ? makePipe() : Pipe{};
    Pipe output = options.pipeOutput ? makePipe() : Pipe{};
    Pipe end = options.kept ? makePipe() : Pipe{};
    if (options.kept) mEnded.assign(end.read.release());
    if (options.pipeInput) mInput.assign(input.write.release());
    if (options.pipeOutput) mOutput.assign(output.read.release());
    Descriptor const error(options.errorFile.empty()
                                   ? -1
                                   : ::open(options.errorFile.c_str(),
                                            O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    pid_t const self = ::getpid();
    mPid = ::fork();
    if (mPid == 0) {
        becomeProgram({arguments.data(), self, input.read.get(), output.write.get(), error.get(),
                       end.write.get()});
    }
    if (mPid < 0) {
        throw std::runtime_error(std::string("cannot start a process: ") + std::strerror(errno));
    }
    ::setpgid(mPid, mPid);  // here as well: whoever comes first
}

void ChildProcess::kill() {
    if (!ending().empty()) return;
    ::kill(-mPid, SIGKILL);
    awaitEnding();
}

void ChildProcess::signal(int number) {
    // The number of a kept one is its keeper's, who heeds no signal but its parent's death.
    if (ending().empty()) ::kill(mKept ? -mPid : mPid, number);
}

std::string const& ChildProcess::reap(int options) {
    siginfo_t ended{};
    if (!mEnding.empty()) return mEnding;
    auto const id = static_cast<id_t>(mPid);
    while (::waitid(P_PID, id, &ended, WEXITED | WNOWAIT | options) != 0 && errno == EINTR)
        ;
    if (ended.si_pid != mPid) return mEnding;
    // As long as nobody has waited for it, no other group can have its number.
    ::kill(-mPid, SIGKILL);
    ::waitpid(mPid, &mStatus, 0);
    mEnding = WIFSIGNALED(mStatus) ? "signal " + std::to_string(WTERMSIG(mStatus))
                                   : "exit status " + std::to_string(WEXITSTATUS(mStatus));
    return mEnding;
}

}  // namespace vesk::hostkit
