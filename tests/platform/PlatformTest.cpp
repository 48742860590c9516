#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <array>
#include <chrono>
#include <string>

#include <quillex/Log.h>
#include <quillex/SystemClock.h>

namespace quillex {
namespace {

std::string gLog;

TEST(PlatformTest, ClockAndLogAreWhatIsSetOrElseTheMachinesAndSilent) {
    auto const steady = [] { return std::chrono::steady_clock::now().time_since_epoch(); };
    for (bool const set : {false, true, false}) {
        SystemClock::setSource(set ? +[] { return uint64_t{1} << 40; } : nullptr);
        Log::setSink(set ? +[](char const* tag, char const* line) { (gLog += tag) += line; }
                         : nullptr);
        Log::d("tag", "line");
        auto const before = steady() - std::chrono::milliseconds(1);  // ms are cut
        std::chrono::milliseconds const now(SystemClock::machineMillis());
        EXPECT_TRUE(before < now && now <= steady());
        uint64_t const uptime = SystemClock::uptimeMillis();
        EXPECT_TRUE(set ? uptime == uint64_t{1} << 40 : uptime - uint64_t(now.count()) < 60000);
    }
    EXPECT_EQ(std::exchange(gLog, ""), "tagline");
}

struct Counted : android::RefBase {
    ~Counted() override { gLog += "gone "; }
    void onFirstRef() override { gLog += "first "; }
    void onLastStrongRef(void const*) override { gLog += "last "; }
};
struct Derived : Counted {};

TEST(PlatformTest, StrongPointersShareAndCompareTheirObject) {
    Derived* const raw = new Derived;
    std::array<android::sp<Derived>, 2> s{raw, raw};
    std::array<android::sp<Counted>, 8> p{raw, s[0]};
    android::sp<Counted> copy(p[0]), moved(std::move(p[1])), other(std::move(s[1]));
    p[2] = raw, p[3] = s[0], p[4] = copy, p[5] = std::move(p[2]), p[6] = std::move(s[0]);
    p[7] = static_cast<Counted*>(raw);
    EXPECT_EQ(raw->getStrongCount(), 9);
    EXPECT_TRUE(!p[1] && p[2] == nullptr && nullptr == s[0] && !(s[1] != nullptr));
    EXPECT_TRUE(copy && moved.get() == raw && &*other == raw && nullptr != p[3]);

    auto const all = [](auto const& x, auto const& y) {
        return std::array<bool, 6>{x == y, x != y, x <= y, x >= y, x<y, x> y};
    };
    for (auto const& y : {android::sp<Derived>(new Derived), android::sp<Derived>(raw), s[0]}) {
        EXPECT_TRUE(all(copy, y) == all(copy.get(), y.get()) && all(copy, y) == all(raw, y));
        EXPECT_TRUE(all(copy, y) == all(copy, y.get()) && all(y, copy) == all(y.get(), raw));
    }
    EXPECT_EQ(std::exchange(gLog, ""), "first first last gone ");
    p.fill({}), copy.clear(), moved = nullptr;
    EXPECT_EQ(raw->getStrongCount(), 1);
    other = new Derived;
    EXPECT_EQ(gLog, "first last gone ");
}

}  // namespace
}  // namespace quillex
