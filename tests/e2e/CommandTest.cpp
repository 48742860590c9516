// The commands that are clients, with the test as their host, and the demo.

#include <sys/stat.h>

#include <set>

#include "CallReport.h"
#include "support/Scene.h"

namespace vesk::e2e {

namespace {

/** A command that has connected to the test, and the line to it. */
struct Client {
    Process& process;
    Line& line;
};

class CommandTest : public Scene {
protected:
    Client startClient(Strings arguments, Strings const& more = {}) {
        arguments.insert(arguments.begin() + 1, {"--host", socket("host")});
        arguments.insert(arguments.end(), more.begin(), more.end());
        Process& process = start(std::move(arguments));
        return {process, accept(mListener)};
    }

    /** One that has joined, as session 7. */
    Client startJoined(char const* command, Strings const& arguments) {
        Client const client = startClient({command, "test/test"}, arguments);
        int const role = command == std::string("call") ? 1 : 2;
        awaitHeard(client.line, tool::JoinMessage{role, "test", "test"}.encode());
        client.line.say(mJoined);
        return client;
    }

    /** Answers a call's request, the first of which is 1. */
    static void reply(Line& line, size_t request, std::string const& payload) {
        line.say(data(Type::REPLY, 7, line.number(request, 2), payload));
    }

    Bytes const mJoined = tool::JoinedMessage{7}.encode();
    tool::UnixListener mListener{mIo, path("host")};
};

TEST_F(CommandTest, ACallSucceedsWhenEveryReplyCameAndWasRight) {
    struct {
        char const *option, *replies, *output;
        int status;
        char const* errors;
    } const cases[] = {
            {"--stats", "ab", "a\nb\n", 0, "requests 2, replies 2, lost 0, p50 "},
            {"--verify", "xx", "x\nx\n", 0, ""},
            {"--verify", "xb", "x\nb\n", 1, "1 replies were not the request's bytes"},
            {"--report", "xb", "progress 1\nresult 2 2 0 0 ", 0, ""},
    };
    for (auto const& [option, replies, output, status, errors] : cases) {
        auto const start = std::chrono::steady_clock::now();
        auto const [process, line] = startJoined("call", {"--data", "x", "--count", "2", option});
        for (size_t i = 1; i <= 2; ++i) {
            awaitHeard(line, i + 1);
            int const msgId = line.number(i, 2);
            EXPECT_EQ(line.heard()[i], data(Type::REQUEST, 7, msgId, "x"));
            // Neither what is no reply nor what was not asked for is taken for one.
            line.say(data(Type::REQUEST, 7, msgId, "foreign"));
            line.say(data(Type::REPLY, 7, msgId + 5, "foreign"));
            line.say({2, 0, 0, 0, 5, 7});
            if (i == 1) mIo.run_for(std::chrono::milliseconds(10));
            reply(line, i, {replies[i - 1]});
        }
        expectEnd(process, status, errors);
        EXPECT_EQ(process.output().rfind(output, 0), 0U) << process.output();
        size_t const line2 = process.output().find('\n') + 1;
        auto const report = tool::CallReport::parse(process.output().substr(line2));
        if (!report) continue;
        EXPECT_GE(report->p50Micros, 10000U) << "the greater of the two";
        EXPECT_LE(std::chrono::microseconds(report->p99Micros),
                  std::chrono::steady_clock::now() - start);
    }
}

TEST_F(CommandTest, ACallKeepsItsWindowFullAndNoFuller) {
    auto const [process, line] = startJoined("call", {"--count", "5", "--window", "2"});
    awaitHeard(line, 3);
    reply(line, 2, "second");
    awaitHeard(line, 4);
    process.signal(SIGINT);
    expectEnd(process, 1, "2 of 3 requests got no reply");
    awaitClosed(line);
    EXPECT_EQ(line.heard().size(), 4U);
    EXPECT_EQ(line.heard()[1], data(Type::REQUEST, 7, line.number(1, 2), "")) << "stdin is empty";
    EXPECT_EQ(process.output(), "second\n");
}

TEST_F(CommandTest, ALateReplyIsNobodysReply) {
    std::string output;
    for (int timeout = 20; output.empty() && timeout < 60000; timeout *= 4) {
        auto const [process, line] = startJoined(
                "call", {"--data", "", "--count", "2", "--timeout", std::to_string(timeout)});
        awaitHeard(line, 3);  // the first has been given up
        reply(line, 1, "late");
        reply(line, 2, "in time, where the machine is not too busy");
        expectEnd(process, 1, " of 2 requests got no reply");
        output = process.output();
        if (!output.empty()) expectEnd(process, 1, "1 of 2 requests");
    }
    EXPECT_EQ(output, "in time, where the machine is not too busy\n");

    // An id is used again when its reply has come, and not before.
    Strings const many{"--data", "", "--count", "65600", "--window", "600", "--report"};
    for (std::string const timeout : {"1", "60000"}) {
        Client const caller = startClient({"call", "test/test", "--timeout", timeout}, many);
        caller.line.say(mJoined);
        for (size_t i = 1; timeout != "1" && i <= 65600; ++i) {
            awaitHeard(caller.line, i + 1);
            reply(caller.line, i, "");
        }
        expectEnd(caller.process, timeout == "1" ? 1 : 0,
                  timeout == "1" ? "no message id is left" : "");
        awaitClosed(caller.line);
        std::set<uint16_t> ids;
        for (size_t i = 1; i < std::min(caller.line.heard().size(), size_t{65537}); ++i)
            EXPECT_TRUE(ids.insert(caller.line.number(i, 2)).second);
    }
}

TEST_F(CommandTest, WhatAHostDoesWrongIsSaid) {
    Bytes const refused = tool::encodeMessage(Type::REFUSED, "no such luck");
    Bytes refusedLater(mJoined), brokenLater(mJoined);
    refusedLater.insert(refusedLater.end(), refused.begin(), refused.end());
    brokenLater.insert(brokenLater.end(), {0, 0, 0, 0});
    struct {
        Bytes answer;
        int status;
        char const* errors;
    } const cases[] = {
            {refused, 2, "vesk: no such luck\n"},
            {{}, 1, "the host went away before it answered"},
            {{0, 0, 0, 0}, 1, "the host's answer is not understood"},
            {{2, 0, 0, 0, 2, 7}, 1, "the host's answer is not understood"},
            {{3, 0, 0, 0, 4, 7, 7}, 1, "the host's answer is not understood"},
            {mJoined, 1, "the host is gone"},
            {refusedLater, 1, "the host refused: no such luck"},
            {brokenLater, 1, "messages are not understood"},
    };
    for (auto const& [answer, status, errors] : cases) {
        for (auto const& command : {Strings{"call", "a/b"}, {"provide", "a/b", "--echo"}}) {
            auto const [process, line] = startClient(command);
            awaitHeard(line, 1);
            line.say(answer);
            if (command[0] == "call" && answer == mJoined) awaitHeard(line, 2);
            line.close();
            expectEnd(process, status, errors);
        }
    }
    std::string const host = "host --channel tty:x --clients " + socket("none");
    for (auto const& [command, status, errors] :
         {std::tuple{"call a/b --host " + socket("none"), 1, "vesk host --clients unix:"},
          {host + " --listen", 2, "--listen makes no sense"},
          {host + " --topic nix", 2, "the known ones are: virtualcomm, test"},
          {host + " --topic test --local-topic test", 2, "named twice"}}) {
        expectEnd(start({"/bin/sh", "-c", VESK_TOOL " " + command}), status, errors);
    }
    std::string const full = " call a/b --host " + socket("host") + " >/dev/full";
    Client const unread{start({"/bin/sh", "-c", VESK_TOOL + full}), accept(mListener)};
    unread.line.say(mJoined);
    awaitHeard(unread.line, 2);
    reply(unread.line, 1, "x");
    expectEnd(unread.process, 1, "cannot write to stdout");
}

TEST_F(CommandTest, AProviderAnswersEachRequestOnce) {
    struct {
        Strings answer;
        char const *reply, *errors;
    } const cases[] = {
            {{"--echo"}, "Some", ""},
            {{"--exec", "tr a-z A-Z"}, "SOME", ""},
            {{"--exec", "cat; exit 3"}, nullptr, "message 4 of session 3: the command ended with"},
            {{"--exec", "printf %65536d 1"}, nullptr, "the command wrote more than 65535 bytes"},
    };
    for (auto const& [answer, expected, errors] : cases) {
        auto const [process, line] = startJoined("provide", answer);
        line.say(data(Type::REPLY, 3, 3, "no request"));
        line.say(data(Type::REQUEST, 3, 4, "Some"));
        if (expected) awaitHeard(line, data(Type::REPLY, 3, 4, expected));
        awaitErrors(process, errors);
        process.signal(SIGTERM);
        expectEnd(process, 0, "providing test/test as session 7");
        awaitClosed(line);
        EXPECT_EQ(line.heard().size(), expected ? 2U : 1U);
    }
    // Each job tells how many its provider has at that time.
    Client const busy = startJoined(
            "provide", {"--jobs", "2", "--exec", "wc -w </proc/$PPID/task/$PPID/children"});
    Bytes requests;
    for (int i = 0; i < 6; ++i) {
        Bytes const request = data(Type::REQUEST, 1, i, "");
        requests.insert(requests.end(), request.begin(), request.end());
    }
    busy.line.say(requests);
    awaitHeard(busy.line, 7);
    std::set<int> told, ids;
    for (size_t i = 1; i < 7; ++i) {
        told.insert(busy.line.number(i, 4));
        ids.insert(busy.line.number(i, 2));
    }
    EXPECT_EQ(*told.rbegin(), '\n' << 8 | '2');
    EXPECT_EQ(ids.size(), 6U);

    // Jobs end with their provider, and what they have started when it can see to that.
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    std::string const job = "exec >" + path("fifo") + "; echo; ";
    for (auto const& [signal, rest] :
         {std::pair{SIGTERM, "sleep 1000 & wait"}, {SIGKILL, "exec sleep 1000"}}) {
        auto const [process, line] = startJoined("provide", {"--exec", job + rest});
        line.say(data(Type::REQUEST, 1, 1, std::string(tool::MAX_PAYLOAD, 'x')));
        std::ifstream fifo(path("fifo"));
        EXPECT_EQ(fifo.get(), '\n');
        process.signal(signal);
        EXPECT_EQ(fifo.get(), EOF);
        await("its end", [&, &ended = process] { return ended.ended(); });
    }
}

TEST_F(CommandTest, TheDemoSucceedsOnlyWhenEverythingDid) {
    struct {
        char const* script;  // stands for the tool
        int status;
        char const *output, *errors;
    } const cases[] = {
            {"", 0, "\ntotal                           28        28      0\n", ""},
            {"call) echo why >&2; echo result 2 2 0 0 5 6; exit 1;;", 1, "\nNOT every", "why"},
            {"call) echo result 1 1 0 0 5 6;;", 1, "\nNOT every", ""},
            {"call) ;;", 1, "", "the consumer of virtualcomm/"},
            {"host) exit 3;;", 1, "", "a host or provider ended with exit status 3"},
            {"call) echo result 2 2 0 0 5 6;;\nprovide) trap 'exit 4' TERM; $tool & wait;;", 1, "",
             "a host or provider ended with exit status 4"},
            {"call) kill -INT $PPID; exec sleep 1000;;", 130, "", "interrupted"},
    };
    std::string const program = path("program");
    for (auto const& [script, status, output, errors] : cases) {
        std::filesystem::remove(program);
        std::ofstream(program) << "#!/bin/sh\ntool='" VESK_TOOL " '\"$*\"\ncase $1 in\n"
                               << script << "\n*) exec $tool;;\nesac\n";
        ::chmod(program.c_str(), 0700);
        Process& demo = start({"demo", "--requests", "2", "--program", program});
        expectEnd(demo, status, errors);
        EXPECT_NE(demo.output().find(output), std::string::npos) << demo.output();
    }
    for (auto const& entry : std::filesystem::directory_iterator(path("")))
        EXPECT_EQ(entry.path().string().find("/vesk-demo"), std::string::npos) << entry.path();
}

}  // namespace

}  // namespace vesk::e2e
