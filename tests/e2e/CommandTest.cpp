// The commands that are clients, with the test as their host, and the demo.

#include <sys/stat.h>

#include <set>

#include "CallReport.h"
#include "PayloadSource.h"
#include "support/Scene.h"

namespace vesk::e2e {

namespace {

class CommandTest : public Scene {
protected:
    /** A command that has connected to the test, and the line to it. */
    struct Client {
        Process& process;
        Line& line;
    };

    Client startClient(std::string const& arguments) {
        Process& process = start(arguments + " --host " + socket("host"));
        return {process, accept(mListener, Line::MESSAGES)};
    }

    /** A provider, or else a consumer, that has joined as session 7. */
    Client startJoined(std::string const& arguments, int role = 1) {
        char const* const command = role == 2 ? "provide test/test " : "call test/test ";
        Client const client = startClient(command + arguments);
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
    for (auto const& [option, replies, output, status, errors] :
         {std::tuple{"--stats", "ab", "a\nb\n", 0, "requests 2, replies 2, lost 0, p50 "},
          {"--verify", "xx", "x\nx\n", 0, ""},
          {"--verify", "xb", "x\nb\n", 1, "1 replies were not the request's bytes"},
          {"--report", "xb", "progress 1\nresult 2 2 0 0 ", 0, ""}}) {
        auto const start = std::chrono::steady_clock::now();
        auto const [process, line] = startJoined("--data x --count 2 " + std::string(option));
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
        size_t const second = process.output().find('\n') + 1;
        auto const report = tool::CallReport::parse(process.output().substr(second));
        if (!report) continue;
        EXPECT_GE(report->p50Micros, 10000U) << "the greater of the two";
        EXPECT_LE(std::chrono::microseconds(report->p99Micros),
                  std::chrono::steady_clock::now() - start);
    }
}

TEST_F(CommandTest, ACallKeepsItsWindowFullAndNoFuller) {
    auto const [process, line] = startJoined("--count 5 --window 2");
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
        auto const [process, line] = startJoined("--count 2 --timeout " + std::to_string(timeout));
        awaitHeard(line, 3);  // the first has been given up
        reply(line, 1, "late");
        reply(line, 2, "in time, where the machine is not too busy");
        expectEnd(process, 1, " of 2 requests got no reply");
        output = process.output();
        if (!output.empty()) expectEnd(process, 1, "1 of 2 requests");
    }
    EXPECT_EQ(output, "in time, where the machine is not too busy\n");

    // An id that was given up is not used again.
    auto const [process, line] = startJoined("--count 65600 --window 600 --timeout 1");
    expectEnd(process, 1, "no message id is left");
    awaitClosed(line);
    std::set<uint16_t> ids;
    for (size_t i = 1; i < line.heard().size(); ++i)
        EXPECT_TRUE(ids.insert(line.number(i, 2)).second);
}

TEST_F(CommandTest, WhatAHostDoesWrongIsSaid) {
    Bytes const refused = tool::encodeMessage(Type::REFUSED, "no such luck"), noMessage(4);
    Bytes refusedLater(mJoined), brokenLater(mJoined);
    refusedLater.insert(refusedLater.end(), refused.begin(), refused.end());
    brokenLater.insert(brokenLater.end(), noMessage.begin(), noMessage.end());
    for (auto const& [answer, status, errors] :
         {std::tuple{refused, 2, "vesk: no such luck\n"},
          {Bytes{}, 1, "the host went away before it answered"},
          {noMessage, 1, "the host's answer is not understood"},
          {Bytes{2, 0, 0, 0, 2, 7}, 1, "the host's answer is not understood"},
          {Bytes{3, 0, 0, 0, 4, 7, 7}, 1, "the host's answer is not understood"},
          {mJoined, 1, "the host is gone"},
          {refusedLater, 1, "the host refused: no such luck"},
          {brokenLater, 1, "messages are not understood"}}) {
        auto const [process, line] = startClient("provide a/b --echo");
        awaitHeard(line, 1);
        line.say(answer);
        line.close();
        expectEnd(process, status, errors);
    }
    std::string const host = "host --channel tty:x --clients " + socket("none");
    for (auto const& [arguments, status, errors] :
         {std::tuple{"call a/b --host " + socket("none"), 1, "vesk host --clients unix:"},
          {"call a/b --data $(printf %065536d 1) --host " + socket("none"), 2, "65535 at most"},
          {host + " --listen", 2, "--listen makes no sense"},
          {host + " --topic nix", 2, "the known ones are: virtualcomm, test"},
          {host + " --topic test --local-topic test", 2, "named twice"}}) {
        expectEnd(start(arguments), status, errors);
    }
    auto const [unread, line] = startJoined(">/dev/full");
    awaitHeard(line, 2);
    reply(line, 1, "x");
    expectEnd(unread, 1, "cannot write to stdout");
}

TEST_F(CommandTest, RandomPayloadsHaveEverySizeUpToTheGreatest) {
    tool::CallOptions options;
    options.randomSize = 10;
    tool::PayloadSource random(options);
    std::set<size_t> sizes;
    for (int i = 0; i < 2000; ++i)
        sizes.insert(random.next().size());
    EXPECT_EQ(sizes, (std::set<size_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

TEST_F(CommandTest, AProviderAnswersEachRequestOnce) {
    for (auto const& [how, answer, errors] :
         {std::tuple{"--echo", "Some", ""},
          {"--exec 'tr a-z A-Z'", "SOME", ""},
          {"--exec 'cat; exit 3'", "", "message 4 of session 3: the command ended with exit stat"},
          {"--exec 'printf %65536d 1'", "", "the command wrote more than 65535 bytes"}}) {
        auto const [process, line] = startJoined(how, 2);
        line.say(data(Type::REPLY, 3, 3, "no request"));
        line.say(data(Type::REQUEST, 3, 4, "Some"));
        if (*answer) awaitHeard(line, data(Type::REPLY, 3, 4, answer));
        awaitText(process, errors);
        process.signal(SIGTERM);
        expectEnd(process, 0, "providing test/test as session 7");
        awaitClosed(line);
        EXPECT_EQ(line.heard().size(), *answer ? 2U : 1U);
    }
    // Each job tells how many its provider has at that time.
    Client const busy = startJoined("--jobs 2 --exec 'wc -w </proc/$PPID/task/$PPID/children'", 2);
    Bytes requests;
    for (int i = 0; i < 6; ++i) {
        Bytes const request = data(Type::REQUEST, 1, i, "");
        requests.insert(requests.end(), request.begin(), request.end());
    }
    busy.line.say(requests);
    awaitHeard(busy.line, 7);
    int most = 0;
    for (size_t i = 1; i < 7; ++i)
        most = std::max(most, int(busy.line.number(i, 4)));
    EXPECT_EQ(most, '\n' << 8 | '2');

    // A job ends with its provider, however that ends.
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    Client const doomed =
            startJoined("--exec 'exec >" + path("fifo") + "; echo; exec sleep 1000'", 2);
    doomed.line.say(data(Type::REQUEST, 1, 1, ""));
    std::ifstream fifo(path("fifo"));
    EXPECT_EQ(fifo.get(), '\n');
    doomed.process.signal(SIGKILL);
    EXPECT_EQ(fifo.get(), EOF);
}

TEST_F(CommandTest, TheDemoSucceedsOnlyWhenEverythingDid) {
    std::string const result = "call) echo why >&2; echo result 2 2 0 0 5 6";
    for (auto const& [script, status, output, errors] :  // the script stands for the tool
         {std::tuple{std::string(), 0, "\ntotal                           28        28      0\n",
                     ""},
          {result + "; exit 1;;", 1, "\nNOT every", "why"},
          {"call) echo result 1 1 0 0 5 6;;", 1, "\nNOT every", ""},
          {"call) ;;", 1, "", "the consumer of virtualcomm/"},
          {"host) exit 3;;", 1, "", "a host or provider ended with exit status 3"},
          {result + ";;\nprovide) trap 'exit 4' TERM; $tool & wait;;", 1, "", "exit status 4"},
          {"call) kill -INT $PPID; exec sleep 1000;;", 130, "", "interrupted"}}) {
        std::filesystem::remove(path("program"));
        std::ofstream(path("program")) << "#!/bin/sh\ntool='" VESK_TOOL " '\"$*\"\ncase $1 in\n"
                                       << script << "\n*) exec $tool;;\nesac\n";
        ::chmod(path("program").c_str(), 0700);
        Process& demo = start("demo --requests 2 --program " + path("program"));
        expectEnd(demo, status, errors);
        EXPECT_NE(demo.output().find(output), std::string::npos) << demo.output();
    }
    for (auto const& entry : std::filesystem::directory_iterator(path("")))
        EXPECT_EQ(entry.path().string().find("/vesk-demo"), std::string::npos) << entry.path();
}

}  // namespace

}  // namespace vesk::e2e
