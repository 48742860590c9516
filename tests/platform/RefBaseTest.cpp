// The reference counting that the library is built with, whichever it is.

#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <gtest/gtest.h>

namespace vesk {
namespace {

using android::sp;

struct Counted : android::RefBase {
    static inline int alive = 0;

    Counted() { ++alive; }
    sp<Counted> next;

protected:
    ~Counted() override { --alive; }
};

struct Derived : Counted {};

TEST(RefBaseTest, CopiesShareMovesDoNotAndTheLastOneDeletes) {
    sp<Counted> first = new Derived;
    sp<Counted> second = first;
    sp<Counted> third = first.get();
    sp<Counted> moved = std::move(second);
    EXPECT_EQ(first->getStrongCount(), 3);
    EXPECT_EQ(second, nullptr);  // NOLINT(bugprone-use-after-move)
    sp<Derived> const derived = new Derived;
    moved = derived;
    third = sp<Derived>(derived);
    EXPECT_EQ(derived->getStrongCount(), 3);
    EXPECT_TRUE(first != derived && moved == derived && third == derived.get());
    first.clear();
    EXPECT_EQ(Counted::alive, 1);

    first = new Counted;
    first->next = new Counted;
    first = first->next;  // destroys the owner of what it assigns
    EXPECT_EQ(first->getStrongCount(), 1);
}

}  // namespace
}  // namespace vesk
