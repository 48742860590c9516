// Debian's libutils is not instrumented, so ThreadSanitizer cannot see that the last decStrong() of
// an object comes after all the others, and takes its destructor for a race. This one, found before
// libutils' own, tells it; real races stay visible.

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>
#include <utils/RefBase.h>

namespace android {

void RefBase::decStrong(void const* id) const {
    using DecStrong = void (*)(RefBase const*, void const*);
    static auto const original =
            reinterpret_cast<DecStrong>(dlsym(RTLD_NEXT, "_ZNK7android7RefBase9decStrongEPKv"));
    auto* const self = const_cast<RefBase*>(this);
    __tsan_release(self);
    __tsan_acquire(self);
    original(this, id);
}

}  // namespace android
