#include "StreamReader.h"

#include <algorithm>
#include <cstring>

#include <vesk/VeskFrame.h>

namespace vesk::tool {

namespace {

constexpr size_t HEAD_SIZE = VeskFrame::FRAME_HEAD_SIZE;
constexpr uint8_t ACK_ID = 0xAA;
constexpr uint8_t TYPE_ACK = 1;
constexpr uint8_t TYPE_REQUEST = 2;
constexpr uint8_t TYPE_REPLY = 3;

size_t readU16(uint8_t const* bytes) {
    return static_cast<size_t>(bytes[0]) | static_cast<size_t>(bytes[1]) << 8;
}

size_t payloadSize(uint8_t const* header) {
    return readU16(header + VeskFrame::DATASIZE_INDEX);
}

}  // namespace

StreamReader::StreamReader(VeskConfig const& catalogue, FrameHandler onFrame)
    : mCatalogue(catalogue), mOnFrame(std::move(onFrame)) {
    mFrame.reserve(MAX_FRAME_SIZE);
}

void StreamReader::feed(uint8_t const* bytes, size_t size) {
    while (size > 0) {
        size_t taken = mFrame.empty() ? skipToMagic(bytes, size) : 0;
        bytes += taken;
        size -= taken;
        taken = std::min(size, missing());
        mFrame.insert(mFrame.end(), bytes, bytes + taken);
        bytes += taken;
        size -= taken;
        examine();
    }
}

void StreamReader::examine() {
    if (mFrame.size() < HEAD_SIZE) return;
    if (mFrame.size() == HEAD_SIZE && !canBeHeader(mFrame.data())) {
        rejectHeader();
    } else if (missing() == 0) {
        mAfterGarbage = false;
        mOnFrame(mFrame);
        mFrame.clear();
    }
}

void StreamReader::abandon() {
    std::vector<uint8_t> const bytes(mFrame);
    mFrame.clear();
    // Complete frames only: a second header that waits for more would be no better than the first.
    for (size_t at = 0; at < bytes.size();) {
        uint8_t const* header = bytes.data() + at;
        size_t const left = bytes.size() - at;
        if (left >= HEAD_SIZE && *header == VeskFrame::MAGIC_NUMBER && canBeHeader(header) &&
            left - HEAD_SIZE >= payloadSize(header)) {
            feed(header, HEAD_SIZE + payloadSize(header));
            at += HEAD_SIZE + payloadSize(header);
        } else {
            skip(1);
            ++at;
        }
    }
}

void StreamReader::reset() {
    mSkipped += mFrame.size();
    mFrame.clear();
    mAfterGarbage = false;
}

bool StreamReader::canBeHeader(uint8_t const* bytes) const {
    uint8_t const topic = bytes[VeskFrame::TOPICID_INDEX];
    uint8_t const business = bytes[VeskFrame::BUSINESSID_INDEX];
    uint8_t const type = bytes[VeskFrame::MSGTYPE_INDEX];
    if (type == TYPE_ACK) {
        return topic == ACK_ID && business == ACK_ID &&
               payloadSize(bytes) == 4 * readU16(bytes + VeskFrame::REPLY_INDEX);
    }
    return (type == TYPE_REQUEST || type == TYPE_REPLY) &&
           mCatalogue.isBussinessSupport(topic, business);
}

size_t StreamReader::skipToMagic(uint8_t const* bytes, size_t size) {
    void const* magic = std::memchr(bytes, VeskFrame::MAGIC_NUMBER, size);
    size_t const garbage =
            magic ? static_cast<size_t>(static_cast<uint8_t const*>(magic) - bytes) : size;
    skip(garbage);
    return garbage;
}

size_t StreamReader::missing() const {
    if (mFrame.size() < HEAD_SIZE) return HEAD_SIZE - mFrame.size();
    return HEAD_SIZE + payloadSize(mFrame.data()) - mFrame.size();
}

void StreamReader::rejectHeader() {
    auto const next = std::find(mFrame.begin() + 1, mFrame.end(), VeskFrame::MAGIC_NUMBER);
    skip(static_cast<size_t>(next - mFrame.begin()));
    mFrame.erase(mFrame.begin(), next);
}

void StreamReader::skip(size_t count) {
    mSkipped += count;
    mAfterGarbage = mAfterGarbage || count > 0;
}

}  // namespace vesk::tool
