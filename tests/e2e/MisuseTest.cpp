// Wrong, huge and hostile use of the commands, and trouble around them.

#include <fcntl.h>
#include <sys/stat.h>

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

    std::string at(std::string const& arguments) const {
        return arguments + " --host " + socket("host");
    }
};

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
}

TEST_F(MisuseTest, NumbersAreDecimalAndWithinTheirRange) {
    startHost();
    expectEnd(start(at("call test/test --stats --timeout 010 --count 010 --window 0010")), 1,
              "requests 10, replies 0, lost 10");
    for (char const* const wrong :
         {"0", "-1", "0x10", "1e3", "' 1'", "99999999999999999999", "32769", "1.5"}) {
        expectEnd(start(at("call test/test") + " --window=" + wrong), 2,
                  "is no whole number from 1 to 32768");
    }
}

TEST_F(MisuseTest, AJobEndsWithItsCommandItsTimeOrItsProvider) {
    startHost();
    ASSERT_EQ(::mkfifo(path("held").c_str(), 0600), 0);
    int const held = ::open(path("held").c_str(), O_RDONLY | O_NONBLOCK);
    // Each job leaves a process that holds its stdout. As long as one of its processes runs, "held"
    // has no end.
    for (auto const& [end, limit, answer, error] :
         {std::tuple{"echo done", "3600000", "done\n\n", ""},
          {"wait", "50", "", "the command did not end within 50 ms; --job-timeout gives"},
          {"echo x >&9; wait", "3600000", "", ""}}) {
        Process& provider =
                start(at("provide test/test --job-timeout " + std::string(limit) +
                         " --exec 'exec 9>" + path("held") + "; sleep 1000 & " + end + "'"));
        awaitText(provider, "providing");
        Process& call = start(at("call test/test") + " --timeout " + (*error ? "1" : "50000"));
        char byte = 0;
        if (*answer || *error) {
            expectEnd(call, *error ? 1 : 0);
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
    for (uint64_t const unit : {1, 2, 100, 12345, 80000000}) {
        tool::LatencyHistogram histogram;
        for (uint64_t i = 1; i <= 1000; ++i)
            histogram.add(i * unit);
        for (unsigned const percent : {1U, 50U, 99U, 100U}) {
            uint64_t const exact = percent * 10 * unit, found = histogram.percentile(percent);
            EXPECT_GE(found, exact);
            EXPECT_LE(found, exact + (exact < 256 ? 0 : exact / 128));
        }
    }
    tool::LatencyHistogram histogram;
    histogram.add(UINT64_MAX);
    EXPECT_EQ(histogram.percentile(50), (uint64_t{1} << 37) - 1);
}

}  // namespace vesk::e2e
