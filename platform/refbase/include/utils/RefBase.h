#pragma once

#include <atomic>
#include <cstdint>

#include <utils/StrongPointer.h>

namespace android {

/**
 * Stand-in for libutils' RefBase: an intrusive strong count. The object deletes itself when the
 * last sp<> lets go of it. Weak references (wp<>) are left out; the virtual table has the same
 * entries in the same order all the same.
 */
class RefBase {
public:
    void incStrong(void const*) const {
        // The count is relaxed on the way up: whoever adds a reference holds one already.
        if (mStrong.fetch_add(1, std::memory_order_relaxed) == 0) {
            const_cast<RefBase*>(this)->onFirstRef();
        }
    }

    void decStrong(void const* id) const {
        if (mStrong.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            const_cast<RefBase*>(this)->onLastStrongRef(id);
            delete this;
        }
    }

    int32_t getStrongCount() const { return mStrong.load(std::memory_order_relaxed); }

    RefBase(RefBase const&) = delete;
    RefBase& operator=(RefBase const&) = delete;

protected:
    RefBase() = default;
    virtual ~RefBase() = default;

    virtual void onFirstRef() {}
    virtual void onLastStrongRef(void const*) {}
    virtual bool onIncStrongAttempted(uint32_t, void const*) { return false; }
    virtual void onLastWeakRef(void const*) {}

private:
    mutable std::atomic<int32_t> mStrong{0};
};

}  // namespace android
