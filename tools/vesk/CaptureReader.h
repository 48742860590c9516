#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include <vesk/hostkit/FrameText.h>

namespace vesk::tool {

/**
 * Reads what hostkit::CaptureWriter has written, and what other programs have made of that: pcapng
 * of this byte order. Blocks of other kinds are passed over.
 */
class CaptureReader {
public:
    struct Record {
        uint32_t link = 0;  // which opening of the channel
        uint64_t micros = 0;
        std::optional<hostkit::FrameText::Direction> direction;
        std::vector<uint8_t> bytes;
    };

    /** Of the 4 bytes with which every capture begins, or may begin if there are fewer. */
    static bool mayBegin(std::vector<uint8_t> const& bytes);

    /** Takes bytes in any chunks. Throws std::runtime_error where they are no such capture. */
    void feed(uint8_t const* bytes, size_t size);

    /** Takes the next record out; nothing where more bytes are needed. Throws like feed(). */
    std::optional<Record> next();

    /** Whether the bytes of a block are held whose rest has not come. */
    bool incomplete() const { return mBytes.size() > mRead; }

private:
    struct Link {
        uint64_t ticksPerSecond;
    };

    uint16_t u16(size_t at) const;
    uint32_t u32(size_t at) const;
    void addLink(size_t block, size_t size);
    Record record(size_t block, size_t size) const;
    /** Calls back with the code, the place and the length of each option between two places. */
    template <typename Use>
    void options(size_t at, size_t end, Use const& use) const;

    std::vector<uint8_t> mBytes;
    size_t mRead = 0;  // up to here mBytes has been consumed
    std::vector<Link> mLinks;
};

}  // namespace vesk::tool
