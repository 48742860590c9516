#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <vesk/hostkit/FrameReader.h>
#include <vesk/hostkit/FrameText.h>

namespace vesk::tool {

/**
 * Puts the bytes of one direction of a channel into words: a line for each frame, for each run of
 * bytes that belongs to none, and for a frame that is cut short at the end.
 *
 * Threads: one caller at a time, who also runs the printer.
 */
class StreamDecoder {
public:
    using Prefix = hostkit::FrameText::Prefix;
    using Print = std::function<void(std::string const& line)>;

    enum class Form { TEXT, JSON };

    /** @param catalogue must outlive the decoder. */
    StreamDecoder(VeskConfig const& catalogue, Form form, Print print);
    StreamDecoder(StreamDecoder const&) = delete;
    StreamDecoder& operator=(StreamDecoder const&) = delete;

    /** @param prefix stands before what these bytes complete, in the place of its offset. */
    void feed(uint8_t const* bytes, size_t size, Prefix const& prefix);

    /** For a second nothing has come: what is held will not be completed. */
    void silence();

    /** The stream has ended, cut or not. Nothing comes after it. */
    void finish();

    bool incomplete() const { return mReader.incomplete(); }
    uint64_t frames() const { return mFrames; }

    /** Frames that a peer would not act on. */
    uint64_t ignored() const { return mIgnored; }

    /** Bytes that belong to no frame. */
    uint64_t skipped() const { return mReader.skippedBytes(); }

private:
    void found(VeskFrame const& frame);
    void printSkipped();
    void printCut();
    void print(uint64_t offset, std::string const& text, std::string const& json);

    Form const mForm;
    Print const mPrint;
    hostkit::FrameText const mText;
    hostkit::FrameReader mReader;
    std::vector<uint8_t> mHeld;  // the same as the reader holds
    Prefix mPrefix;
    uint64_t mFed = 0;
    uint64_t mInFrames = 0;  // bytes
    uint64_t mReported = 0;  // bytes that belong to no frame and have been printed
    uint64_t mFrames = 0;
    uint64_t mIgnored = 0;
};

}  // namespace vesk::tool
