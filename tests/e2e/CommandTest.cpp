// The commands that are clients, with the test as their host, and the demo.

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>

#include <set>

#include <vesk/hostkit/CaptureWriter.h>
#include <vesk/testkit/FarPeer.h>

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
         {std::tuple{"--verify --stats", "x", "xxx", 0, "requests 3, replies 3, lost 0, p50 "},
          {"--hex", "\xA5", "a5\n78\n78\n", 0, ""},
          {"--verify", "b", "bxx", 1, "1 replies were not the request's bytes"},
          {"--report --verify", "b", "progress 1\n", 1, "1 replies were not"}}) {
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
        mIo.run_for(std::chrono::milliseconds(10));
        for (size_t const request : {size_t{3}, size_t{1}})
            reply(line, request, "x");
        expectEnd(process, status, errors);
        EXPECT_EQ(process.output().rfind(output, 0), 0U) << process.output();
        if (output != std::string("progress 1\n")) continue;
        size_t const result = process.output().find("result 3 3 0 1 ");
        auto const report = tool::CallReport::parse(process.output().substr(result));
        EXPECT_GE(report->p50Micros, 10000U);
        EXPECT_GE(report->p99Micros, 20000U);
        EXPECT_GT(report->p99Micros, report->p50Micros) << "the first waited longest";
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

TEST_F(CommandTest, ACallSaysWhyNoReplyCame) {
    for (auto const& [status, exitStatus, reason] :
         {std::tuple{R"({"up":false,"channelMs":2000})", 4, ": the host's channel is down since 2"},
          {R"({"acknowledged":1,"awaitingAck":1})", 6, ": the peer has not acknowledged them yet"},
          {"{", 1, ": what the host tells of its state is not understood"}}) {
        auto const [process, line] = startJoined("call --timeout 1");
        Line& asking = accept(mListener, Line::MESSAGES);
        awaitHeard(asking, 1);
        asking.say(client::encodeMessage(Type::STATUS_TEXT, status));
        expectEnd(process, exitStatus, "vesk: 1 of 1 requests got no reply" + std::string(reason));
    }
}

TEST_F(CommandTest, EachLineOfStdinIsARequest) {
    Process& process = start("call a/b --lines --stats --interval 30 --host " + socket("host") +
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
    EXPECT_GE(std::stod(process.errors().substr(process.errors().rfind(", ") + 2)), 0.06);
}

TEST_F(CommandTest, ALineIsSentAsItComesAndItsReplyPrintedMeanwhile) {
    ASSERT_EQ(::mkfifo(path("lines").c_str(), 0600), 0);
    int const lines = ::open(path("lines").c_str(), O_RDWR | O_CLOEXEC);
    auto const [process, line] = startJoined("call --lines --window 2 <" + path("lines"));
    for (size_t request = 1; request <= 3; ++request) {
        ASSERT_EQ(::write(lines, "x\n", 2), 2);
        awaitHeard(line, request + 1);
        if (request != 2) reply(line, request, "replied");
        awaitText(process, request == 3 ? "repliedreplied" : "replied");
    }
    process.signal(SIGINT);
    expectEnd(process, 130, "vesk: 1 of 3 requests got no reply\n");
    ::close(lines);

    std::ofstream(path("long")) << "x\n" << std::string(MAX_PAYLOAD_SIZE + 1, 'x');
    auto const [refused, other] = startJoined("call --lines <" + path("long"));
    awaitHeard(other, 2);
    reply(other, 1, "x");
    expectEnd(refused, 2, "the payload of a line of stdin has 6553");
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
        for (char const* const command : {"provide a/b --echo", "call a/b"}) {
            auto const [process, line] = startClient(command);
            awaitHeard(line, joining(command[0] == 'p' ? PROVIDER : CONSUMER, "a", "b"));
            line.say(first);
            line.say(second);
            line.close();
            expectEnd(process, status == 1 && command[0] == 'c' ? 3 : status, errors);
        }
    }
    for (char const* const command : {"watch", "tap", "status", "list"}) {
        auto const [process, line] = startClient(command);
        awaitHeard(line, 1);
        if (command[0] == 't') line.say(client::Counters{}.encode());
        line.close();
        expectEnd(process, 1, "vesk: the host is gone: it closed the connection");
    }
    for (auto const& [command, text, output, errors] :
         {std::tuple{"status", "a\x1B\nb", "a\\x1B\nb\n", ""},
          {"status --json", "{}", "{}\n", ""},
          {"status --json", "{\n}", "", "the host's status is no JSON object in one line"},
          {"status --json", "{\x7F}", "", "the host's status is no JSON object in one line"},
          {"list", "{", "", "what the host tells of its state is not understood"}}) {
        auto const [process, line] = startClient(command);
        bool const inText = command == std::string("status");
        awaitHeard(line, client::StatusMessage{inText ? client::StatusFormat::TEXT
                                                      : client::StatusFormat::JSON}
                                 .encode());
        line.say(client::encodeMessage(Type::STATUS_TEXT, text));
        expectEnd(process, *errors ? 1 : 0, errors);
        EXPECT_EQ(process.output(), output);
    }
    expectEnd(start("call a/b --host " + socket("none")), 3, "vesk host --clients unix:");
    auto const [unread, line] = startJoined("call >/dev/full");
    awaitHeard(line, 2);
    reply(line, 1, "x");
    expectEnd(unread, 1, "cannot write to stdout");
    auto const [watch, news] = startClient("watch");
    awaitHeard(news, client::encodeMessage(Type::WATCH));
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
    auto const [watch, news] = startClient("watch --retry");
    awaitHeard(news, client::encodeMessage(Type::WATCH));
    news.close();
    accept(mListener, Line::MESSAGES).say(client::ChangeMessage{true, "a", ""}.encode(Type::TOPIC));
    awaitText(watch, "topic a added\nvesk: the host is gone");
}

// What a watch prints of the same events.
TEST_F(CommandTest, AWatchPrintsChangesAndCountersThatHaveChanged) {
    using Form = tool::WatchPrinter::Form;
    std::string const counters =
            "channel up, pending 3, awaiting ack 4, owed acks 5, sent 8, received 9, last delay "
            "unknown, slow 7, clients 1, providers 2, skipped bytes 10, reconnects 11, refused 12, "
            "evicted 13\n";
    std::string const rest =
            "last delay unknown, slow 7, clients 1, providers 2, skipped bytes 10\n"
            "reconnects 11, refused 12, evicted 13\n";
    std::string const screen =
            "channel up, pending 3, awaiting ack 4, owed acks 5, sent 8, received 9\n" + rest;
    std::string const json =
            R"(,"pending":3,"awaitingAck":4,"owedAcks":5,"sent":8,"received":9,"delayMs":null,)"
            R"("slow":7,"clients":1,"providers":2,"skippedBytes":10,"reconnects":11,"refused":12,)"
            "\"evicted\":13}}\n";
    std::vector<std::pair<Form, std::string>> const cases{
            {Form::LINES,
             counters + "provider a\\x1B removed\nhost: \\n\nchannel down" + counters.substr(10)},
            {Form::SCREEN, screen + "\x1B[3A\x1B[Jprovider a\\x1B removed\n" + screen +
                                   "\x1B[3A\x1B[Jhost: \\n\n" + screen +
                                   "\x1B[3A\x1B[Jchannel down" + screen.substr(10)},
            {Form::JSON, "{\"counters\":{\"up\":true" + json +
                                 "{\"provider\":\"a\\u001b\",\"added\":false}\n" +
                                 "{\"notice\":\"\\n\"}\n{\"counters\":{\"up\":false" + json}};
    for (auto const& [form, expected] : cases) {
        ::testing::internal::CaptureStdout();
        tool::WatchPrinter printer(form);
        client::Counters now{1, 1, 2, 3, 4, 5, TIMEOUT_DELAY_MS, 7, 8, 9, 10, 11, 12, 13};
        printer.counters(now);
        printer.counters(now);
        printer.change("provider", "a\x1B", false);
        printer.notice("\n");
        now.channelUp = 0;
        printer.counters(now);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), expected);
    }
}

TEST_F(CommandTest, AProviderAnswersEachRequestOnce) {
    for (auto const& [how, answer, errors] :
         {std::tuple{"--echo", std::string("Some"), ""},
          {"--exec 'tr a-z A-Z'", "SOME", ""},
          {"--exec 'cat; exit 3'", "", "message 4 of session 3: the command ended with exit stat"},
          {"--exec 'printf %65535s 1'", std::string(65534, ' ') + "1", ""},
          {"--exec 'printf %65536d 1'", "", "the command wrote more than 65535 bytes"}}) {
        auto const [process, line] = startJoined("provide " + std::string(how));
        line.say(data(Type::REPLY, 3, 3, "no request"));
        line.say(data(Type::REQUEST, 3, 4, "Some"));
        if (!answer.empty()) awaitHeard(line, data(Type::REPLY, 3, 4, answer));
        awaitText(process, errors);
        process.signal(SIGTERM);
        expectEnd(process, 0, "providing test/test as session 7");
        awaitClosed(line);
        EXPECT_EQ(line.heard().size(), answer.empty() ? 2U : 3U);
    }
    // Each job tells how many its provider has at that time. Its parent is its keeper.
    for (int const jobs : {1, 2}) {
        auto const [busy, line] =
                startJoined("provide --jobs " + std::to_string(jobs) +
                            " --exec 'read -r pid name state parent all </proc/$PPID/stat; wc -w "
                            "</proc/$parent/task/$parent/children'");
        Bytes requests;
        for (int i = 0; i < 6; ++i) {
            for (uint8_t const byte : data(Type::REQUEST, 1, i, ""))
                requests.push_back(byte);
        }
        line.say(requests);
        awaitHeard(line, 8);
        std::set<int> counted;
        for (size_t i = 2; i < 8; ++i) {
            counted.insert(line.number(i, 4));
            if (jobs == 1) {
                EXPECT_EQ(line.number(i, 2), i - 2) << "one after another";
            }
        }
        EXPECT_EQ(*counted.rbegin(), '\n' << 8 | ('0' + jobs));
    }
}

TEST_F(CommandTest, TheDemoSucceedsOnlyWhenEverythingDid) {
    std::string const result = "call) echo why >&2; echo result 2 2 0 0 5 6";
    std::string const failed = "\nNOT every request got its right reply\n";
    for (auto const& [script, status, output, errors] :  // the script stands for the tool
         {std::tuple{result + ";;", 0, std::string("\nevery request got its right"), "why"},
          {result + "; exit 1;;", 1, failed, "why"},
          {"call) echo result 1 1 0 0 5 6;;", 1, failed, ""},
          {"call) echo progress 2;;", 1, "", "the consumer of virtualcomm/vm ended without a res"},
          {"host) exit 3;;", 1, "", "a host or provider ended with exit status 3"},
          {result + ";;\nprovide) trap 'exit 4' TERM; $tool & wait;;", 1, "", "exit status 4"},
          {"call) kill -INT $PPID; exec sleep 1000;;", 130, "", "interrupted"}}) {
        std::filesystem::remove(path("program"));
        std::ofstream(path("program")) << "#!/bin/sh\ntool='" VESK_TOOL " '\"$*\"\ncase $1 in\n"
                                       << script << "\n*) exec $tool;;\nesac\n";
        std::filesystem::permissions(path("program"), std::filesystem::perms::owner_all);
        // What its processes say is shown at the end when something was wrong, or at once.
        bool const isVerbose = status == 0 && *errors;
        Process& demo = start("demo --requests 2 --program " + path("program") +
                              (isVerbose ? " --verbose" : ""));
        expectEnd(demo, status, errors);
        EXPECT_NE(demo.output().find(output), std::string::npos) << demo.output();
    }
    for (auto const& entry : std::filesystem::directory_iterator(path("")))
        EXPECT_NE(entry.path().filename().string().rfind("vesk-demo-", 0), 0U) << "is left behind";
    ::setenv("TMPDIR", path("none").c_str(), 1);
    expectEnd(start("demo"), 1, "set TMPDIR to one where that is possible");
}

}  // namespace vesk::e2e
