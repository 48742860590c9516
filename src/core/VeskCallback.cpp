#include <vesk/VeskCallback.h>

namespace vesk {

// Out of line, so that the virtual table is emitted once, here.
VeskCallback::~VeskCallback() = default;

}  // namespace vesk
