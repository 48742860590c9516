#include "DemoCommand.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <vesk/VeskProtocol.h>
#include <vesk/client/BusinessName.h>
#include <vesk/client/Client.h>
#include <vesk/hostkit/CatalogueNames.h>
#include <vesk/hostkit/FrameText.h>
#include <vesk/hostkit_asio/ChildProcess.h>
#include <asio/io_context.hpp>
#include <asio/read_until.hpp>
#include <asio/streambuf.hpp>

#include "DemoReport.h"
#include "EndSignals.h"
#include "Errors.h"

namespace vesk::tool {

namespace {

using Clock = std::chrono::steady_clock;

// No step of the demo takes a fraction of this on a machine that is fit to run it.
constexpr std::chrono::seconds STEP_LIMIT{120};
constexpr std::chrono::milliseconds POLL{20};
constexpr size_t WINDOW = 16;

struct Interrupted {};

/** A directory of our own, which goes with this object. */
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::error_code wrong;
        std::string name =
                (std::filesystem::temp_directory_path(wrong) / "vesk-demo-XXXXXX").string();
        if (wrong || !::mkdtemp(name.data())) {
            throw std::runtime_error("cannot create a directory like '" + name +
                                     "'; set TMPDIR to one where that is possible");
        }
        mPath = name;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    std::string file(char const* name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

/** A vesk call process and what it has reported so far. */
class Consumer {
public:
    Consumer(asio::io_context& io, std::string business,
             hostkit::ChildProcess::Options const& options)
        : mBusiness(std::move(business)), mProcess(io, options) {
        read();
    }

    std::string const& business() const { return mBusiness; }
    size_t done() const { return mDone; }
    bool ended() { return mReadAll && !mProcess.ending().empty(); }
    bool succeeded() { return mProcess.succeeded(); }
    std::optional<CallReport> const& result() const { return mResult; }

private:
    void read() {
        asio::async_read_until(mProcess.output(), mBuffer, '\n',
                               [this](asio::error_code const& error, size_t) {
                                   mReadAll = static_cast<bool>(error);
                                   if (mReadAll) return;
                                   std::istream in(&mBuffer);
                                   std::string line;
                                   std::getline(in, line);
                                   take(line);
                                   read();
                               });
    }

    void take(std::string const& line) {
        std::sscanf(line.c_str(), "progress %zu", &mDone);
        mResult = CallReport::parse(line);
        if (mResult) mDone = mResult->replies;
    }

    std::string const mBusiness;
    hostkit::ChildProcess mProcess;
    asio::streambuf mBuffer;
    size_t mDone = 0;
    bool mReadAll = false;
    std::optional<CallReport> mResult;
};

class Demo {
public:
    explicit Demo(DemoOptions const& options);
    int run();

private:
    hostkit::ChildProcess::Options vesk(std::vector<std::string> arguments) const;
    void serve(std::vector<std::string> arguments);
    void startHosts();
    void startProviders();
    void startConsumers();
    void awaitConsumers();
    int conclude();
    void await(char const* what, std::function<bool()> const& reached);
    std::optional<client::Counters> query(std::string const& path);
    void endServants();
    void printErrors() const;

    DemoOptions const mOptions;
    std::vector<std::string> mBusinesses;
    TemporaryDirectory const mDirectory;
    std::string const mNear = mDirectory.file("near");
    std::string const mFar = mDirectory.file("far");
    asio::io_context mIo;
    EndSignals mSignals;
    bool mInterrupted = false;
    std::vector<std::unique_ptr<hostkit::ChildProcess>> mServants;  // hosts and providers
    std::vector<std::unique_ptr<Consumer>> mConsumers;
};

Demo::Demo(DemoOptions const& options) : mOptions(options), mSignals(mIo) {
    mSignals.async_wait([this](asio::error_code const& error, int) { mInterrupted = !error; });
    VeskConfig const catalogue;
    for (std::string const& topic : hostkit::topicNames(catalogue)) {
        for (std::string const& business : hostkit::businessNames(catalogue, topic)) {
            mBusinesses.push_back(client::BusinessName{topic, business}.toString());
        }
    }
}

int Demo::run() {
    try {
        startHosts();
        startProviders();
        startConsumers();
        awaitConsumers();
        return conclude();
    } catch (Interrupted const&) {
        clearProgress();
        say("interrupted");
        return EXIT_INTERRUPTED;
    } catch (std::exception const&) {
        clearProgress();
        printErrors();
        throw;
    }
}

hostkit::ChildProcess::Options Demo::vesk(std::vector<std::string> arguments) const {
    hostkit::ChildProcess::Options options;
    options.arguments = std::move(arguments);
    options.arguments.insert(options.arguments.begin(), mOptions.program);
    if (mOptions.verbose) {
        options.arguments.emplace_back("--verbose");
    } else {
        options.errorFile = mDirectory.file("errors");
    }
    return options;
}

void Demo::serve(std::vector<std::string> arguments) {
    mServants.push_back(std::make_unique<hostkit::ChildProcess>(mIo, vesk(std::move(arguments))));
}

void Demo::startHosts() {
    std::string const channel = "unix:" + mDirectory.file("channel");
    serve({"host", "--channel", channel, "--listen", "--clients", "unix:" + mFar});
    serve({"host", "--channel", channel, "--clients", "unix:" + mNear});
    await("the two hosts to find each other", [this] {
        auto const near = query(mNear);
        auto const far = query(mFar);
        return near && far && near->channelUp != 0 && far->channelUp != 0;
    });
}

void Demo::startProviders() {
    for (std::string const& business : mBusinesses) {
        serve({"provide", "--host", "unix:" + mFar, business, "--echo"});
    }
    await("the providers to join", [this] {
        auto const far = query(mFar);
        return far && far->providers == mBusinesses.size();
    });
}

void Demo::startConsumers() {
    std::printf(
            "%zu consumers send %zu requests each, of 0 to %zu bytes, through two hosts to "
            "%zu providers,\nwhich send the same bytes back; each consumer has a window of %zu "
            "requests under way\n",
            mBusinesses.size(), mOptions.requests, MAX_PAYLOAD_SIZE, mBusinesses.size(), WINDOW);
    flushOutput();
    for (std::string const& business : mBusinesses) {
        hostkit::ChildProcess::Options options = vesk(
                {"call", "--host", "unix:" + mNear, business, "--random-size",
                 std::to_string(MAX_PAYLOAD_SIZE), "--count", std::to_string(mOptions.requests),
                 "--window", std::to_string(WINDOW), "--timeout", "30000", "--verify", "--report"});
        options.pipeOutput = true;
        mConsumers.push_back(std::make_unique<Consumer>(mIo, business, options));
    }
}

void Demo::awaitConsumers() {
    size_t const total = mBusinesses.size() * mOptions.requests;
    size_t done = 0;
    for (bool ended = false; !ended;) {
        size_t const before = done;
        await("another reply", [&] {
            done = 0;
            ended = true;
            for (auto const& consumer : mConsumers) {
                done += consumer->done();
                ended = ended && consumer->ended();
            }
            printProgress(done, total);
            return ended || done > before;
        });
    }
    clearProgress();
}

int Demo::conclude() {
    DemoRows rows;
    bool complete = true;
    for (auto const& consumer : mConsumers) {
        if (!consumer->result()) {
            throw std::runtime_error("the consumer of " + consumer->business() +
                                     " ended without a result");
        }
        rows.emplace_back(consumer->business(), *consumer->result());
        complete = complete && consumer->succeeded() &&
                   consumer->result()->replies == mOptions.requests;
    }
    printTable(rows);
    auto const near = query(mNear);
    auto const far = query(mFar);
    if (!near || !far) throw std::runtime_error("a host is gone");
    printHost("near host", *near);
    printHost("far host", *far);
    std::printf(
            "p50 and p99: from a request to its reply, with the window and all consumers at once; "
            "sent: with\nacknowledgement frames, received: without; last delay: until a frame was "
            "acknowledged; slow: delays\nabove 1500 ms, one after another\n");
    endServants();
    std::printf("%s\n", complete ? "every request got its right reply"
                                 : "NOT every request got its right reply");
    if (!complete) printErrors();
    return complete ? EXIT_OK : EXIT_FAILED;
}

void Demo::await(char const* what, std::function<bool()> const& reached) {
    auto const limit = Clock::now() + STEP_LIMIT;
    for (;;) {
        if (reached()) return;
        if (mInterrupted) throw Interrupted();
        for (auto const& servant : mServants) {
            if (servant->ending().empty()) continue;
            throw std::runtime_error("a host or provider ended with " + servant->ending());
        }
        if (Clock::now() > limit)
            throw std::runtime_error(std::string("waited in vain for ") + what);
        mIo.run_for(POLL);
    }
}

// Empty while the host is not there yet.
std::optional<client::Counters> Demo::query(std::string const& path) {
    try {
        return client::Client(path).query();
    } catch (std::runtime_error const&) {
        return std::nullopt;
    }
}

// Providers first: they would take the end of their host for a failure.
void Demo::endServants() {
    while (!mServants.empty()) {
        std::unique_ptr<hostkit::ChildProcess> const servant = std::move(mServants.back());
        mServants.pop_back();
        servant->signal(SIGTERM);
        await("a process to end", [&] { return !servant->ending().empty(); });
        if (!servant->succeeded()) {
            throw std::runtime_error("a host or provider ended with " + servant->ending());
        }
    }
}

void Demo::printErrors() const {
    std::ifstream errors(mDirectory.file("errors"));
    std::string line;
    while (std::getline(errors, line))
        std::fprintf(stderr, "%s\n", hostkit::FrameText::escape(line).c_str());
}

}  // namespace

int runDemo(DemoOptions const& options) {
    return Demo(options).run();
}

}  // namespace vesk::tool
