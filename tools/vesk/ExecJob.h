#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <vesk/client/ClientProtocol.h>
#include <vesk/hostkit_asio/ChildProcess.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace vesk::tool {

/**
 * One run of a shell command: a payload goes in on its stdin, the reply comes out of its stdout.
 *
 * Threads: the one that runs the io_context.
 */
class ExecJob : public std::enable_shared_from_this<ExecJob> {
public:
    /** Gets the reply or, with an error that is not empty, the reason why there is none. */
    using Done = std::function<void(client::Bytes const& reply, std::string const& error)>;

    /** Starts the command. Throws std::runtime_error where it cannot. */
    ExecJob(asio::io_context& io, std::string const& command, client::Bytes payload,
            std::chrono::milliseconds limit);

    /**
     * Keeps the job alive until `done` has been called, once: when the command itself has ended,
     * whoever else may hold its stdout, or was killed because it had not within the limit.
     */
    void run(Done done);

private:
    void awaitOutput();
    bool takeOutput();
    void awaitEnd();
    void awaitLimit();
    void finish(std::string const& error);

    hostkit::ChildProcess mProcess;
    std::chrono::milliseconds const mLimit;
    asio::steady_timer mTimer;
    client::Bytes const mPayload;
    client::Bytes mReply;
    std::array<uint8_t, size_t{16} * 1024> mChunk{};
    Done mDone;
};

}  // namespace vesk::tool
