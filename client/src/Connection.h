#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <vesk/client/ClientProtocol.h>

namespace vesk::client {

/** A descriptor that is closed with its owner. */
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : mFd(fd) {}
    ~Descriptor();
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int get() const { return mFd; }

    /** Closes what it held. */
    void reset(int fd = -1);

private:
    int mFd;
};

/**
 * The Unix socket of a client: opens it, and carries bytes without ever blocking.
 *
 * Threads: one at a time.
 */
class Connection {
public:
    enum class Result { DONE, WOULD_BLOCK, CLOSED };

    /** Connects. Throws std::runtime_error, as Client's constructor says. */
    void open(std::string const& path, std::chrono::milliseconds limit, bool anyOwner);

    void close() { mSocket.reset(); }
    bool isOpen() const { return mSocket.get() >= 0; }
    int descriptor() const { return mSocket.get(); }

    /** Appends what is there to `reader`. */
    Result read(MessageReader& reader);

    /** Takes as much as it can from the front of `bytes`, where `sent` have gone already. */
    Result write(Bytes& bytes, size_t& sent);

    /** Why the last read() or write() gave CLOSED. */
    std::string const& whyClosed() const { return mWhyClosed; }

private:
    Result failed();

    Descriptor mSocket;
    std::string mWhyClosed;
    Bytes mChunk;
};

}  // namespace vesk::client
