#include "Harness.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>

namespace peers {

namespace {

double processorSeconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

long peakKiB(std::string const& process) {
    std::ifstream status("/proc/" + process + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return 0;
}

}  // namespace

Options optionsFrom(int argc, char** argv) {
    Options options;
    double payload = 64, window = 1, requests = 0;
    std::map<std::string, double*> const numbers{{"--payload", &payload},
                                                 {"--window", &window},
                                                 {"--requests", &requests},
                                                 {"--seconds", &options.seconds}};
    for (int i = 1; i < argc; ++i) {
        auto const number = numbers.find(argv[i]);
        bool const coalesces = std::strcmp(argv[i], "--coalesce") == 0;
        options.coalesces = options.coalesces || coalesces;
        if (coalesces) continue;
        require(number != numbers.end() && ++i < argc,
                "give --coalesce, or a number behind one of "
                "--payload, --window, --seconds, --requests");
        *number->second = std::atof(argv[i]);
    }
    require(payload >= 8 && window >= 1, "give a payload from 8 and a window from 1");
    options.payload = size_t(payload);
    options.window = size_t(window);
    options.requests = size_t(requests);
    return options;
}

int run(int argc, char** argv, Serve serve, Ask ask) {
    Options const options = optionsFrom(argc, argv);
    char folder[] = "/tmp/vesk-peers-XXXXXX";
    require(mkdtemp(folder) != nullptr, "no folder for the socket");
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "no pair of sockets");
    Channel channel{ends[0], std::string(folder) + "/channel"};
    std::signal(SIGCHLD, [](int) { _exit(1); });  // a server that ends by itself has failed
    pid_t const server = fork();
    if (server == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[0]);
        channel.end = ends[1];
        serve(channel, options);
        _exit(0);
    }
    clockid_t theirs = 0;
    require(clock_getcpuclockid(server, &theirs) == 0, "no processor clock of the server");
    double processor = 0;
    auto const clocks = [&] {  // runs twice: what it was before is taken from what it is then
        if (processor > 0) std::signal(SIGCHLD, SIG_IGN);
        double const now = processorSeconds(CLOCK_PROCESS_CPUTIME_ID) + processorSeconds(theirs);
        processor = now - processor;
    };
    Load load(options, clocks);
    ask(channel, options, load);
    std::printf(
            "{\"rate\": %.0f, \"p50\": %.2f, \"p99\": %.2f, \"max\": %.2f, \"cpu\": %.3f, \"kib\": "
            "%ld, "
            "\"requests\": %llu}\n",
            load.requestsPerSecond(), load.percentile(50), load.percentile(99), load.longest(),
            processor / double(load.measured()) * 1e6,
            peakKiB("self") + peakKiB(std::to_string(server)),
            static_cast<unsigned long long>(load.measured()));
    std::fflush(stdout);
    unlink(channel.path.c_str());
    rmdir(folder);
    _exit(0);  // what the contender has running need not be taken down in order
}

void writeAll(int channel, uint8_t const* bytes, size_t size) {
    while (size > 0) {
        ssize_t const written = send(channel, bytes, size, MSG_NOSIGNAL);
        if (written <= 0) _exit(1);  // so has the other process, which says why
        bytes += written;
        size -= size_t(written);
    }
}

size_t readSome(int channel, uint8_t* bytes, size_t size) {
    ssize_t const got = recv(channel, bytes, size, 0);
    if (got <= 0) _exit(1);
    return size_t(got);
}

void require(bool fine, char const* what) {
    if (fine) return;
    std::fprintf(stderr, "%s\n", what);
    std::_Exit(1);
}

}  // namespace peers
