#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace android {

/**
 * Stand-in for libutils' sp<>: a strong pointer to an object that counts its own references.
 * As thread-safe as a raw pointer: several threads may share the object, not one sp<>.
 */
template <typename T>
class sp {
public:
    sp() = default;
    sp(T* other) : mPtr(other) { acquire(); }
    sp(sp const& other) : mPtr(other.mPtr) { acquire(); }
    sp(sp&& other) noexcept : mPtr(std::exchange(other.mPtr, nullptr)) {}
    template <typename U>
    sp(U* other) : mPtr(other) {
        acquire();
    }
    template <typename U>
    sp(sp<U> const& other) : mPtr(other.mPtr) {
        acquire();
    }
    template <typename U>
    sp(sp<U>&& other) : mPtr(std::exchange(other.mPtr, nullptr)) {}

    ~sp() {
        if (mPtr) mPtr->decStrong(this);
    }

    sp& operator=(sp const& other) { return assign(sp(other)); }
    sp& operator=(sp&& other) noexcept { return assign(sp(std::move(other))); }
    sp& operator=(T* other) { return assign(sp(other)); }
    template <typename U>
    sp& operator=(sp<U> const& other) {
        return assign(sp(other));
    }
    template <typename U>
    sp& operator=(sp<U>&& other) {
        return assign(sp(std::move(other)));
    }
    template <typename U>
    sp& operator=(U* other) {
        return assign(sp(other));
    }

    void clear() { assign(sp()); }

    T& operator*() const { return *mPtr; }
    T* operator->() const { return mPtr; }
    T* get() const { return mPtr; }
    explicit operator bool() const { return mPtr != nullptr; }

private:
    template <typename U>
    friend class sp;

    void acquire() const {
        if (mPtr) mPtr->incStrong(this);
    }

    // The old object is released last, when this pointer is whole again: its destructor may look.
    sp& assign(sp&& other) noexcept {
        std::swap(mPtr, other.mPtr);
        return *this;
    }

    T* mPtr = nullptr;
};

// The function objects order pointers to unrelated objects too, as the operators need not.
#define VESK_COMPARE_SP(op, Compare)                                    \
    template <typename T, typename U>                                   \
    bool operator op(sp<T> const& a, sp<U> const& b) {                  \
        return Compare<std::common_type_t<T*, U*>>()(a.get(), b.get()); \
    }                                                                   \
    template <typename T, typename U>                                   \
    bool operator op(sp<T> const& a, U const* b) {                      \
        return Compare<std::common_type_t<T*, U const*>>()(a.get(), b); \
    }                                                                   \
    template <typename T, typename U>                                   \
    bool operator op(T const* a, sp<U> const& b) {                      \
        return Compare<std::common_type_t<T const*, U*>>()(a, b.get()); \
    }
VESK_COMPARE_SP(==, std::equal_to)
VESK_COMPARE_SP(!=, std::not_equal_to)
VESK_COMPARE_SP(<, std::less)
VESK_COMPARE_SP(>, std::greater)
VESK_COMPARE_SP(<=, std::less_equal)
VESK_COMPARE_SP(>=, std::greater_equal)
#undef VESK_COMPARE_SP

template <typename T>
bool operator==(sp<T> const& a, std::nullptr_t) {
    return a.get() == nullptr;
}
template <typename T>
bool operator==(std::nullptr_t, sp<T> const& b) {
    return b.get() == nullptr;
}
template <typename T>
bool operator!=(sp<T> const& a, std::nullptr_t) {
    return a.get() != nullptr;
}
template <typename T>
bool operator!=(std::nullptr_t, sp<T> const& b) {
    return b.get() != nullptr;
}

}  // namespace android
