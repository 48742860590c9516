#include <vesk/hostkit/FrameTally.h>

#include <utility>

namespace vesk::hostkit {

std::shared_ptr<VeskFrame> FrameTally::count(std::shared_ptr<VeskFrame> frame) {
    size_t const size = VeskFrame::FRAME_HEAD_SIZE + frame->data.size();
    *mBytes += size;
    VeskFrame* const counted = frame.get();
    return {counted, [frame = std::move(frame), bytes = mBytes, size](VeskFrame*) mutable {
                frame.reset();
                *bytes -= size;
            }};
}

}  // namespace vesk::hostkit
