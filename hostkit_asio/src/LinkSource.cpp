#include "LinkSource.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include <asio/connect.hpp>
#include <asio/post.hpp>

namespace vesk::hostkit {

namespace {

using asio::ip::tcp;
using UnixSocket = asio::local::stream_protocol::socket;

asio::error_code lastError() {
    return {errno, asio::error::get_system_category()};
}

}  // namespace

LinkSource::LinkSource(asio::io_context& io, Endpoint const& endpoint, bool listen, Report report)
    : mIo(io), mEndpoint(endpoint), mReport(std::move(report)), mResolver(io) {
    if (!listen) return;
    switch (endpoint.kind) {
        case Endpoint::Kind::UNIX:
            mUnixListener.emplace(io, endpoint.path, endpoint.access);
            mUnixLoop.emplace(
                    mUnixListener->acceptor(), [this](auto socket) { accepted(std::move(socket)); },
                    mReport);
            break;
        case Endpoint::Kind::TCP:
            listenTcp();
            break;
        default:
            throw std::invalid_argument("--listen makes no sense with '" + endpoint.toString() +
                                        "': nobody connects to it");
    }
}

void LinkSource::open(Handler handler) {
    mHandler = std::move(handler);
    if (mUnixListener || mTcpAcceptor) return;
    switch (mEndpoint.kind) {
        case Endpoint::Kind::UNIX:
            connectUnix();
            break;
        case Endpoint::Kind::TCP:
            connectTcp();
            break;
        case Endpoint::Kind::TTY:
        case Endpoint::Kind::DEV:
            openDevice();
            break;
        case Endpoint::Kind::EXEC:
            startCommand();
            break;
        case Endpoint::Kind::STDIO:
            takeStdio();
            break;
    }
}

template <typename Socket>
void LinkSource::accepted(Socket socket) {
    if (mHandler) return adopt(std::move(socket));
    mReport("turned away a second peer of the channel " + mEndpoint.toString());
}

template <typename Socket>
void LinkSource::adopt(Socket socket) {
    if constexpr (std::is_same_v<Socket, tcp::socket>) {
        asio::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        socket.set_option(asio::socket_base::keep_alive(true), ignored);
    }
    answer(std::make_shared<Link>(mIo, socket.release()), {});
}

void LinkSource::listenTcp() {
    std::string const where = mEndpoint.toString();
    asio::error_code error;
    auto const found = mResolver.resolve(mEndpoint.host, std::to_string(mEndpoint.port),
                                         tcp::resolver::passive, error);
    if (error) throw std::runtime_error("cannot resolve '" + where + "': " + error.message());
    tcp::endpoint const local = found.begin()->endpoint();
    mTcpAcceptor.emplace(mIo);
    mTcpAcceptor->open(local.protocol(), error);
    if (!error) mTcpAcceptor->set_option(asio::socket_base::reuse_address(true), error);
    if (!error) mTcpAcceptor->bind(local, error);
    if (!error) mTcpAcceptor->listen(asio::socket_base::max_listen_connections, error);
    if (error) throw std::runtime_error("cannot listen on '" + where + "': " + error.message());
    mTcpLoop.emplace(
            *mTcpAcceptor, [this](auto socket) { accepted(std::move(socket)); }, mReport);
}

// The system's answer comes at once. Asio would take "try again", which is that of a peer with a
// full backlog, for a connection on its way.
void LinkSource::connectUnix() {
    auto socket = std::make_shared<UnixSocket>(mIo);
    asio::error_code error;
    asio::local::stream_protocol::endpoint const peer(mEndpoint.path);
    socket->open(peer.protocol(), error);
    if (!error) socket->native_non_blocking(true, error);
    auto const size = static_cast<socklen_t>(peer.size());
    if (!error && ::connect(socket->native_handle(), peer.data(), size) != 0) {
        error = errno == EAGAIN ? asio::error::timed_out : lastError();
    }
    asio::post(mIo, [this, socket, error] {
        error ? answer(nullptr, error) : adopt(std::move(*socket));
    });
}

void LinkSource::connectTcp() {
    auto socket = std::make_shared<tcp::socket>(mIo);
    auto connected = [this, socket](asio::error_code const& error, tcp::endpoint const&) {
        error ? answer(nullptr, error) : adopt(std::move(*socket));
    };
    mResolver.async_resolve(mEndpoint.host, std::to_string(mEndpoint.port),
                            [this, socket, connected](asio::error_code const& error,
                                                      tcp::resolver::results_type const& found) {
                                if (error) return answer(nullptr, error);
                                asio::async_connect(*socket, found, connected);
                            });
}

void LinkSource::openDevice() {
    int const fd = ::open(mEndpoint.path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    bool const isTty = mEndpoint.kind == Endpoint::Kind::TTY;
    asio::error_code error;
    if (fd < 0 || (isTty && !mSerialLine.take(fd, mEndpoint.baud))) error = lastError();
    std::shared_ptr<Link> link;
    if (!error) {
        link = std::make_shared<Link>(mIo, fd);
    } else if (fd >= 0) {
        ::close(fd);
    }
    answerLater(link, error);
}

void LinkSource::startCommand() {
    mCommand.reset();
    try {
        mCommand = std::make_shared<Link>(std::make_unique<ChildProcess>(
                mIo,
                ChildProcess::Options{{"/bin/sh", "-c", mEndpoint.path}, true, true, {}, true}));
        answerLater(mCommand, {});
    } catch (std::runtime_error const& error) {
        mReport(error.what());
        answerLater(nullptr, asio::error::no_memory);
    }
}

// From here on they are this channel's alone: a line that somebody else prints goes to stderr.
void LinkSource::takeStdio() {
    mTookStdio = true;
    int const input = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int const output = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (input < 0 || output < 0) return answerLater(nullptr, lastError());
    int const nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(nothing, STDIN_FILENO);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    ::close(nothing);
    answerLater(std::make_shared<Link>(mIo, input, output), {});
}

void LinkSource::answerLater(std::shared_ptr<Link> link, asio::error_code const& error) {
    asio::post(mIo, [this, link = std::move(link), error] { answer(link, error); });
}

void LinkSource::answer(std::shared_ptr<Link> link, asio::error_code const& error) {
    std::exchange(mHandler, nullptr)(std::move(link), error);
}

}  // namespace vesk::hostkit
