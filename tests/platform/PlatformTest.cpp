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
        EXPECT_EQ(SystemClock::uptimeMillis() >> 40, set ? 1U : 0U);
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
    android::sp<Derived> derived = raw;
    android::sp<Counted> a(raw), b(derived), c(b), d(std::move(b)), e, f, g, h, i, j(std::move(a));
    e = raw, f = derived, g = f, h = std::move(j), i = std::move(derived);
    g = static_cast<Counted*>(raw), g = android::sp<Counted>(g);
    EXPECT_TRUE(!a && a == nullptr && nullptr == b && j == nullptr && c && c != nullptr);
    EXPECT_TRUE(nullptr != c && c.get() == raw && &*d == raw &&
                e->getStrongCount() == 7);  // c to i
    for (auto* const each : {&d, &e, &f, &g, &h, &i})
        each->clear();
    EXPECT_EQ(raw->getStrongCount(), 1);

    auto const all = [](auto const& x, auto const& y) {
        return std::array<bool, 6>{x == y, x != y, x<y, x> y, x <= y, x >= y};
    };
    android::sp<Derived> other = new Derived, same = raw, none;
    for (auto const& y : {other, same, none}) {
        EXPECT_TRUE(all(c, y) == all(c.get(), y.get()) && all(y, c) == all(y.get(), c.get()));
        EXPECT_TRUE(all(c, y) == all(c, y.get()) && all(c, y) == all(c.get(), y));
    }
    a = c, c = nullptr, same = other;
    EXPECT_EQ(gLog, "first first ");
    a = same;
    EXPECT_EQ(gLog, "first first last gone ");
}

}  // namespace
}  // namespace quillex
