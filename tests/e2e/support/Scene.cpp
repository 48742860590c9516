#include "support/Scene.h"

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace vesk::e2e {

namespace {

// Far beyond what anything takes under a sanitizer on a busy machine; only a failure lasts as long.
constexpr std::chrono::seconds PATIENCE{60};

}  // namespace

Process::Process(asio::io_context& io, Arguments arguments, std::string const& errorFile)
    : mErrorFile(errorFile),
      mChild(io, {std::move(arguments), true, true, errorFile}),  // with pipes
      mChunk(size_t{64} * 1024, '\0') {
    mChild.input().close();  // what reads stdin finds it empty
    read();
}

void Process::read() {
    mChild.output().async_read_some(asio::buffer(mChunk),
                                    [this](asio::error_code const& error, size_t size) {
                                        mOutput.append(mChunk, 0, size);
                                        mReadAll = static_cast<bool>(error);
                                        if (!mReadAll) read();
                                    });
}

std::string Process::errors() const {
    std::ifstream file(mErrorFile);
    return {std::istreambuf_iterator<char>(file), {}};
}

Scene::Scene() {
    ::signal(SIGPIPE, SIG_IGN);
    static auto const root = std::filesystem::temp_directory_path();  // before a test changes it
    std::string name = (root / "vesk-e2e-XXXXXX").string();
    if (::mkdtemp(name.data())) mDirectory = name;
}

Scene::~Scene() {
    std::error_code ignored;
    std::filesystem::remove_all(mDirectory, ignored);
}

void Scene::TearDown() {
    // The youngest first, so that no client outlives its host.
    for (auto process = mProcesses.rbegin(); process != mProcesses.rend(); ++process) {
        if (process->ended()) continue;
        process->signal(SIGTERM);
        expectEnd(*process, "exit status 0");
    }
    if (!HasFailure()) return;
    for (Process const& process : mProcesses)
        std::fprintf(stderr, "--- a process wrote:\n%s", process.errors().c_str());
}

Process& Scene::start(Arguments arguments) {
    std::string const errorFile = path("errors" + std::to_string(mProcesses.size()));
    arguments.insert(arguments.begin(), VESK_TOOL);
    return mProcesses.emplace_back(mIo, std::move(arguments), errorFile);
}

Process& Scene::startHost(std::string const& name, std::string const& channel, Arguments more) {
    Arguments arguments{"host", "--channel", channel, "--clients", socket(name)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    Process& host = start(arguments);
    await("host " + name, [&] { return host.errors().find("serving") != std::string::npos; });
    return host;
}

Process& Scene::startEcho(std::string const& name, std::string const& business) {
    Process& provider = start({"provide", "--host", socket(name), business, "--echo"});
    await("a provider", [&] { return provider.errors().find("providing") != std::string::npos; });
    return provider;
}

Process& Scene::call(std::string const& name, Arguments arguments, std::string const& business) {
    arguments.insert(arguments.begin(), {"call", "--host", socket(name), business});
    Process& caller = start(arguments);
    await("a call", [&] { return caller.ended(); });
    return caller;
}

void Scene::startPair() {
    startHost("far", socket("channel"), {"--listen"});
    startHost("near", socket("channel"));
    awaitChannel("near", true);
    awaitChannel("far", true);
}

void Scene::await(std::string const& what, std::function<bool()> const& reached) {
    auto const limit = std::chrono::steady_clock::now() + PATIENCE;
    while (!reached()) {
        if (std::chrono::steady_clock::now() > limit)
            throw std::runtime_error("waited in vain for " + what);
        mIo.run_for(std::chrono::milliseconds(10));
        mIo.restart();
    }
}

void Scene::expectEnd(Process& process, std::string const& ending) {
    await("a process to end", [&] { return process.ended(); });
    EXPECT_EQ(process.ending(), ending) << process.output() << process.errors();
}

void Scene::awaitChannel(std::string const& host, bool up) {
    await("the channel of " + host, [&] { return (counters(host).channelUp != 0) == up; });
}

tool::Counters Scene::counters(std::string const& host) {
    return tool::HostClient(mIo, path(host)).query();
}

}  // namespace vesk::e2e
