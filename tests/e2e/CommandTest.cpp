// The commands that are clients, with the test as their host, and the demo.

#include <set>

#include "CallReport.h"
#include "WatchPrinter.h"
#include "support/Scene.h"

namespace vesk::e2e {

class CommandTest : public Scene {
protected:
    using Client = std::pair<Process&, Line&>;

    /** A command that has connected to the test, and the line to it. */
    Client startClient(std::string const& arguments) {
        Process& process = start(arguments + " --host " + socket("host"));
        return {process, accept(mListener, Line::MESSAGES)};
    }

    /** Such a provider or consumer that has joined as session 7. */
    Client startJoined(std::string const& arguments) {
        Client const client = startClient(arguments + " test/test");
        awaitHeard(client.second, joining(arguments[0] == 'p' ? PROVIDER : CONSUMER));
        client.second.say(mJoined);
        return client;
    }

    /** Answers a call's request, the first of which is 1. */
    static void reply(Line& line, size_t request, std::string const& payload) {
        line.say(data(Type::REPLY, 7, line.number(request, 2), payload));
    }

    Bytes const mJoined = client::JoinedMessage{7}.encode();
    hostkit::UnixListener mListener{mIo, path("host")};
};

TEST_F(CommandTest, ACallKeepsItsWindowFullAndSucceedsWhenEveryReplyCameAndWasRight) {
    for (auto const& [option, second, output, status, errors] :
         {std::tuple{"--stats", "b", "bxx", 0, "requests 3, replies 3, lost 0, p50 "},
          {"--verify --hex", "x", "78\n78\n78\n", 0, ""},
          {"--verify", "b", "bxx", 1, "1 replies were not the request's bytes"},
          {"--report", "b", "progress 1\n", 0, ""}}) {
        auto const [process, line] =
                startJoined("call --data x --count 3 --window 2 " + std::string(option));
        awaitHeard(line, 3);
        mIo.run_for(std::chrono::milliseconds(10));
        EXPECT_EQ(line.heard().size(), 3U);
        int const msgId = line.number(2, 2);
        EXPECT_EQ(line.heard()[2], data(Type::REQUEST, 7, msgId, "x"));
        // Neither what is no reply nor what was not asked for is taken for one.
        line.say(data(Type::REQUEST, 7, msgId, "foreign"));
        line.say(data(Type::REPLY, 7, msgId + 5, "foreign"));
        line.say({2, 0, 0, 0, 5, 7});
        reply(line, 2, second);
        awaitHeard(line, 4);
        for (size_t const request : {size_t{3}, size_t{1}})
            reply(line, request, "x");
        expectEnd(process, status, errors);
        EXPECT_EQ(process.output().rfind(output, 0), 0U) << process.output();
        if (option != std::string("--report")) continue;
        size_t const result = process.output().find("result 3 3 0 0 ");
        auto const report = tool::CallReport::parse(process.output().substr(result));
        EXPECT_GE(report->p50Micros, 10000U) << "as the first two of them, not as the last one";
    }
}

TEST_F(CommandTest, ALateReplyIsNobodysReply) {
    std::string output;
    for (int timeout = 20; output.empty() && timeout < 60000; timeout *= 4) {
        auto const [process, line] =
                startJoined("call --count 2 --timeout " + std::to_string(timeout));
        awaitHeard(line, 3);  // the first has been given up
        reply(line, 1, "late");
        reply(line, 2, "in time, where the machine is not too busy");
        Line& asking = accept(mListener, Line::MESSAGES);  // why, while the first may be paused
        awaitHeard(asking, 1);
        EXPECT_EQ(asking.heard()[0], client::StatusMessage{client::StatusFormat::JSON}.encode());
        asking.close();
        expectEnd(process, 1, " of 2 requests got no reply\n");
        output = process.output();
    }
    EXPECT_EQ(output, "in time, where the machine is not too busy");

    // An id that was given up is not used again.
    auto const [process, line] = startJoined("call --count 65600 --window 600 --timeout 1");
    expectEnd(process, 1, "no message id is left");
    awaitClosed(line);
    std::set<uint16_t> ids;
    for (size_t i = 1; i < line.heard().size(); ++i)
        EXPECT_TRUE(ids.insert(line.number(i, 2)).second);
}

// What the host tells of itself when a reply has not come, and what that makes of it.
TEST_F(CommandTest, ACallSaysWhyNoReplyCame) {
    for (auto const& [status, exitStatus, reason] :
         {std::tuple{R"("up":false,"channelMs":12999)", 4, "the host's channel is down since 12 s"},
          {R"("up":true,"acknowledged":0,"awaitingAck":0)", 6, "the peer has not acknowledged"},
          {R"("up":true,"acknowledged":9,"awaitingAck":1)", 6, "the peer has not acknowledged"},
          {R"("up":true,"acknowledged":9,"timedOut":1)", 6, "the peer has not acknowledged"},
          {R"("up":true,"acknowledged":9,"pending":0)", 7, "acknowledged them and nobody answered"},
          {R"("up":false,"localTopics":["testing","test"])", 5,
           "nobody provides test/test on this host"},
          {R"("localTopics":["test"],"sessions":[{"topic":"test","business":"test",)"
           R"("providers":1}])",
           7, "its provider on this host has not answered"},
          {R"("localTopics":["test"],"sessions":[{"topic":"test","business":"test",)"
           R"("providers":0}])",
           5, "nobody provides test/test"},
          {R"("frames":{"timedOut":9},"acknowledged":9,"timedOut":0)", 7, "nobody answered"},
          {R"("up":"no")", 1, "what the host tells of its state is not understood"}}) {
        auto const [process, line] = startJoined("call --timeout 1");
        Line& asking = accept(mListener, Line::MESSAGES);
        awaitHeard(asking, 1);
        asking.say(client::encodeMessage(Type::STATUS_TEXT, "{" + std::string(status) + "}"));
        expectEnd(process, exitStatus, "vesk: 1 of 1 requests got no reply: ");
        EXPECT_NE(process.errors().find(reason), std::string::npos) << process.errors();
    }
}

TEST_F(CommandTest, EachLineOfStdinIsARequest) {
    Process& process = start("call a/b --lines --interval 1 --host " + socket("host") +
                             " <<'END'\none\n\nthree\nEND\n");
    Line& line = accept(mListener, Line::MESSAGES);
    awaitHeard(line, 1);
    line.say(mJoined);
    for (size_t request : {size_t{1}, size_t{2}, size_t{3}}) {
        awaitHeard(line, request + 1);
        reply(line, request,
              std::string(line.heard()[request].begin() + 9, line.heard()[request].end()));
    }
    expectEnd(process, 0);
    EXPECT_EQ(process.output(), "onethree");
}

TEST_F(CommandTest, WhatAHostDoesWrongIsSaid) {
    Bytes const none, noMessage(4),
            refused = client::encodeMessage(Type::REFUSED, "no such\x1B luck");
    for (auto const& [first, second, status, errors] :
         {std::tuple{refused, none, 2, "vesk: no such\\x1B luck\n"},
          {none, none, 1, "the host went away before it answered"},
          {mJoined, none, 1, "the host is gone"},
          {mJoined, refused, 1, "the host refused: no such\\x1B luck"},
          {mJoined, noMessage, 1, "messages are not understood"}}) {
        auto const [process, line] = startClient("provide a/b --echo");
        awaitHeard(line, 1);
        line.say(first);
        line.say(second);
        line.close();
        expectEnd(process, status, errors);
    }
    expectEnd(start("call a/b --host " + socket("none")), 3, "vesk host --clients unix:");
    auto const [unread, line] = startJoined("call >/dev/full");
    awaitHeard(line, 2);
    reply(line, 1, "x");
    expectEnd(unread, 1, "cannot write to stdout");
    auto const [watch, news] = startClient("watch");
    awaitHeard(news, 1);
    news.say(client::ChangeMessage{true, "a\x1B", "b\x9B"}.encode(Type::PROVIDER));
    awaitText(watch, "provider a\\x1B/b\\x9B added\n");
    mListener.acceptor().listen(0);  // who does not accept has room for one that waits
    for (char const* const errors : {"does not answer", "does not accept"})
        expectEnd(start("call a/b --join-timeout 50 --host " + socket("host")), 3, errors);
    expectEnd(start("host --channel tty:x --clients " + socket("host")), 1, "another process");
}

TEST_F(CommandTest, AProviderThatRetriesComesBack) {
    for (char const* const option : {"--retry", "--reconnect"}) {
        auto const [process, line] = startJoined("provide --echo " + std::string(option));
        line.close();
        Line& again = accept(mListener, Line::MESSAGES);
        awaitHeard(again, joining(PROVIDER));
        again.say(client::JoinedMessage{8}.encode());
        again.say(client::encodeMessage(Type::NOTICE, "new\x1B"));
        awaitText(process, "as session 8\nvesk: the host says: new\\x1B\n");
    }
}

// What a watch prints of the same events.
TEST_F(CommandTest, AWatchPrintsChangesAndCountersThatHaveChanged) {
    using Form = tool::WatchPrinter::Form;
    std::string const counters =
            "channel up, pending 0, awaiting ack 0, owed acks 0, sent 0, received 0, last delay "
            "unknown, slow 0, clients 0, providers 0, skipped bytes 0, reconnects 0, refused 0, "
            "evicted 0\n";
    std::string const rest =
            "last delay unknown, slow 0, clients 0, providers 0, skipped bytes 0\n"
            "reconnects 0, refused 0, evicted 0\n";
    std::string const screen =
            "channel up, pending 0, awaiting ack 0, owed acks 0, sent 0, received 0\n" + rest;
    std::string const json =
            R"(,"pending":0,"awaitingAck":0,"owedAcks":0,"sent":0,"received":0,"delayMs":null,)"
            R"("slow":0,"clients":0,"providers":0,"skippedBytes":0,"reconnects":0,"refused":0,)"
            "\"evicted\":0}}\n";
    std::vector<std::pair<Form, std::string>> const cases{
            {Form::LINES,
             counters + "provider a\\x1B added\nhost: \\n\nchannel down" + counters.substr(10)},
            {Form::SCREEN, screen + "\x1B[3A\x1B[Jprovider a\\x1B added\n" + screen +
                                   "\x1B[3A\x1B[Jhost: \\n\n" + screen +
                                   "\x1B[3A\x1B[Jchannel down" + screen.substr(10)},
            {Form::JSON, "{\"counters\":{\"up\":true" + json +
                                 "{\"provider\":\"a\\u001b\",\"added\":true}\n" +
                                 "{\"notice\":\"\\n\"}\n{\"counters\":{\"up\":false" + json}};
    for (auto const& [form, expected] : cases) {
        ::testing::internal::CaptureStdout();
        tool::WatchPrinter printer(form);
        client::Counters now;
        now.channelUp = 1;
        now.lastDelayMillis = TIMEOUT_DELAY_MS;
        printer.counters(now);
        printer.counters(now);
        printer.change("provider", "a\x1B", true);
        printer.notice("\n");
        now.channelUp = 0;
        printer.counters(now);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), expected);
    }
}

TEST_F(CommandTest, AProviderAnswersEachRequestOnce) {
    for (auto const& [how, answer, errors] :
         {std::tuple{"--echo", "Some", ""},
          {"--exec 'tr a-z A-Z'", "SOME", ""},
          {"--exec 'cat; exit 3'", "", "message 4 of session 3: the command ended with exit stat"},
          {"--exec 'printf %65536d 1'", "", "the command wrote more than 65535 bytes"}}) {
        auto const [process, line] = startJoined("provide " + std::string(how));
        line.say(data(Type::REPLY, 3, 3, "no request"));
        line.say(data(Type::REQUEST, 3, 4, "Some"));
        if (*answer) awaitHeard(line, data(Type::REPLY, 3, 4, answer));
        awaitText(process, errors);
        process.signal(SIGTERM);
        expectEnd(process, 0, "providing test/test as session 7");
        awaitClosed(line);
        EXPECT_EQ(line.heard().size(), *answer ? 3U : 2U);
    }
    // Each job tells how many its provider has at that time. Its parent is its keeper.
    auto const [busy, line] = startJoined(
            "provide --jobs 2 --exec 'read -r pid name state parent all </proc/$PPID/stat; "
            "wc -w </proc/$parent/task/$parent/children'");
    Bytes requests;
    for (int i = 0; i < 6; ++i) {
        for (uint8_t const byte : data(Type::REQUEST, 1, i, ""))
            requests.push_back(byte);
    }
    line.say(requests);
    awaitHeard(line, 8);
    std::set<int> counted;
    for (size_t i = 2; i < 8; ++i)
        counted.insert(line.number(i, 4));
    EXPECT_EQ(*counted.rbegin(), '\n' << 8 | '2');
}

TEST_F(CommandTest, TheDemoSucceedsOnlyWhenEverythingDid) {
    std::string const result = "call) echo why >&2; echo result 2 2 0 0 5 6";
    for (auto const& [script, status, output, errors] :  // the script stands for the tool
         {std::tuple{std::string(), 0, "\ntotal                           28        28      0\n",
                     ""},
          {result + "; exit 1;;", 1, "\nNOT every", "why"},
          {"host) exit 3;;", 1, "", "a host or provider ended with exit status 3"},
          {result + ";;\nprovide) trap 'exit 4' TERM; $tool & wait;;", 1, "", "exit status 4"},
          {"call) kill -INT $PPID; exec sleep 1000;;", 130, "", "interrupted"}}) {
        std::filesystem::remove(path("program"));
        std::ofstream(path("program")) << "#!/bin/sh\ntool='" VESK_TOOL " '\"$*\"\ncase $1 in\n"
                                       << script << "\n*) exec $tool;;\nesac\n";
        std::filesystem::permissions(path("program"), std::filesystem::perms::owner_all);
        Process& demo = start("demo --requests 2 --program " + path("program"));
        expectEnd(demo, status, errors);
        EXPECT_NE(demo.output().find(output), std::string::npos) << demo.output();
    }
}

}  // namespace vesk::e2e
