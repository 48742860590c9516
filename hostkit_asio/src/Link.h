#pragma once

#include <memory>
#include <optional>

#include <vesk/hostkit_asio/ChildProcess.h>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

namespace vesk::hostkit {

/** An open byte channel, whatever it is made of. */
class Link {
public:
    using Stream = asio::posix::stream_descriptor;

    /** Of one descriptor that carries both ways, which it takes. */
    Link(asio::io_context& io, int descriptor);

    /**
     * Of two, which it takes. Others may share what is behind them, so they get back their flags
     * in the end: reading and writing without waiting is set there.
     */
    Link(asio::io_context& io, int input, int output);

    /** Of a process's stdin and stdout. */
    explicit Link(std::unique_ptr<ChildProcess> child);

    ~Link() { close(); }
    Link(Link const&) = delete;
    Link& operator=(Link const&) = delete;

    Stream& reader() { return mReader; }
    Stream& writer() { return mWriter; }

    /** Whether bytes have come that were not read yet. */
    bool hasUnread();

    /** What is under way ends with an error. A process is asked to end. */
    void close();

private:
    struct Flags {
        int input = 0;
        int output = 0;
    };

    std::unique_ptr<ChildProcess> const mChild;
    std::optional<Stream> mInput;
    std::optional<Stream> mOutput;
    Stream& mReader;
    Stream& mWriter;
    std::optional<Flags> mFlags;
};

}  // namespace vesk::hostkit
