#include <vesk/hostkit/FrameReader.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "ByteOrder.h"

namespace vesk::hostkit {

namespace {

size_t payloadSize(uint8_t const* header) {
    return getU16(header + VeskFrame::DATASIZE_INDEX);
}

size_t frameSize(uint8_t const* header) {
    return FrameReader::HEAD_SIZE + payloadSize(header);
}

// As unSerialze() fills it, without a second copy of the payload. The frame's dataSize stays 0.
std::shared_ptr<VeskFrame> makeFrame(uint8_t const* bytes, size_t size) {
    auto frame = VeskFrame::obtainFrame(false);
    frame->topicId = bytes[VeskFrame::TOPICID_INDEX];
    frame->businessId = bytes[VeskFrame::BUSINESSID_INDEX];
    frame->msgType = bytes[VeskFrame::MSGTYPE_INDEX];
    frame->reply = getU16(bytes + VeskFrame::REPLY_INDEX);
    frame->serialNumber = getU16(bytes + VeskFrame::SERIALNUMB_INDEX);
    frame->msgId = getU16(bytes + VeskFrame::MSGID_INDEX);
    frame->data.assign(bytes + FrameReader::HEAD_SIZE, bytes + size);
    return frame;
}

}  // namespace

FrameReader::FrameReader(VeskConfig const& catalogue, FrameHandler onFrame)
    : mCatalogue(catalogue), mOnFrame(std::move(onFrame)) {
    mHeld.reserve(MAX_FRAME_SIZE);
}

void FrameReader::feed(uint8_t const* bytes, size_t size) {
    while (size > 0) {
        // Frames that lie whole in the chunk are not copied together first.
        size_t taken = mHeld.empty() ? examine(bytes, size, Rest::MAY_COME) : 0;
        bytes += taken;
        size -= taken;
        taken = std::min(size, missing());
        mHeld.insert(mHeld.end(), bytes, bytes + taken);
        bytes += taken;
        size -= taken;
        size_t const done = examine(mHeld.data(), mHeld.size(), Rest::MAY_COME);
        mHeld.erase(mHeld.begin(), mHeld.begin() + static_cast<ptrdiff_t>(done));
    }
}

/**
 * Hands on the frames that lie whole in the bytes and skips what belongs to none. Returns how many
 * bytes that were: behind them begins a frame whose rest may come, or nothing is left.
 */
size_t FrameReader::examine(uint8_t const* bytes, size_t size, Rest rest) {
    size_t at = 0;
    while (at < size) {
        uint8_t const* const head = bytes + at;
        size_t const left = size - at;
        if (*head != VeskFrame::MAGIC_NUMBER) {
            at += skipToMagic(head, left);
            continue;
        }
        bool const headIsWhole = left >= HEAD_SIZE;
        bool const believed = !headIsWhole || isBelieved(head);
        bool const whole = headIsWhole && left >= frameSize(head);
        if (believed && whole) {
            handOn(head, frameSize(head));
            at += frameSize(head);
        } else if (believed && rest == Rest::MAY_COME) {
            break;
        } else {
            skip(1);  // the magic byte alone: the next one may be the true one
            ++at;
        }
    }
    return at;
}

void FrameReader::abandon() {
    if (!mHeld.empty()) {
        skip(1);
        examine(mHeld.data() + 1, mHeld.size() - 1, Rest::NEVER_COMES);
        mHeld.clear();
    }
    // A sender that has paused begins anew more often than it goes on in the middle of a frame, and
    // then nothing that it sends may be lost, whatever its type.
    mInStep = true;
}

void FrameReader::reset() {
    skip(mHeld.size());
    mHeld.clear();
    mInStep = true;
}

bool FrameReader::isBelieved(uint8_t const* header) const {
    return mInStep || isPlausible(header);
}

bool FrameReader::isPlausible(uint8_t const* header) const {
    uint8_t const topic = header[VeskFrame::TOPICID_INDEX];
    uint8_t const business = header[VeskFrame::BUSINESSID_INDEX];
    if (header[VeskFrame::MSGTYPE_INDEX] == ACKNOWLEDGEMENT) {
        return topic == ACK_ID && business == ACK_ID &&
               payloadSize(header) / ACK_ENTRY_SIZE == getU16(header + VeskFrame::REPLY_INDEX);
    }
    return mCatalogue.isBussinessSupport(topic, business);
}

size_t FrameReader::skipToMagic(uint8_t const* bytes, size_t size) {
    void const* const magic = std::memchr(bytes, VeskFrame::MAGIC_NUMBER, size);
    size_t const garbage =
            magic ? static_cast<size_t>(static_cast<uint8_t const*>(magic) - bytes) : size;
    skip(garbage);
    return garbage;
}

/** Bytes until something can be said of what is held: to the end of its header, then of all. */
size_t FrameReader::missing() const {
    size_t const wanted = mHeld.size() < HEAD_SIZE ? HEAD_SIZE : frameSize(mHeld.data());
    return wanted - mHeld.size();
}

void FrameReader::handOn(uint8_t const* bytes, size_t size) {
    mInStep = true;
    mOnFrame(makeFrame(bytes, size));
}

void FrameReader::skip(size_t count) {
    mSkipped += count;
    mInStep = false;
}

}  // namespace vesk::hostkit
