// Wrong, huge and hostile use of the commands, and trouble around them.

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
