#include "StreamDecoder.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

namespace vesk::tool {

namespace {

using hostkit::FrameText;
using std::to_string;

constexpr FrameText::Options ALL_ENTRIES{64, MAX_PAYLOAD_SIZE, false};

}  // namespace

StreamDecoder::StreamDecoder(VeskConfig const& catalogue, Form form, Print print)
    : mForm(form),
      mPrint(std::move(print)),
      mText(catalogue, ALL_ENTRIES),
      mReader(catalogue, [this](auto const& frame) { found(*frame); }) {}

void StreamDecoder::feed(uint8_t const* bytes, size_t size, Prefix const& prefix) {
    mPrefix = prefix;
    mFed += size;
    mReader.feed(bytes, size);
    mHeld.insert(mHeld.end(), bytes, bytes + size);
    uint64_t const held = mFed - mInFrames - mReader.skippedBytes();
    mHeld.erase(mHeld.begin(), mHeld.end() - static_cast<ptrdiff_t>(held));
}

void StreamDecoder::silence() {
    if (mReader.incomplete()) printCut();
    mReader.abandon();
    mHeld.clear();
    printSkipped();
}

void StreamDecoder::finish() {
    silence();
}

// Every byte is in a frame or skipped, one after the other, so these two numbers give its place.
void StreamDecoder::found(VeskFrame const& frame) {
    printSkipped();
    std::string text = mText.line(frame, mPrefix);
    std::string json = mText.json(frame, mPrefix);
    std::string const why = mText.ignored(frame);
    if (!why.empty()) {
        ++mIgnored;
        text += "; " + why;
        json.insert(json.size() - 1, ",\"ignored\":\"" + why + '"');
    }
    print(mInFrames + mReader.skippedBytes(), text, json);
    ++mFrames;
    mInFrames += hostkit::FrameReader::HEAD_SIZE + frame.data.size();
}

void StreamDecoder::printSkipped() {
    uint64_t const skipped = mReader.skippedBytes() - mReported;
    if (skipped == 0) {
        return;
    }
    uint64_t const offset = mInFrames + mReported;
    mReported += skipped;
    print(offset, FrameText::prefix(mPrefix) + to_string(skipped) + " bytes belong to no frame",
          "{\"skipped\":" + to_string(skipped) + '}');
}

void StreamDecoder::printCut() {
    printSkipped();
    std::string what = to_string(mHeld.size()) + " bytes of a header";
    if (mHeld.size() >= hostkit::FrameReader::HEAD_SIZE) {
        VeskFrame frame;
        frame.unSerialze({mHeld.begin(), mHeld.begin() + hostkit::FrameReader::HEAD_SIZE});
        what = to_string(mHeld.size()) + " of " +
               to_string(hostkit::FrameReader::HEAD_SIZE + frame.dataSize) +
               " bytes of: " + FrameText::type(frame) + " " +
               mText.business(frame.topicId, frame.businessId);
    }
    print(mInFrames + mReader.skippedBytes(), FrameText::prefix(mPrefix) + "cut short: " + what,
          "{\"cutShort\":\"" + what + "\"}");
}

void StreamDecoder::print(uint64_t offset, std::string const& text, std::string const& json) {
    if (mForm == Form::JSON) {
        return mPrint("{\"offset\":" + to_string(offset) + ',' + json.substr(1));
    }
    if (mPrefix.millis) {
        return mPrint(text);
    }
    char place[32];
    std::snprintf(place, sizeof(place), "%7" PRIu64 "  ", offset);
    mPrint(place + text);
}

}  // namespace vesk::tool
