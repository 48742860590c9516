#include <grp.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>

#include <quillex/Log.h>
#include <vesk/VeskProtocol.h>
#include <CLI/CLI.hpp>

#include "BashCompletion.h"
#include "CallCommand.h"
#include "DecodeCommand.h"
#include "DemoCommand.h"
#include "Errors.h"
#include "HostCommand.h"
#include "ListCommand.h"
#include "ManualPage.h"
#include "ProvideCommand.h"
#include "StatusCommand.h"
#include "TapCommand.h"
#include "WatchCommand.h"

namespace vesk::tool {

namespace {

using Command = std::function<int()>;

/**
 * For options with a whole number. The number is decimal, also with zeros in front, which CLI11
 * would take for octal.
 */
class WholeNumber : public CLI::Validator {
public:
    WholeNumber(uint64_t min, uint64_t max) {
        desc_function_ = [min, max] { return range(min, max); };
        func_ = [min, max](std::string& text) {
            uint64_t number = 0;
            auto const [end, error] =
                    std::from_chars(text.data(), text.data() + text.size(), number);
            bool const whole = error == std::errc() && end == text.data() + text.size();
            if (!whole || number < min || number > max) {
                return "'" + text + "' is no whole number from " + range(min, max);
            }
            text = std::to_string(number);
            return std::string();
        };
    }

private:
    static std::string range(uint64_t min, uint64_t max) {
        return std::to_string(min) + " to " + std::to_string(max);
    }
};

constexpr size_t DAY = 86400000;  // in milliseconds

void addHostAddress(CLI::App* sub, HostAddress& address) {
    sub->add_option("--host", address.host,
                    "The host's client socket: unix:PATH (default: $VESK_HOST, else that of a host "
                    "without --clients)")
            ->envname("VESK_HOST");
    sub->add_flag("--any-owner", address.anyOwner,
                  "Talk also to a host of another user, who can read everything");
}

void addRetry(CLI::App* sub, HostAddress& address) {
    sub->add_flag("--retry", address.retry,
                  "When the host goes away, wait until it is back and go on");
    sub->add_flag("--reconnect", address.retry)->group("");  // as it was called at first
}

mode_t parseMode(std::string const& text) {
    unsigned mode = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), mode, 8);
    if (error != std::errc() || end != text.data() + text.size() || mode > 0777) {
        throw UsageError("--mode: '" + text + "' is no mode; write one in octal, like 0660");
    }
    return mode;
}

gid_t parseGroup(std::string const& name) {
    if (group const* const found = ::getgrnam(name.c_str())) return found->gr_gid;
    gid_t number = 0;
    auto const [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error != std::errc() || end != name.data() + name.size()) {
        throw UsageError("--group: there is no group '" + name + "'; write a name or a number");
    }
    return number;
}

std::string const EXIT_STATUSES = "Exit status: 0 success, 1 failure, 2 wrong usage.";

void addHost(CLI::App& app, HostOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand("host", "Owns one byte channel and serves local clients");
    sub->add_option("--channel", options.channel,
                    "The byte channel: unix:PATH, tcp:HOST:PORT (tcp:PORT is loopback), "
                    "tty:DEVICE[,BAUD], dev:PATH (a device as it is), exec:COMMAND (the stdin and "
                    "stdout of a shell command) or stdio: (this process's own)")
            ->required();
    sub->add_flag("--listen", options.listen,
                  "Wait for the peer at a unix: or tcp: channel instead of connecting to it");
    sub->add_option("--clients", options.clients,
                    "The socket for local clients: unix:PATH (default: vesk-host in "
                    "$XDG_RUNTIME_DIR)");
    sub->add_option("--topic", options.topics,
                    "Serve this topic with the peer; may be repeated (default: all there are)");
    sub->add_option("--local-topic", options.localTopics,
                    "Serve this topic among local clients only; may be repeated");
    sub->add_option_function<std::string>(
            "--mode", [&](std::string const& text) { options.access.mode = parseMode(text); },
            "Mode of the sockets that the host creates, in octal; who may write may connect "
            "(default: 0600)");
    sub->add_option_function<std::string>(
            "--group", [&](std::string const& name) { options.access.group = parseGroup(name); },
            "Group of these sockets, by name or number; use it with --mode 0660");
    sub->add_option(
               "--memory", options.memoryMib,
               "MiB that the host may hold for all clients and the peer together; slow clients "
               "are disconnected before it needs more")
            ->transform(WholeNumber(16, 4096))
            ->capture_default_str();
    CLI::Option* capture = sub->add_option(
            "--capture", options.capture,
            "Record what the channel carries in this file (pcapng), for vesk decode or Wireshark");
    sub->add_option("--capture-limit", options.captureLimit,
                    "Bytes of that file; what comes later is not recorded")
            ->transform(WholeNumber(1, UINT64_MAX))
            ->needs(capture)
            ->capture_default_str();
    sub->footer(
            "Examples:\n"
            "  vesk host --channel tcp:localhost:7000 --listen\n"
            "  vesk host --channel tty:/dev/ttyS0,115200 --clients unix:$XDG_RUNTIME_DIR/board\n"
            "  vesk host --channel 'exec:ssh board vesk host --channel stdio:' --capture "
            "board.pcapng");
    sub->callback([&] { command = [&] { return runHost(options); }; });
}

void addProvide(CLI::App& app, ProvideOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand("provide", "Answers the requests of one business");
    addHostAddress(sub, options.address);
    sub->add_option("business", options.business, "TOPIC/BUSINESS")->required();
    CLI::Option_group* answer = sub->add_option_group("answer", "How to answer; one of");
    answer->add_flag("--echo", options.echo, "With the request's own bytes");
    answer->add_option(
            "--exec", options.command,
            "With what this shell command writes when it reads the request on stdin; what "
            "it leaves running, but for that with a session of its own, ends with it");
    answer->require_option(1);
    sub->add_option("--jobs", options.jobs, "Commands of --exec that run at once")
            ->transform(WholeNumber(1, 256))
            ->capture_default_str();
    sub->add_option("--job-timeout", options.jobTimeoutMillis,
                    "Milliseconds that each of them has; then it is killed")
            ->transform(WholeNumber(1, DAY))
            ->capture_default_str();
    addRetry(sub, options.address);
    sub->footer(
            "Examples:\n"
            "  vesk provide test/test --echo\n"
            "  vesk provide test/test --exec 'tr a-z A-Z' --jobs 8 --retry");
    sub->callback([&] { command = [&] { return runProvide(options); }; });
}

void addCall(CLI::App& app, CallOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand("call",
                                       "Sends requests to a business and prints the replies, their "
                                       "exact bytes where stdout is "
                                       "no terminal; succeeds only when every reply came");
    sub->footer(
            "Exit status: 0 every reply came, 1 failure, 2 wrong usage or refused, 3 no host; and "
            "where replies did not come: 4 its channel is down, 5 nobody provides the business, 6 "
            "the peer has not acknowledged, 7 it has and nobody answered; 130 interrupted.\n"
            "Examples:\n"
            "  vesk call test/test --data hello\n"
            "  seq 1000 | vesk call test/test --lines --window 16 --stats");
    addHostAddress(sub, options.address);
    sub->add_option("business", options.business, "TOPIC/BUSINESS")->required();
    CLI::Option_group* payload = sub->add_option_group(
            "payload",
            "What to send, up to " + std::to_string(MAX_PAYLOAD_SIZE) + " bytes (default: stdin)");
    payload->add_option("--data", options.data, "This text");
    payload->add_option("--file", options.file, "The content of this file; - is stdin");
    payload->add_flag("--lines", options.lines,
                      "Each line of stdin, without its end, as a request of its own; as many "
                      "requests as lines");
    payload->add_option("--random-size", options.randomSize,
                        "Random bytes, another length up to this one for each request")
            ->transform(WholeNumber(0, MAX_PAYLOAD_SIZE));
    payload->require_option(0, 1);
    sub->add_option("--count", options.count, "Number of requests")
            ->transform(WholeNumber(1, 1000000000))
            ->capture_default_str();
    sub->add_option("--interval", options.intervalMillis, "Milliseconds between two requests")
            ->transform(WholeNumber(0, DAY))
            ->capture_default_str();
    sub->add_option("--window", options.window, "Requests that may be outstanding")
            ->transform(WholeNumber(1, 32768))
            ->capture_default_str();
    sub->add_option("--timeout", options.timeoutMillis, "Milliseconds to wait for each reply")
            ->transform(WholeNumber(1, DAY))
            ->capture_default_str();
    sub->add_option("--join-timeout", options.joinTimeoutMillis,
                    "Milliseconds to wait for the host to accept, and then to answer")
            ->transform(WholeNumber(1, DAY))
            ->capture_default_str();
    sub->add_flag("--verify", options.verify, "Count a reply that is no echo as a failure");
    sub->add_flag("--hex", options.hex, "Print each reply as a line of hex digits");
    sub->add_flag("--stats", options.stats, "Print count, lost, p50 and p99 to stderr");
    sub->add_flag("--report", options.report,
                  "Print, instead of the replies, lines for a program: 'progress REPLIES' and last "
                  "'result REQUESTS REPLIES LOST WRONG P50 P99' (in microseconds)");
    sub->callback([&] { command = [&] { return runCall(options); }; });
}

void addWatch(CLI::App& app, WatchOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand(
            "watch",
            "Prints a host's topics and providers, what comes and goes there, and its counters "
            "when they have changed; on a terminal these stay in their place");
    addHostAddress(sub, options.address);
    addRetry(sub, options.address);
    sub->add_flag("--json", options.json, "Print JSON objects, one in a line");
    sub->footer(
            "Examples:\n"
            "  vesk watch\n"
            "  vesk watch --json --retry >>changes");
    sub->callback([&] { command = [&] { return runWatch(options); }; });
}

void addStatus(CLI::App& app, StatusOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand(
            "status", "Prints all that can be counted about a host, and what is probably wrong");
    addHostAddress(sub, options.address);
    sub->add_flag("--json", options.json, "As one JSON object");
    sub->add_flag("--watch", options.watch, "Again every second, until it is interrupted");
    sub->footer(
            "Examples:\n"
            "  vesk status --watch\n"
            "  vesk status --host unix:$XDG_RUNTIME_DIR/board --json");
    sub->callback([&] { command = [&] { return runStatus(options); }; });
}

void addTap(CLI::App& app, TapOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand(
            "tap",
            "Prints or records what a host's channel carries, until it is interrupted; the host "
            "does not wait for it, and what it is too slow for is counted");
    addHostAddress(sub, options.address);
    CLI::Option* write = sub->add_option(
            "-w,--write", options.file,
            "Record the frames in this file (pcapng), for vesk decode or Wireshark; - is stdout");
    sub->add_flag("--json", options.json, "Print JSON objects, one in a line")->excludes(write);
    sub->add_option("filter", options.filters,
                    "Only frames with business=TOPIC/BUSINESS, topic=TOPIC, type=request, reply or "
                    "ack, dir=in or out; of several of a kind, one has to fit");
    sub->footer(
            "Examples:\n"
            "  vesk tap dir=in type=request\n"
            "  vesk tap business=test/test -w test.pcapng\n"
            "  vesk tap -w - | vesk decode -");
    sub->callback([&] { command = [&] { return runTap(options); }; });
}

void addList(CLI::App& app, ListOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand("list",
                                       "Prints the topics and businesses that there are; with "
                                       "--host also which it serves, and to how many");
    // Without a default: the catalogue can be had without any host.
    CLI::Option* host = sub->add_option("--host", options.address.host,
                                        "Ask the host at this client socket: unix:PATH");
    sub->add_flag("--any-owner", options.address.anyOwner, "Ask also a host of another user")
            ->needs(host);
    sub->add_flag("--json", options.json, "As one JSON object");
    sub->footer(
            "Examples:\n"
            "  vesk list\n"
            "  vesk list --host unix:$XDG_RUNTIME_DIR/board --json");
    sub->callback([&] { command = [&] { return runList(options); }; });
}

void addDecode(CLI::App& app, DecodeOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand("decode",
                                       "Prints a line for each frame in the bytes of a channel, or "
                                       "in a capture; succeeds only "
                                       "when every byte is in a frame that a peer acts on");
    sub->add_option("file", options.file, "Where the bytes are; - is stdin")->capture_default_str();
    sub->add_flag("--hex", options.hex,
                  "The bytes are hex digits, or the output of xxd or hexdump -C");
    sub->add_flag("--json", options.json, "Print JSON objects, one in a line");
    sub->add_flag("--follow", options.follow, "Wait for more at the end of the file");
    sub->footer(
            "Examples:\n"
            "  vesk decode board.pcapng\n"
            "  echo 55 00 00 02 01 02 07 00 02 03 01 02 | vesk decode --hex\n"
            "  vesk decode --follow --json recorded.bin");
    sub->callback([&] { command = [&] { return runDecode(options); }; });
}

void addDemo(CLI::App& app, DemoOptions& options, Command& command) {
    CLI::App* sub = app.add_subcommand(
            "demo", "Shows it all: two hosts, a provider and a consumer for every business");
    sub->add_option("--requests", options.requests, "Requests for each business")
            ->transform(WholeNumber(1, 1000000))
            ->capture_default_str();
    sub->add_option("--program", options.program,
                    "What to start the processes with, where an emulator is wanted for this one")
            ->envname("VESK_PROGRAM")
            ->capture_default_str();
    sub->footer(
            "Examples:\n"
            "  vesk demo\n"
            "  vesk demo --requests 100 --verbose");
    sub->callback([&] { command = [&] { return runDemo(options); }; });
}

// For the build, which installs what this prints.
void addManual(CLI::App& app, std::string& form, Command& command) {
    CLI::App* sub = app.add_subcommand("manual", "Prints the manual page or the bash completion");
    sub->group("");
    sub->add_option("form", form)->required()->check(CLI::IsMember({"man", "bash"}));
    sub->callback([&] {
        command = [&] {
            CommandLine const program(app);
            std::string const text = form == "man" ? manualPage(program) : bashCompletion(program);
            std::fputs(text.c_str(), stdout);
            return EXIT_OK;
        };
    });
}

// Help goes to stdout, what is wrong with the command line to stderr.
int explain(CLI::App const& app, CLI::ParseError const& error) {
    std::stringstream wrong;
    int const status = app.exit(error, std::cout, wrong);
    flushOutput();
    for (std::string line; std::getline(wrong, line);)
        say(line);
    return status == 0 ? EXIT_OK : EXIT_USAGE;
}

int run(int argc, char** argv) {
    CLI::App app("Many conversations over one byte channel: a host and its clients.", "vesk");
    bool verbose = false;
    HostOptions host;
    ProvideOptions provide;
    CallOptions call;
    WatchOptions watched;
    StatusOptions asked;
    TapOptions tap;
    ListOptions list;
    DecodeOptions decode;
    DemoOptions demo;
    std::string form;
    Command command;
    app.set_version_flag("--version", "vesk " VESK_VERSION);
    app.add_flag("-v,--verbose", verbose, "Print the library's log lines to stderr");
    app.footer(EXIT_STATUSES + " 'vesk COMMAND --help' tells more of a command.");
    app.require_subcommand(1);
    app.fallthrough();
    addHost(app, host, command);
    addProvide(app, provide, command);
    addCall(app, call, command);
    addWatch(app, watched, command);
    addStatus(app, asked, command);
    addTap(app, tap, command);
    addList(app, list, command);
    addDecode(app, decode, command);
    addDemo(app, demo, command);
    addManual(app, form, command);
    if (argc == 1) {
        std::cout << app.help();
        flushOutput();
        return EXIT_OK;
    }
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return explain(app, error);
    }
    if (verbose) quillex::Log::setSink(printLogLine);
    demo.verbose = verbose;
    int const status = command();
    flushOutput();
    return status;
}

}  // namespace

}  // namespace vesk::tool

int main(int argc, char** argv) {
    vesk::tool::openStandardStreams();
    std::signal(SIGPIPE, SIG_IGN);  // a peer that is gone shows as an error of the write
    std::signal(SIGCHLD,
                SIG_DFL);  // ignored, as some parents leave it, would hide how a child ends
    try {
        return vesk::tool::run(argc, argv);
    } catch (vesk::tool::UsageError const& error) {
        vesk::tool::say(error.what());
        return vesk::tool::EXIT_USAGE;
    } catch (vesk::tool::NoHost const& error) {
        vesk::tool::say(error.what());
        return vesk::tool::EXIT_NO_HOST;
    } catch (std::exception const& error) {
        vesk::tool::say(error.what());
        return vesk::tool::EXIT_FAILED;
    }
}
