#pragma once

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>

#include <gtest/gtest.h>
#include <vesk/hostkit/FrameReader.h>
#include <vesk/hostkit_asio/ChildProcess.h>
#include <asio/write.hpp>

#include <vesk/client/ClientProtocol.h>
#include "UnixListener.h"

namespace vesk::e2e {

using client::Bytes;

/**
 * One end of a connection in the test's hands: of a client socket, as its client or as its host, or
 * of a byte channel, as the peer.
 */
class Line {
public:
    enum Kind { MESSAGES, FRAMES };

    /** Takes the descriptor and begins to read. */
    Line(asio::io_context& io, Kind kind, int descriptor) : mKind(kind), mEnd(io, descriptor) {
        read();
    }

    /** Writes everything, however long that takes. */
    void say(Bytes const& bytes) {
        asio::error_code closed;
        asio::write(mEnd, asio::buffer(bytes), closed);
    }
    void close() { mEnd.close(); }
    /** Reads no more. */
    void stop() { mEnd.cancel(); }
    /** Reads again. */
    void go() { read(); }

    /**
     * Writes these bytes again and again until the other side takes no more of them, or has taken
     * `most`, and reads nothing meanwhile. Returns how many it took.
     */
    size_t flood(Bytes const& bytes, size_t most) {
        size_t taken = 0;
        mEnd.non_blocking(true);
        for (pollfd full{mEnd.native_handle(), POLLOUT, 0}; taken < most;) {
            asio::error_code error;
            taken += mEnd.write_some(asio::buffer(bytes) + taken % bytes.size(), error);
            if (error && (error != asio::error::would_block || ::poll(&full, 1, 200) <= 0)) break;
        }
        return taken;
    }

    /** The messages, or the frames but for acknowledgements, with 0 for the serial number. */
    std::vector<Bytes> const& heard() const { return mHeard; }
    /** Whether the other side has closed it. */
    bool closed() const { return mClosed; }
    /** What stands at this place of a message's body; where a host has let it join, its session. */
    uint16_t number(size_t message, size_t at = 0) const {
        return static_cast<uint16_t>(mHeard[message][5 + at] | mHeard[message][6 + at] << 8);
    }

private:
    void read() {
        mEnd.async_read_some(asio::buffer(mChunk), [this](asio::error_code error, size_t size) {
            if (error == asio::error::operation_aborted) return;
            mClosed = static_cast<bool>(error);
            mKind == FRAMES ? mFrames.feed(mChunk, size) : mMessages.append(mChunk, size);
            for (client::Message next;
                 mMessages.next(next) == client::MessageReader::Result::MESSAGE;) {
                mHeard.push_back(
                        client::encodeMessage(next.type, {next.body.begin(), next.body.end()}));
            }
            if (!mClosed) read();
        });
    }

    void take(VeskFrame& frame) {
        if (frame.msgType == ACKNOWLEDGEMENT) return;
        frame.serialNumber = 0;
        frame.serialze(mHeard.emplace_back());
    }

    Kind const mKind;
    asio::posix::stream_descriptor mEnd;
    uint8_t mChunk[65536];
    VeskConfig const mCatalogue;
    hostkit::FrameReader mFrames{mCatalogue, [this](auto const& frame) { take(*frame); }};
    client::MessageReader mMessages;
    std::vector<Bytes> mHeard;
    bool mClosed = false;
};

/** A run of the tool, what it wrote and how it ended. */
struct Process : hostkit::ChildProcess {
    /** @param arguments in words of the shell. */
    Process(asio::io_context& io, std::string const& arguments, std::string const& where)
        : ChildProcess(
                  io, {{"/bin/sh", "-c",
                        "exec </dev/null >$0.out 2>$0.err; exec " VESK_TOOL " " + arguments, where},
                       false,
                       false,
                       {}}),
          path(where) {}

    /** Everything on stdout, and on stderr, so far. */
    std::string output() const { return content(path + ".out"); }
    std::string errors() const { return content(path + ".err"); }
    static std::string content(std::string const& name) {
        std::ifstream file(name);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string const path;
};

/**
 * The stage of an end-to-end test: a directory, processes and lines in it, and one io_context that
 * everything of the test itself runs on. Waiting ends as soon as what is waited for is there.
 */
class Scene : public ::testing::Test {
protected:
    using Type = client::MessageType;
    static constexpr int CONSUMER = 1, PROVIDER = 2;

    Scene() {
        ::signal(SIGPIPE, SIG_IGN);
        static std::string const root = std::filesystem::temp_directory_path();
        mDirectory = root + "/vesk-e2e-XXXXXX";
        EXPECT_TRUE(::mkdtemp(mDirectory.data()));
        ::setenv("TMPDIR", mDirectory.c_str(), 1);
    }

    ~Scene() override { std::filesystem::remove_all(mDirectory); }

    std::string path(std::string const& name) const { return mDirectory + "/" + name; }
    std::string socket(std::string const& name) const { return "unix:" + path(name); }

    Process& start(std::string const& arguments) {
        return mProcesses.emplace_back(mIo, arguments, path(std::to_string(mProcesses.size())));
    }

    /** The test becomes a client of the host "host", or the peer of a channel. */
    Line& connect(std::string const& name = "host", Line::Kind kind = Line::MESSAGES) {
        asio::local::stream_protocol::socket socket(mIo);
        socket.connect(path(name));
        return mLines.emplace_back(mIo, kind, socket.release());
    }

    /** Waits for somebody to connect to a socket of the test's. */
    Line& accept(hostkit::UnixListener& listener, Line::Kind kind) {
        int descriptor = -1;
        listener.acceptor().async_accept([&](auto, auto end) { descriptor = end.release(); });
        await("a connection", [&] { return descriptor >= 0; });
        return mLines.emplace_back(mIo, kind, descriptor);
    }

    void await(std::string const& what, std::function<bool()> const& reached) {
        // Only a failure lasts as long, also under a sanitizer on a busy machine.
        auto const limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!reached()) {
            if (std::chrono::steady_clock::now() > limit)
                throw std::runtime_error("waited in vain for " + what);
            mIo.run_one_for(std::chrono::milliseconds(5));
            mIo.restart();
        }
    }

    void awaitHeard(Line& line, Bytes const& message) {
        auto const& all = line.heard();
        await(std::string(message.begin(), message.end()),
              [&] { return std::find(all.begin(), all.end(), message) != all.end(); });
    }
    void awaitHeard(Line& line, size_t count) {
        await(std::to_string(count) + " messages", [&] { return line.heard().size() >= count; });
    }
    void awaitClosed(Line& line) {
        await("the end of a line", [&] { return line.closed(); });
    }
    /** Waits for these words on stdout or stderr. */
    void awaitText(Process const& process, std::string const& words) {
        await(words, [&] {
            return (process.output() + process.errors()).find(words) != std::string::npos;
        });
    }

    /** Waits for the end of a process, which must have this status and these words on stderr. */
    void expectEnd(Process& process, int status, std::string const& errors = "") {
        await("a process to end", [&] { return !process.ending().empty(); });
        EXPECT_EQ(process.ending(), "exit status " + std::to_string(status)) << process.output();
        EXPECT_NE(process.errors().find(errors), std::string::npos) << process.errors();
    }

    static Bytes joining(int role, char const* topic = "test", char const* business = "test") {
        return client::JoinMessage{role, topic, business}.encode();
    }

    /** A REQUEST or REPLY. */
    static Bytes data(Type type, uint16_t session, int msgId, std::string const& payload) {
        return client::DataMessage::encode(type, session, static_cast<uint16_t>(msgId),
                                           {payload.begin(), payload.end()});
    }

    asio::io_context mIo;
    std::list<Line> mLines;

private:
    std::string mDirectory;
    std::list<Process> mProcesses;
};

}  // namespace vesk::e2e
