// Any bytes are parsed or refused, and what was parsed comes back as it was.

#include <vesk/VeskFrame.h>

#include <cstdlib>

namespace {

using vesk::VeskFrame;

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* bytes, size_t size) {
    std::vector<uint8_t> const in(bytes, bytes + size);
    auto const frame = VeskFrame::obtainFrame(false);
    require(frame->unSerialze(in) == (size >= 12));
    if (size < 12) {
        require(frame->magic == VeskFrame::MAGIC_NUMBER && frame->data.empty());
        return 0;
    }
    std::vector<uint8_t> out{1, 2, 3};
    frame->serialze(out);
    require(out.size() == size);
    for (size_t i = 0; i < size; ++i) {
        // The length field alone is written from the data, whatever it was.
        bool const isLength = i == VeskFrame::DATASIZE_INDEX || i == VeskFrame::DATASIZE_INDEX + 1;
        require(isLength || out[i] == in[i]);
    }
    require((out[1] | out[2] << 8) == static_cast<uint16_t>(size - 12));

    auto const again = VeskFrame::obtainFrame(false);
    require(again->unSerialze(out));
    require(again->data == frame->data && again->reply == frame->reply &&
            again->serialNumber == frame->serialNumber && again->msgId == frame->msgId &&
            again->magic == frame->magic && again->topicId == frame->topicId &&
            again->businessId == frame->businessId && again->msgType == frame->msgType);
    return 0;
}
