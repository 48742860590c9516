#pragma once

#include <functional>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <asio/io_context.hpp>

#include "ChildProcess.h"
#include "HostClient.h"

namespace vesk::e2e {

using Arguments = std::vector<std::string>;

/** A vesk process, what it wrote and how it ended. */
class Process {
public:
    Process(asio::io_context& io, Arguments arguments, std::string const& errorFile);

    /** Everything on stdout so far. */
    std::string const& output() const { return mOutput; }
    /** Everything on stderr so far. */
    std::string errors() const;
    bool ended() { return mReadAll && !mChild.ending().empty(); }
    /** "exit status 0" and the like; empty while it runs. */
    std::string const& ending() { return mChild.ending(); }
    void signal(int number) { mChild.signal(number); }

private:
    void read();

    std::string const mErrorFile;
    tool::ChildProcess mChild;
    std::string mChunk, mOutput;
    bool mReadAll = false;
};

/**
 * The stage of an end-to-end test: a directory, processes in it, and one io_context that everything
 * of the test itself runs on. Waiting ends as soon as what is waited for is there. In the end every
 * process that still runs is asked to end and must do so with status 0.
 */
class Scene : public ::testing::Test {
protected:
    Scene();
    ~Scene() override;
    void TearDown() override;

    std::string path(std::string const& name) const { return mDirectory + "/" + name; }
    std::string socket(std::string const& name) const { return "unix:" + path(name); }

    Process& start(Arguments arguments);

    /** Starts a host that serves clients at socket(name), and waits until it does. */
    Process& startHost(std::string const& name, std::string const& channel, Arguments more = {});

    /** Starts an echo provider at the host `name`, and waits until it has joined. */
    Process& startEcho(std::string const& name, std::string const& business = "test/test");

    /** Runs `vesk call` at the host `name` to its end. */
    Process& call(std::string const& name, Arguments arguments,
                  std::string const& business = "test/test");

    /** Two hosts, "near" and "far", joined by a Unix socket. */
    void startPair();

    void await(std::string const& what, std::function<bool()> const& reached);
    /** Waits for the end of a process, which must be this one. */
    void expectEnd(Process& process, std::string const& ending);
    void awaitChannel(std::string const& host, bool up);
    tool::Counters counters(std::string const& host);

    asio::io_context mIo;

private:
    std::string mDirectory;
    std::list<Process> mProcesses;
};

}  // namespace vesk::e2e
