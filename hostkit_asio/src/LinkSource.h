#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <vesk/hostkit_asio/Endpoint.h>
#include <vesk/hostkit_asio/Report.h>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include "AcceptLoop.h"
#include "Link.h"
#include "SerialLine.h"
#include "UnixListener.h"

namespace vesk::hostkit {

/**
 * Opens one link after the other at an endpoint: connects, accepts, opens the device, or starts the
 * command.
 *
 * A listening source accepts at all times; a peer that arrives while nobody waits for a link, that
 * is, a second one, is turned away.
 *
 * Threads: those of the io_context, which must be one at a time.
 */
class LinkSource {
public:
    /** Gets the link, or null and the reason why there is none. */
    using Handler = std::function<void(std::shared_ptr<Link> link, asio::error_code const& error)>;

    /** Throws std::invalid_argument or std::runtime_error where it cannot listen. */
    LinkSource(asio::io_context& io, Endpoint const& endpoint, bool listen, Report report);

    /**
     * Asks for the next link. A listening source answers when a peer has arrived, however long that
     * takes; any other with success or failure of one attempt. REQUIRES: no call is under way.
     */
    void open(Handler handler);

    /** Whether open() may be called again; stdin and stdout are there once. */
    bool isExhausted() const { return mTookStdio; }

private:
    template <typename Socket>
    void accepted(Socket socket);
    template <typename Socket>
    void adopt(Socket socket);
    void listenTcp();
    void connectUnix();
    void connectTcp();
    void openDevice();
    void startCommand();
    void takeStdio();
    void answerLater(std::shared_ptr<Link> link, asio::error_code const& error);
    void answer(std::shared_ptr<Link> link, asio::error_code const& error);

    asio::io_context& mIo;
    Endpoint const mEndpoint;
    Report const mReport;
    std::optional<UnixListener> mUnixListener;
    std::optional<asio::ip::tcp::acceptor> mTcpAcceptor;
    std::optional<AcceptLoop<asio::local::stream_protocol::acceptor>> mUnixLoop;
    std::optional<AcceptLoop<asio::ip::tcp::acceptor>> mTcpLoop;
    asio::ip::tcp::resolver mResolver;
    std::shared_ptr<Link> mCommand;  // the last one: it has time to end until the next is started
    bool mTookStdio = false;
    SerialLine mSerialLine;
    Handler mHandler;  // empty while nobody waits
};

}  // namespace vesk::hostkit
