#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <array>
#include <chrono>

#include <quillex/SystemClock.h>

namespace quillex {
namespace {

TEST(PlatformTest, ClockIsTheMachines) {
    auto const steady = std::chrono::steady_clock::now().time_since_epoch();
    auto const ahead = std::chrono::milliseconds(SystemClock::uptimeMillis()) - steady;
    EXPECT_TRUE(ahead > std::chrono::milliseconds(-1) && ahead < std::chrono::minutes(1));
}

int gGone = 0, gTold = 0;

struct Counted : android::RefBase {
    ~Counted() override { ++gGone; }
    void onFirstRef() override { gTold += 1; }
    void onLastStrongRef(void const* id) override { gTold += id ? 10 : 0; }
};
struct Derived : Counted {};

TEST(PlatformTest, StrongPointersShareAndCompareTheirObject) {
    Derived* const raw = new Derived;
    std::array<android::sp<Derived>, 2> s{raw, raw};
    std::array<android::sp<Counted>, 6> p{raw, s[0]};
    android::sp<Counted> copy(p[0]), moved(std::move(p[1])), other(std::move(s[1]));
    p[2] = raw, p[3] = s[0], p[4] = std::move(p[2]), p[5] = std::move(s[0]), p[2] = copy;
    EXPECT_EQ(raw->getStrongCount(), 8);
    EXPECT_TRUE(!p[1] && nullptr == s[0] && !(s[1] != nullptr) && nullptr != p[3] && copy);

    auto const all = [](auto const& x, auto const& y) {
        return std::array<bool, 6>{x == y, x != y, x <= y, x >= y, x<y, x> y};
    };
    for (auto const& y : {android::sp<Derived>(new Derived), android::sp<Derived>(raw), s[0]}) {
        EXPECT_TRUE(all(copy, y) == all(raw, y.get()) && all(copy, y) == all(copy, y.get()) &&
                    all(raw, y) == all(raw, y.get()));
    }
    EXPECT_TRUE(gGone == 1 && gTold == 12);
    p.fill({}), copy.clear(), moved = nullptr, other = new Derived;
    EXPECT_EQ(gGone, 2);
}

}  // namespace
}  // namespace quillex
