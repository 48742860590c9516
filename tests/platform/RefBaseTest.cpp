// The reference counting that the library is built with, whichever it is.

#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace vesk {
namespace {

using android::sp;

struct Counted : android::RefBase {
    static inline std::atomic<int> alive{0};
    static inline std::atomic<int> firsts{0};
    static inline std::atomic<int> lasts{0};

    Counted() { ++alive; }
    void onFirstRef() override { ++firsts; }
    void onLastStrongRef(void const*) override { ++lasts; }

    sp<Counted> next;

protected:
    ~Counted() override { --alive; }
};

struct Derived : Counted {};

class RefBaseTest : public testing::Test {
protected:
    RefBaseTest() { Counted::firsts = Counted::lasts = 0; }
    ~RefBaseTest() override { EXPECT_EQ(Counted::alive, 0); }
};

TEST_F(RefBaseTest, CopiesShareMovesDoNotAndTheLastOneDeletes) {
    sp<Counted> first = new Derived;
    EXPECT_EQ(first->getStrongCount(), 1);
    sp<Counted> second = first;
    sp<Counted> third = first.get();
    EXPECT_EQ(first->getStrongCount(), 3);
    sp<Counted> moved = std::move(second);
    EXPECT_EQ(first->getStrongCount(), 3);
    EXPECT_EQ(second, nullptr);  // NOLINT(bugprone-use-after-move)
    sp<Derived> derived = new Derived;
    moved = derived;
    third = sp<Derived>(derived);
    EXPECT_EQ(derived->getStrongCount(), 3);
    EXPECT_EQ(first->getStrongCount(), 1);
    sp<Counted>& alias = first;
    first = alias;
    EXPECT_EQ(Counted::alive, 2);
    first.clear();
    EXPECT_EQ(Counted::alive, 1);
    EXPECT_EQ(Counted::firsts, 2);
    EXPECT_EQ(Counted::lasts, 1);
}

TEST_F(RefBaseTest, PointersCompareByObject) {
    sp<Counted> const a = new Counted;
    sp<Counted> const b = new Counted;
    sp<Counted> const none;
    EXPECT_TRUE(a == a && a != b && a != none && none == nullptr);
    EXPECT_TRUE(a == a.get() && b != a.get());
    EXPECT_EQ(&*a, a.get());
}

TEST_F(RefBaseTest, ReleaseOfAChainReachesItsEnd) {
    sp<Counted> head;
    for (int i = 0; i < 100; ++i) {
        sp<Counted> const link = new Counted;
        link->next = head;
        head = link;
    }
    EXPECT_EQ(Counted::alive, 100);
    head = head->next;  // the object that owns the assigned pointer dies of the assignment
    EXPECT_EQ(Counted::alive, 99);
    head = nullptr;
}

TEST_F(RefBaseTest, ThreadsThatShareAnObjectDeleteItOnce) {
    for (int round = 0; round < 200; ++round) {
        sp<Counted> shared = new Counted;
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([mine = shared]() mutable {
                for (int copies = 0; copies < 50; ++copies)
                    sp<Counted> const copy = mine;
                mine.clear();
            });
        }
        shared.clear();
        for (auto& thread : threads)
            thread.join();
        ASSERT_EQ(Counted::alive, 0);
    }
    EXPECT_EQ(Counted::lasts, 200);
}

}  // namespace
}  // namespace vesk
