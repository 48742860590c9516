// What the commands are made of, in this process.

#include <fcntl.h>
#include <pty.h>
#include <sys/socket.h>

#include <climits>
#include <set>

#include <vesk/testkit/FarPeer.h>

#include "DemoReport.h"
#include "EndSignals.h"
#include "HostLog.h"
#include "NoReply.h"
#include "Output.h"
#include "PayloadSource.h"
#include "StreamDecoder.h"
#include "TapFilter.h"
#include "WatchPrinter.h"
#include "support/Scene.h"

namespace vesk::e2e {

using namespace std::chrono_literals;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

/** A standard stream is another file as long as this lives. */
class Redirected {
public:
    Redirected(int stream, int to) : mStream(stream), mBefore(::dup(stream)) {
        std::fflush(stdout);
        ::dup2(to, stream);
    }
    ~Redirected() {
        std::fflush(stdout);
        ::dup2(mBefore, mStream);
        ::close(mBefore);
    }

private:
    int const mStream, mBefore;
};

/** What this prints to a terminal of so many columns. */
static std::string onTerminal(unsigned short columns, std::function<void()> const& print) {
    int master = -1, slave = -1;
    winsize const size{24, columns, 0, 0};
    EXPECT_EQ(::openpty(&master, &slave, nullptr, nullptr, &size), 0);
    {
        Redirected const output(STDOUT_FILENO, slave);
        print();
        std::puts("|");
    }
    std::string text;
    for (char byte = 0; ::read(master, &byte, 1) == 1 && byte != '|';)
        text += byte;
    ::close(slave);
    ::close(master);
    return text;
}

static size_t countOf(std::string const& words, std::string const& text) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(words, at)) != std::string::npos; ++at)
        ++count;
    return count;
}

class PartsTest : public Scene {
protected:
    VeskConfig const mCatalogue;
};

TEST_F(PartsTest, APayloadIsWhatTheOptionsSayUpToItsSize) {
    using tool::PayloadSource;
    tool::CallOptions file, data, random;
    file.file = path("payload");
    EXPECT_THROW(PayloadSource{file}, tool::UsageError);
    for (size_t const size : {size_t{MAX_PAYLOAD_SIZE}, size_t{MAX_PAYLOAD_SIZE} + 1}) {
        data.data = std::string(size, 'x');
        std::ofstream(file.file) << *data.data;
        for (tool::CallOptions const& options : {file, data}) {
            if (size > MAX_PAYLOAD_SIZE) {
                EXPECT_THROW(PayloadSource{options}, tool::UsageError);
            } else {
                EXPECT_EQ(PayloadSource(options).next(), Bytes(size, 'x'));
            }
        }
    }
    for (size_t const most : {0U, 1U, 65535U}) {
        random.randomSize = most;
        PayloadSource source(random);
        std::set<size_t> sizes;
        std::set<uint8_t> bytes;
        for (int i = 0; i < 300; ++i) {
            Bytes const payload = source.next();
            sizes.insert(payload.size());
            bytes.insert(payload.begin(), payload.end());
        }
        EXPECT_LE(*sizes.rbegin(), most);
        if (most < 2) {
            EXPECT_EQ(sizes.size(), most + 1);
        } else {
            EXPECT_LT(*sizes.begin(), 20U);
            EXPECT_GT(*sizes.rbegin(), most / 4) << "there are as many long ones as short ones";
            EXPECT_EQ(bytes.size(), 256U);
        }
    }
}

TEST_F(PartsTest, LinesOfStdinAreTakenAsTheyComeAndUpToTheirSize) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Redirected const input(STDIN_FILENO, ends[0]);
    auto const write = [&](std::string const& text) {
        EXPECT_EQ(::write(ends[1], text.data(), text.size()), ssize_t(text.size()));
    };
    auto const text = [](Bytes const& bytes) { return std::string(bytes.begin(), bytes.end()); };
    tool::CallOptions options;
    options.lines = true;
    tool::PayloadSource lines(options);
    EXPECT_FALSE(lines.hasLine());
    EXPECT_FALSE(lines.atEnd());
    write("\na");
    EXPECT_TRUE(lines.hasLine());
    EXPECT_EQ(text(lines.next()), "");
    EXPECT_FALSE(lines.hasLine()) << "it has no end yet";
    write("b\n");
    EXPECT_TRUE(lines.hasLine());
    EXPECT_EQ(text(lines.next()), "ab");
    write(std::string(MAX_PAYLOAD_SIZE, 'x') + "\n");
    EXPECT_TRUE(lines.hasLine());
    EXPECT_EQ(lines.next().size(), MAX_PAYLOAD_SIZE);
    write("last");
    ::close(ends[1]);
    EXPECT_TRUE(lines.hasLine());
    EXPECT_FALSE(lines.atEnd());
    EXPECT_EQ(text(lines.next()), "last");
    EXPECT_TRUE(lines.atEnd());
    ::close(ends[0]);
}

TEST_F(PartsTest, ATapShowsWhatFitsOneWordOfEachKind) {
    using Direction = tool::TapFilter::Direction;
    VeskFrame request, ack, other, vm;
    request.topicId = 2, request.businessId = 1, request.msgType = REQUEST;
    ack.topicId = ACK_ID, ack.businessId = ACK_ID, ack.msgType = ACKNOWLEDGEMENT;
    other.topicId = 1, other.businessId = 13, other.msgType = REPLY;
    vm.topicId = 1, vm.businessId = 1, vm.msgType = REQUEST;
    std::vector<std::pair<Direction, VeskFrame const*>> const frames{{Direction::IN, &request},
                                                                     {Direction::OUT, &other},
                                                                     {Direction::IN, &ack},
                                                                     {Direction::OUT, &vm},
                                                                     {Direction::IN, &other}};
    using Words = std::vector<std::string>;
    for (auto const& [words, expected] :  // the last one: bytes that belong to no frame
         {std::pair{Words{}, "11111 1"},
          {{"dir=in"}, "10101 1"},
          {{"dir=out"}, "01010 0"},
          {{"dir=out", "dir=in"}, "11111 1"},
          {{"type=ack"}, "00100 0"},
          {{"type=request", "type=ack"}, "10110 0"},
          {{"topic=virtualcomm"}, "01011 0"},
          {{"business=test/test"}, "10000 0"},
          {{"business=virtualcomm/vm", "dir=in", "business=virtualcomm/cellims1"}, "00001 0"}}) {
        tool::TapFilter const filter(words, mCatalogue);
        std::string fits;
        for (auto const& [direction, frame] : frames)
            fits += filter.fits(direction, *frame) ? '1' : '0';
        EXPECT_EQ(fits + (filter.fitsSkipped() ? " 1" : " 0"), expected);
    }
}

TEST_F(PartsTest, WhyNoReplyCameIsToldByWhatTheHostCounts) {
    for (auto const& [status, lost, waited, exitStatus, reason] :
         {std::tuple{R"("up":false,"channelMs":12999)", 1, 5000, 4, "channel is down since 12 s"},
          {R"("up":true,"acknowledged":0,"awaitingAck":0)", 1, 501, 6, "see whether it runs"},
          {R"("up":true,"acknowledged":0,"awaitingAck":0)", 1, 500, 6, "a longer --timeout"},
          {R"("acknowledged":9,"awaitingAck":1,"pending":1)", 2, 1999, 6, "not acknowledged"},
          {R"("acknowledged":9,"awaitingAck":1,"pending":1)", 3, 1999, 7, "nobody answered"},
          {R"("acknowledged":9,"awaitingAck":1,"pending":1)", 2, 2000, 7, "nobody answered"},
          {R"("acknowledged":9,"timedOut":2)", 2, 2000, 6, "the peer has not acknowledged"},
          {R"("acknowledged":9,"timedOut":2)", 3, 2000, 7, "whether test/test is provided"},
          {R"("up":false,"localTopics":["testing","test"])", 1, 1, 5, "provides test/test on this"},
          {R"("localTopics":["test"],"sessions":[{"topic":"test","business":"other",)"
           R"("providers":1},{"topic":"test","business":"test","providers":1}])",
           1, 1, 7, "its provider on this host has not answered"},
          {R"("localTopics":["test"],"sessions":[{"topic":"test","business":"test",)"
           R"("providers":0}])",
           1, 1, 5, "nobody provides test/test"},
          {R"("frames":{"timedOut":9},"acknowledged":9,"timedOut":null)", 1, 1, 7, "answered"},
          {R"("up":"no")", 1, 1, 1, "what the host tells of its state is not understood"}}) {
        auto const why = tool::NoReply::explain("{" + std::string(status) + "}", "test/test",
                                                size_t(lost), size_t(waited));
        EXPECT_EQ(why.exitStatus, exitStatus) << why.reason;
        EXPECT_NE(why.reason.find(reason), std::string::npos) << why.reason;
    }
}

TEST_F(PartsTest, ReportsHaveEachNumberInItsPlace) {
    tool::CallReport const report{7, 6, 5, 4, 999, 1250};
    EXPECT_EQ(report.line(), "result 7 6 5 4 999 1250");
    EXPECT_EQ(tool::CallReport::parse(report.line())->line(), report.line());
    EXPECT_FALSE(tool::CallReport::parse("result 7 6 5 4 999"));
    EXPECT_TRUE((tool::CallReport{3, 3, 0, 0, 1, 1}.complete()));
    for (auto const& wrong : {tool::CallReport{3, 2, 0, 0}, {3, 3, 1, 0}, {3, 3, 0, 1}})
        EXPECT_FALSE(wrong.complete());
    client::Counters counters;
    counters.sentPackets = 1, counters.receivedPackets = 2, counters.lastDelayMillis = 3;
    counters.slowCount = 4, counters.skippedBytes = 5, counters.reconnects = 6;
    CaptureStdout();
    tool::printTable({{"a/b", report}, {"c/d", {1, 2, 3, 4, 1000, 12345678}}});
    tool::printHost("near host", counters);
    tool::printProgress(1, 2);
    tool::clearProgress();
    EXPECT_EQ(GetCapturedStdout(),
              "business                  requests   replies   lost        p50        p99\n"
              "a/b                              7         6      5     999 us     1.2 ms\n"
              "c/d                              1         2      3     1.0 ms 12345.7 ms\n"
              "total                            8         8      8\n\n"
              "replies with wrong bytes: 8\n"
              "near host sent 1 frames, received 2; last delay 3 ms, slow 4; skipped 5 bytes, "
              "reconnected 6 times\n");
}

TEST_F(PartsTest, ATerminalIsFilledToItsEdge) {
    std::string const bar = "\r[" + std::string(12, '#') + std::string(38, '.') + "] ";
    for (auto const& [columns, expected] :
         {std::pair{0, bar}, {80, bar}, {24, "\r[#....] "}, {18, "\r[] "}, {19, "\r[] "}}) {
        EXPECT_EQ(onTerminal(static_cast<unsigned short>(columns),
                             [] { tool::printProgress(7, 28); }),
                  expected + "7 of 28 replies");
    }
    EXPECT_EQ(onTerminal(20, [] { tool::printProgress(0, 0); }), "\r[##] 0 of 0 replies");
    EXPECT_EQ(onTerminal(20, [] { tool::clearProgress(); }), "\r\x1b[K");
    // Two in a line have 23 columns, and one has to stay free.
    for (auto const& [columns, lines] : {std::pair{24, 1U}, {23, 2U}}) {
        std::string const text = onTerminal(static_cast<unsigned short>(columns), [] {
            tool::WatchPrinter(tool::WatchPrinter::Form::SCREEN).counters({});
        });
        EXPECT_EQ(countOf("\n", text.substr(0, text.find("awaiting"))), lines) << text;
    }
}

TEST_F(PartsTest, OutputThatWasNotTakenIsAnErrorAndLinesHaveABound) {
    int const full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    {
        Redirected const output(STDOUT_FILENO, full);
        std::puts("x");
        EXPECT_THROW(tool::flushOutput(), std::runtime_error);
    }
    EXPECT_THROW(tool::flushOutput(), std::runtime_error) << "also what was lost earlier";
    std::clearerr(stdout);
    tool::flushOutput();
    ::close(full);

    for (size_t const size : {size_t{PIPE_BUF} - 1, size_t{PIPE_BUF}}) {
        CaptureStderr();
        tool::say(std::string(size - 6, 'x'));  // behind "vesk: "
        std::string const line = GetCapturedStderr();
        EXPECT_EQ(line.size(), size_t{PIPE_BUF});
        EXPECT_EQ(line.substr(PIPE_BUF - 4), size < PIPE_BUF ? "xxx\n" : "...\n");
    }
    EXPECT_EQ(tool::delayText(TIMEOUT_DELAY_MS), "unknown");

    CaptureStderr();
    {
        tool::HostLog log(mIo);
        for (int i = 1; i <= 12; ++i)
            log.say("refused client " + std::to_string(i));
        log.say("refused topic 'x'");
    }
    std::string const lines = GetCapturedStderr();
    std::string const end =
            "vesk: refused client 10\nvesk: refused topic 'x'\n"
            "vesk: 2 more lines like this one within a second: refused client 12\n";
    EXPECT_EQ(lines.substr(lines.size() - end.size()), end);
    EXPECT_EQ(countOf("\n", lines), 12U);
}

// As a journal's is.
TEST_F(PartsTest, AStderrThatIsASocketIsNotWaitedForEither) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    pid_t const child = ::fork();
    if (child == 0) {
        ::dup2(ends[1], STDERR_FILENO);
        tool::neverWaitForStderr();
        for (int i = 0; i < 10000; ++i)
            tool::say(std::string(1000, 'x'));
        ::_exit(0);
    }
    ::close(ends[1]);
    int status = -1;
    await("the child", [&] { return ::waitpid(child, &status, WNOHANG) == child; });
    EXPECT_EQ(status, 0);
    char byte = 0;
    EXPECT_EQ(::read(ends[0], &byte, 1), 1);
    ::close(ends[0]);
}

TEST_F(PartsTest, HangingUpIsAnEndUnlessItIsIgnored) {
    for (int const signal : {SIGINT, SIGTERM, SIGHUP, 0}) {
        ::signal(SIGHUP, signal == 0 ? SIG_IGN : SIG_DFL);
        asio::io_context io;
        tool::EndSignals signals(io);
        int came = 0;
        signals.async_wait([&](asio::error_code const&, int number) { came = number; });
        ::raise(signal == 0 ? SIGHUP : signal);
        io.run_for(10ms);
        EXPECT_EQ(came, signal);
    }
    ::signal(SIGHUP, SIG_DFL);
}

TEST_F(PartsTest, ADecoderCutsNoEntriesAndGivesUpWhatStaysIncomplete) {
    Bytes const acks = testkit::FarPeer::encode({ACK_ID, ACK_ID, 1, 1001, 0, ACK_ID, Bytes(4004)});
    for (auto const form : {tool::StreamDecoder::Form::TEXT, tool::StreamDecoder::Form::JSON}) {
        std::string text;
        tool::StreamDecoder decoder(mCatalogue, form, [&](auto const& line) { text += line; });
        decoder.feed(acks.data(), acks.size(), {});
        decoder.feed(acks.data(), 5, {});
        decoder.silence();
        EXPECT_FALSE(decoder.incomplete());
        decoder.feed(acks.data(), acks.size(), {});
        EXPECT_EQ(countOf("held", text), 2002U);
        EXPECT_EQ(countOf("cut", text), 1U) << "which is the one that was given up";
        EXPECT_EQ(countOf("4021", text), 1U) << "the place of the last one";
        EXPECT_EQ((std::array{decoder.frames(), decoder.skipped(), decoder.ignored()}),
                  (std::array<uint64_t, 3>{2, 5, 0}));
    }
}

}  // namespace vesk::e2e
