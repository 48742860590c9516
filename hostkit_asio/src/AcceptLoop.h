#pragma once

#include <chrono>
#include <functional>

#include <vesk/hostkit_asio/Report.h>
#include <asio/error.hpp>
#include <asio/steady_timer.hpp>

namespace vesk::hostkit {

/**
 * Accepts one connection after the other, for as long as it lives. Where that fails, as it does
 * when the process has no descriptor left, it pauses before the next try instead of spinning.
 *
 * Threads: the one that runs the acceptor's io_context.
 */
template <typename Acceptor>
class AcceptLoop {
public:
    using Socket = typename Acceptor::protocol_type::socket;

    /** `acceptor` listens and outlives the loop. */
    AcceptLoop(Acceptor& acceptor, std::function<void(Socket)> onAccepted, Report report)
        : mAcceptor(acceptor),
          mTimer(acceptor.get_executor()),
          mOnAccepted(std::move(onAccepted)),
          mReport(std::move(report)) {
        accept();
    }
    AcceptLoop(AcceptLoop const&) = delete;
    AcceptLoop& operator=(AcceptLoop const&) = delete;

private:
    static constexpr std::chrono::milliseconds PAUSE{100};

    void accept() {
        mAcceptor.async_accept([this](asio::error_code const& error, Socket socket) {
            if (error == asio::error::operation_aborted) return;
            if (error) return acceptLater(error);
            mFailed = false;
            mOnAccepted(std::move(socket));
            accept();
        });
    }

    void acceptLater(asio::error_code const& error) {
        if (!mFailed) mReport("cannot accept a connection: " + error.message() + "; trying again");
        mFailed = true;
        mTimer.expires_after(PAUSE);
        mTimer.async_wait([this](asio::error_code const& aborted) {
            if (!aborted) accept();
        });
    }

    Acceptor& mAcceptor;
    asio::steady_timer mTimer;
    std::function<void(Socket)> const mOnAccepted;
    Report const mReport;
    bool mFailed = false;
};

}  // namespace vesk::hostkit
