#pragma once

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "UnixListener.h"
#include "support/Line.h"

namespace vesk::e2e {

using Strings = std::vector<std::string>;

/** A process of the test's, what it wrote and how it ended. */
class Process {
public:
    Process(asio::io_context& io, Strings arguments, std::string const& errorFile)
        : mErrorFile(errorFile), mChild(io, {std::move(arguments), true, true, errorFile}) {
        mChild.input().close();  // what reads stdin finds it empty
        read();
    }

    /** Everything on stdout so far. */
    std::string const& output() const { return mOutput; }
    /** Everything on stderr so far. */
    std::string errors() const {
        std::ifstream file(mErrorFile);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    bool ended() { return mReadAll && !mChild.ending().empty(); }
    /** "exit status 0" and the like; empty while it runs. */
    std::string const& ending() { return mChild.ending(); }
    void signal(int number) { mChild.signal(number); }

private:
    void read() {
        mChild.output().async_read_some(asio::buffer(mChunk), [this](auto error, size_t size) {
            mOutput.append(mChunk, size);
            mReadAll = static_cast<bool>(error);
            if (!mReadAll) read();
        });
    }

    std::string const mErrorFile;
    tool::ChildProcess mChild;
    char mChunk[4096];
    std::string mOutput;
    bool mReadAll = false;
};

/**
 * The stage of an end-to-end test: a directory, processes in it, and one io_context that everything
 * of the test itself runs on. Waiting ends as soon as what is waited for is there. In the end every
 * process that still runs is asked to end and must do so with status 0.
 */
class Scene : public ::testing::Test {
protected:
    using Type = tool::MessageType;

    Scene() {
        ::signal(SIGPIPE, SIG_IGN);
        static std::string const root = std::filesystem::temp_directory_path();
        mDirectory = root + "/vesk-e2e-XXXXXX";
        EXPECT_TRUE(::mkdtemp(mDirectory.data()));
        ::setenv("TMPDIR", mDirectory.c_str(), 1);
    }
    ~Scene() override { std::filesystem::remove_all(mDirectory); }

    void TearDown() override {
        // The youngest first, so that no client outlives its host.
        for (auto process = mProcesses.rbegin(); process != mProcesses.rend(); ++process) {
            bool const ended = process->ended();
            process->signal(SIGTERM);
            if (!ended) expectEnd(*process, 0);
            if (HasFailure()) std::fprintf(stderr, "- wrote:\n%s", process->errors().c_str());
        }
    }

    std::string path(std::string const& name) const { return mDirectory + "/" + name; }
    std::string socket(std::string const& name) const { return "unix:" + path(name); }

    /** Starts the tool, or what the first argument names when that is a path. */
    Process& start(Strings arguments) {
        if (arguments[0][0] != '/') arguments.insert(arguments.begin(), VESK_TOOL);
        std::string const errorFile = path("errors" + std::to_string(mProcesses.size()));
        return mProcesses.emplace_back(mIo, std::move(arguments), errorFile);
    }

    /** The test becomes a client of the host "host", or the peer of a channel. */
    Line& connect(std::string const& name = "host", Line::Kind kind = Line::MESSAGES) {
        asio::local::stream_protocol::socket socket(mIo);
        socket.connect(path(name));
        return mLines.emplace_back(mIo, kind, socket.release());
    }

    /** Waits for somebody to connect to a socket of the test's. */
    Line& accept(tool::UnixListener& listener, Line::Kind kind = Line::MESSAGES) {
        int descriptor = -1;
        listener.acceptor().async_accept(
                [&](auto, auto accepted) { descriptor = accepted.release(); });
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
        await(std::string(message.begin(), message.end()), [&] { return line.hasHeard(message); });
    }
    void awaitHeard(Line& line, size_t count) {
        await(std::to_string(count) + " messages", [&] { return line.heard().size() >= count; });
    }
    void awaitClosed(Line& line) {
        await("the end of a line", [&] { return line.closed(); });
    }
    void awaitErrors(Process const& process, std::string const& words) {
        await(words, [&] { return process.errors().find(words) != std::string::npos; });
    }

    /** Waits for the end of a process, which must have this status and these words on stderr. */
    void expectEnd(Process& process, int status, std::string const& errors = "") {
        await("a process to end", [&] { return process.ended(); });
        EXPECT_EQ(process.ending(), "exit status " + std::to_string(status)) << process.output();
        EXPECT_NE(process.errors().find(errors), std::string::npos) << errors;
    }

    /** A REQUEST or REPLY. */
    static Bytes data(Type type, uint16_t session, int msgId, std::string const& payload) {
        return tool::DataMessage::encode(type, session, static_cast<uint16_t>(msgId),
                                         {payload.begin(), payload.end()});
    }

    asio::io_context mIo;
    std::list<Line> mLines;

private:
    std::string mDirectory;
    std::list<Process> mProcesses;
};

}  // namespace vesk::e2e
