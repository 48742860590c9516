#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

namespace vesk::hostkit {

/**
 * A process of our own with its pipes, in a process group of its own, which ends with this object
 * at the latest and with the process that started it. Whatever it has left running in its group
 * ends with it where it is `kept`, and otherwise as soon as its own end is noticed.
 *
 * Threads: the one that runs the io_context; the process ends with the thread that started it.
 */
class ChildProcess {
public:
    struct Options {
        std::vector<std::string> arguments;  // the first is the program's path
        bool pipeInput = false;
        bool pipeOutput = false;
        std::string errorFile;  // takes its stderr; shared with ours when empty
        bool kept = false;      // see ended()
    };

    /** Throws std::runtime_error where no process can be made. */
    ChildProcess(asio::io_context& io, Options const& options);

    /** As kill() does. */
    ~ChildProcess() { kill(); }
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;

    /** Our ends of the pipes that were asked for. */
    asio::posix::stream_descriptor& input() { return mInput; }
    asio::posix::stream_descriptor& output() { return mOutput; }

    /**
     * Can be read, without any bytes, as soon as a `kept` process has ended. Such a one has a
     * keeper: a process that leads its group, ends when it does and as it does, and kills the group
     * when the starting process ends, be it by SIGKILL.
     */
    asio::posix::stream_descriptor& ended() { return mEnded; }

    /** Kills the whole group, where it still runs, and waits for the process. */
    void kill();

    /** Its number in /proc, also for a moment after its end. */
    pid_t pid() const { return mPid; }

    /** Sends it a signal, unless it has ended; where it is `kept`, to its whole group. */
    void signal(int number);

    /** "exit status 3" or "signal 9" when it has ended; empty while it runs. */
    std::string const& ending() { return reap(WNOHANG); }

    /** The same, for which it waits. */
    std::string const& awaitEnding() { return reap(0); }

    /** Whether it has ended with status 0. */
    bool succeeded() { return !ending().empty() && mStatus == 0; }

private:
    std::string const& reap(int options);

    bool const mKept;
    pid_t mPid = -1;
    int mStatus = 0;
    std::string mEnding;
    asio::posix::stream_descriptor mInput;
    asio::posix::stream_descriptor mOutput;
    asio::posix::stream_descriptor mEnded;
};

}  // namespace vesk::hostkit
