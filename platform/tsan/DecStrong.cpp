// Debian's libutils is not instrumented, so ThreadSanitizer cannot see that the last decStrong() of
// an object comes after all the others, and takes its destructor for a race. These two, found
// before libutils' own, tell it; real races stay visible.

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>
#include <utils/RefBase.h>

namespace android {

void RefBase::decStrong(void const* id) const {
    using DecStrong = void (*)(RefBase const*, void const*);
    static auto const original =
            reinterpret_cast<DecStrong>(dlsym(RTLD_NEXT, "_ZNK7android7RefBase9decStrongEPKv"));
    __tsan_release(const_cast<RefBase*>(this));
    original(this, id);
}

// Called after the last decrement and before the destructor.
void RefBase::onLastStrongRef(void const*) {
    __tsan_acquire(this);
}

}  // namespace android
