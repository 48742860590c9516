// Wrong, huge and hostile use of the commands, and trouble around them.

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>

#include <sstream>

#include "LatencyHistogram.h"
#include "support/Scene.h"

namespace vesk::e2e {

class MisuseTest : public Scene {
protected:
    /** Starts a host that serves clients at "host", with no peer to talk to. */
    Process& startHost(std::string const& more = "--channel tty:none --local-topic test") {
        Process& host = start("host --clients " + socket("host") + " " + more);
        awaitText(host, "serving");
        return host;
    }

    /** So many clients connect one after another and say what the host refuses. */
    void refuseClients(int count) {
        for (int i = 0; i < count; ++i) {
            Line& line = connect();
            line.say(client::encodeMessage(i % 2 ? Type::QUERY : Type::WATCH, "body"));
            awaitClosed(line);
            EXPECT_EQ(line.heard()[0][4], static_cast<uint8_t>(Type::REFUSED));
            mLines.pop_back();
        }
    }

    std::string at(std::string const& arguments) const {
        return arguments + " --host " + socket("host");
    }
};

static struct stat infoOf(std::string const& file) {
    struct stat info {};
    EXPECT_EQ(::lstat(file.c_str(), &info), 0) << file;
    return info;
}

TEST_F(MisuseTest, ASocketIsForItsUserWhateverTheUmaskAndGoesWithItsHost) {
    for (auto const& [option, umask, mode, group] :
         {std::tuple{"", 0, 0600U, ::getegid()},
          {" --mode 0660", 0777, 0660U, ::getegid()},
          {" --mode 0777 --group root", 022, 0777U, gid_t{0}},
          {" --mode 0600 --group 0", 022, 0600U, gid_t{0}}}) {
        mode_t const before = ::umask(static_cast<mode_t>(umask));
        Process& host = start("host --listen --channel " + socket("own") + " --clients " +
                              socket("host") + option);
        awaitText(host, "serving");
        ::umask(before);
        for (char const* const name : {"own", "host"}) {
            EXPECT_EQ(infoOf(path(name)).st_mode & 07777U, mode);
            EXPECT_EQ(infoOf(path(name)).st_gid, group);
        }
        // What has come to its place is another's.
        std::filesystem::rename(path("own"), path("moved"));
        std::ofstream(path("own")) << "another's";
        host.signal(SIGHUP);
        expectEnd(host, 0);
        EXPECT_FALSE(std::filesystem::exists(path("host")));
        EXPECT_TRUE(std::filesystem::remove(path("own")));
    }
    std::filesystem::create_symlink(path("host"), path("alias"));
    for (auto const& [arguments, error] :
         {std::pair{"tty:x --mode 9", "'9' is no mode; write one in octal, like 0660"},
          {"tty:x --mode 1000", "'1000' is no mode"},
          {"tty:x --mode 660x", "'660x' is no mode"},
          {"tty:x --group 0x", "there is no group '0x'"},
          {"tty:x --group nobodies", "there is no group 'nobodies'"},
          {"unix:${0%/*}/alias", "is this host's own socket for clients; give each a path"}}) {
        expectEnd(start("host --clients " + socket("host") + " --channel " + arguments), 2, error);
    }
    for (std::string const& where : {path(""), path("none/host"), path(std::string(120, 'x'))}) {
        expectEnd(start("host --channel tty:x --clients unix:" + where), where.size() > 108 ? 2 : 1,
                  "vesk: ");
    }
}

TEST_F(MisuseTest, ASerialLineHasOneHostAndItsSettingsBackInTheEnd) {
    int master = -1, slave = -1;
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    termios before{}, meanwhile{}, after{};
    ::tcgetattr(slave, &before);
    std::string const line = std::string("--channel tty:") + ::ttyname(slave) + ",9600";
    Process& host = startHost(line);
    awaitText(host, "channel up");
    ::tcgetattr(slave, &meanwhile);
    Process& second = start("host " + line + " --clients " + socket("second"));
    awaitText(second, ",9600: Device or resource busy; trying again");
    host.signal(SIGTERM);
    expectEnd(host, 0);
    ::tcgetattr(slave, &after);
    EXPECT_NE(meanwhile.c_lflag, before.c_lflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(::cfgetospeed(&after), ::cfgetospeed(&before));
    awaitText(second, "channel up");
    ::close(slave);
    ::close(master);
}

TEST_F(MisuseTest, LinesThatOthersCauseAreSummedUp) {
    Process& host = startHost();
    refuseClients(500);
    host.signal(SIGTERM);
    expectEnd(host, 0, "vesk: refused client 10: a QUERY or WATCH message is not of its form\n");
    size_t said = 0, counted = 0, more = 0;
    std::istringstream errors(host.errors());
    for (std::string line; std::getline(errors, line);) {
        if (std::sscanf(line.c_str(), "vesk: %zu more lines like this one", &more) == 1) {
            counted += more;
        } else if (line.find("refused") != std::string::npos) {
            ++said;
        }
    }
    EXPECT_EQ(said + counted, 500U);
    EXPECT_GT(counted, said);
}

TEST_F(MisuseTest, AHostDoesNotWaitForWhoReadsItsLines) {
    ASSERT_EQ(::mkfifo(path("lines").c_str(), 0600), 0);
    int const lines = ::open(path("lines").c_str(), O_RDWR | O_NONBLOCK);
    std::string bytes(65536, 'x');
    while (::write(lines, bytes.data(), bytes.size()) > 0)
        continue;
    start("host --channel tty:none --local-topic test --clients " + socket("host") + " 2>" +
          path("lines"));
    await("the host", [&] {
        asio::error_code refused;
        asio::local::stream_protocol::socket(mIo).connect(path("host"), refused);
        return !refused;
    });
    refuseClients(3);
    while (::read(lines, bytes.data(), bytes.size()) > 0)
        continue;
    connect().say(joining(CONSUMER));
    std::string text;
    await("its lines", [&] {
        ssize_t const size = ::read(lines, bytes.data(), bytes.size());
        if (size > 0) text.append(bytes, 0, static_cast<size_t>(size));
        return text.find("session 1\n") != std::string::npos;
    });
    EXPECT_EQ(text.rfind("vesk: 5 lines are missing here: nobody read what came before them\n"
                         "vesk: client 5 is a consumer of test/test",
                         0),
              0U)
            << text;
    ::close(lines);
}

TEST_F(MisuseTest, OutputThatNobodyTakesEndsACommand) {
    startHost();
    for (std::string const& arguments :
         {at("watch >/dev/full"), at("watch >&-"), std::string("demo --requests 1 >/dev/full"),
          std::string("--help >/dev/full")}) {
        expectEnd(start(arguments), 1, "vesk: cannot write to stdout: ");
    }
    expectEnd(start(at("watch") + " | head -1"), 0, "vesk: cannot write to stdout: Broken pipe");
    expectEnd(start(at("call test/test <&-")), 2, "payload from stdin: Bad file descriptor; give");
    expectEnd(start("call 2>&-"), 2);
    Process& bare = start("");
    expectEnd(bare, 0);
    EXPECT_NE(bare.output().find("Subcommands:"), std::string::npos) << bare.output();
}

TEST_F(MisuseTest, NumbersAreDecimalAndWithinTheirRange) {
    startHost();
    expectEnd(start(at("call test/test --stats --timeout 010 --count 010 --window 0010")), 5,
              "requests 10, replies 0, lost 10");
    for (char const* const wrong :
         {"0", "-1", "0x10", "1e3", "' 1'", "99999999999999999999", "32769", "1.5"}) {
        expectEnd(start(at("call test/test") + " --window=" + wrong), 2,
                  "is no whole number from 1 to 32768");
    }
    std::string const none = " --host " + socket("none");
    for (char const* const within :
         {"--count 1 --interval 0 --timeout 1 --join-timeout 1 --random-size 0 --window 1",
          "--count 1000000000 --interval 86400000 --timeout 86400000 --join-timeout 86400000 "
          "--random-size 65535 --window 32768"})
        expectEnd(start("call test/test " + std::string(within) + none), 3, "no host serves");
    for (auto const& [command, wrong] :
         {std::pair{"call a/b --count ", std::array{"0", "1000000001"}},
          {"call a/b --interval ", {"-1", "86400001"}},
          {"call a/b --timeout ", {"0", "86400001"}},
          {"call a/b --join-timeout ", {"0", "86400001"}},
          {"call a/b --random-size ", {"-1", "65536"}},
          {"provide a/b --exec cat --jobs ", {"0", "257"}},
          {"provide a/b --exec cat --job-timeout ", {"0", "86400001"}},
          {"host --channel tty:x --memory ", {"15", "4097"}},
          {"host --channel tty:x --capture x --capture-limit ", {"0", "18446744073709551616"}},
          {"demo --requests ", {"0", "1000001"}}}) {
        for (char const* const number : wrong)
            expectEnd(start(command + std::string(number)), 2, "is no whole number from ");
    }
}

TEST_F(MisuseTest, WhatIsMissingOrTooMuchIsWrongUsageAndSocketsHaveADefault) {
    for (char const* const variable : {"XDG_RUNTIME_DIR", "VESK_HOST"})
        ::unsetenv(variable);
    for (auto const& [arguments, errors] :
         {std::pair{"none", "vesk: "},
          {"provide a/b", "Exactly 1 option from [--echo,--exec]"},
          {"provide a/b --echo --exec cat", "2 were given"},
          {"call a/b --data x --lines", "at most 1 option"},
          {"call ab --host unix:x", "'ab' is no business; write TOPIC/BUSINESS"},
          {"call /b --host unix:x", "'/b' is no business"},
          {"list --any-owner", "--host"},
          {"watch --host x", "--host"},
          {"status", "give --host unix:PATH: without XDG_RUNTIME_DIR"},
          {"host --channel tty:x", "give --clients unix:PATH: without XDG_RUNTIME_DIR"}})
        expectEnd(start(arguments), 2, errors);
    Process& version = start("--version");
    expectEnd(version, 0);
    EXPECT_EQ(version.output(), "vesk " VESK_VERSION "\n");
    std::filesystem::create_directory(path("run"));
    ::setenv("XDG_RUNTIME_DIR", path("run").c_str(), 1);
    Process& host = start("-v host --channel tty:none --local-topic test");
    awaitText(host, "serving clients on " + socket("run/vesk-host"));
    awaitText(host, ": createTopic.test");
    expectEnd(start("status"), 0);
    ::setenv("VESK_HOST", socket("none").c_str(), 1);
    expectEnd(start("status"), 1, "no host serves '" + path("none"));
    expectEnd(start("status --host " + socket("run/vesk-host")), 0);
    for (char const* const variable : {"XDG_RUNTIME_DIR", "VESK_HOST"})
        ::unsetenv(variable);
}

TEST_F(MisuseTest, WhatAUserTypesDoesNotReachTheTerminalAsControlCharacters) {
    std::string const typed = "\"$(printf 'a\\033[2J\\302\\233b')\"";
    for (std::string const& arguments :
         {"call x/y " + typed, "call x/y --" + typed, "call --window " + typed, "tap " + typed}) {
        Process& process = start(arguments);
        expectEnd(process, 2, "a\\x1B[2J");
        EXPECT_EQ(process.errors().find_first_of("\x1B\x9B"), std::string::npos) << arguments;
    }
}

TEST_F(MisuseTest, AJobEndsWithItsCommandItsTimeOrItsProvider) {
    startHost();
    ASSERT_EQ(::mkfifo(path("held").c_str(), 0600), 0);
    int const held = ::open(path("held").c_str(), O_RDONLY | O_NONBLOCK);
    // Each job leaves a process that holds its stdout. As long as one of its processes runs, "held"
    // has no end.
    for (auto const& [end, limit, answer, error] :
         {std::tuple{"echo done", "3600000", "done\n", ""},
          {"wait", "50", "", "the command did not end within 50 ms; --job-timeout gives"},
          {"echo x >&9; wait", "3600000", "", ""}}) {
        Process& provider =
                start(at("provide test/test --job-timeout " + std::string(limit) +
                         " --exec 'exec 9>" + path("held") + "; sleep 1000 & " + end + "'"));
        awaitText(provider, "providing");
        Process& call = start(at("call test/test") + " --timeout " + (*error ? "1" : "50000"));
        char byte = 0;
        if (*answer || *error) {
            expectEnd(call, *error ? 7 : 0);
            EXPECT_EQ(call.output(), answer);
            awaitText(provider, error);
        } else {
            await("the job", [&] { return ::read(held, &byte, 1) == 1; });
            provider.signal(SIGKILL);
        }
        await("the job's end", [&] { return ::read(held, &byte, 1) == 0; });
        provider.signal(SIGTERM);
        await("the provider's end", [&] { return !provider.ending().empty(); });
    }
    ::close(held);
}

TEST_F(MisuseTest, APercentileIsNeverTooLowAndHardlyTooHigh) {
    EXPECT_EQ(tool::LatencyHistogram().percentile(99), 0U);
    for (uint64_t const unit : {1U, 2U, 100U, 12345U, 80000000U}) {
        tool::LatencyHistogram histogram;
        for (uint64_t i = 1; i <= 1000; ++i)
            histogram.add(i * unit);
        for (unsigned const percent : {1U, 50U, 99U, 100U}) {
            uint64_t const exact = uint64_t{percent} * 10 * unit,
                           found = histogram.percentile(percent);
            EXPECT_GE(found, exact);
            EXPECT_LE(found, exact + (exact < 256 ? 0 : exact / 128));
        }
    }
    tool::LatencyHistogram histogram;
    histogram.add(UINT64_MAX);
    EXPECT_EQ(histogram.percentile(50), (uint64_t{1} << 37) - 1);
}

}  // namespace vesk::e2e
