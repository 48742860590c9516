#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

namespace vesk::tool {

/**
 * A process of our own with its pipes, in a process group of its own, which ends with this object
 * at the latest and with the process that started it.
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
    };

    /** Throws std::runtime_error where no process can be made. */
    ChildProcess(asio::io_context& io, Options const& options);

    /** Kills the whole group, where it still runs, and waits for the process. */
    ~ChildProcess();
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;

    /** Our ends of the pipes that were asked for. */
    asio::posix::stream_descriptor& input() { return mInput; }
    asio::posix::stream_descriptor& output() { return mOutput; }

    /** Sends it a signal, unless it has ended. */
    void signal(int number);

    /** "exit status 3" or "signal 9" when it has ended; empty while it runs. */
    std::string const& ending();

    /** Whether it has ended with status 0. */
    bool succeeded() { return !ending().empty() && mStatus == 0; }

private:
    pid_t mPid = -1;
    int mStatus = 0;
    std::string mEnding;
    asio::posix::stream_descriptor mInput;
    asio::posix::stream_descriptor mOutput;
};

}  // namespace vesk::tool
