#include <vesk/hostkit/CaptureWriter.h>

#include <algorithm>

namespace vesk::hostkit {

namespace {

// Of the pcapng format. Every number is written in this byte order, which the section's magic
// number tells.
constexpr uint32_t SECTION = 0x0A0D0D0A, INTERFACE = 1, ENHANCED_PACKET = 6;
constexpr uint32_t BYTE_ORDER_MAGIC = 0x1A2B3C4D;
constexpr uint16_t OPTION_END = 0, SECTION_APPLICATION = 4, INTERFACE_NAME = 2, PACKET_FLAGS = 2;
constexpr uint32_t INBOUND = 1, OUTBOUND = 2;
constexpr size_t BLOCK_FRAME = 12;            // type, length, and length again
constexpr size_t PACKET_FRAME = 20 + 12 + 3;  // of a packet: its head, its options and padding

/** One block, from its type to the length at its end. */
class Block {
public:
    explicit Block(uint32_t type, size_t expected = 0) {
        mBytes.reserve(expected + BLOCK_FRAME);
        u32(type).u32(0);
    }

    Block& u16(uint16_t value) { return number(value, 2); }
    Block& u32(uint32_t value) { return number(value, 4); }

    Block& padded(uint8_t const* bytes, size_t size) {
        if (size > 0) mBytes.insert(mBytes.end(), bytes, bytes + size);
        mBytes.resize((mBytes.size() + 3) / 4 * 4);
        return *this;
    }

    Block& option(uint16_t code, std::string const& text) {
        size_t const size = std::min<size_t>(text.size(), UINT16_MAX);
        return u16(code)
                .u16(static_cast<uint16_t>(size))
                .padded(reinterpret_cast<uint8_t const*>(text.data()), size);
    }

    /** All of a packet block but its options. */
    Block& packet(uint32_t link, uint64_t micros, uint8_t const* bytes, size_t size) {
        u32(link).u32(static_cast<uint32_t>(micros >> 32)).u32(static_cast<uint32_t>(micros));
        u32(static_cast<uint32_t>(size)).u32(static_cast<uint32_t>(size));
        return padded(bytes, size);
    }

    CaptureWriter::Bytes finish() {
        auto const size = static_cast<uint32_t>(mBytes.size() + 4);
        u32(size);
        for (size_t i = 0; i < 4; ++i)
            mBytes[4 + i] = static_cast<uint8_t>(size >> 8 * i);
        return std::move(mBytes);
    }

private:
    Block& number(uint32_t value, size_t width) {
        for (size_t i = 0; i < width; ++i)
            mBytes.push_back(static_cast<uint8_t>(value >> 8 * i));
        return *this;
    }

    CaptureWriter::Bytes mBytes;
};

}  // namespace

CaptureWriter::Bytes CaptureWriter::begin(std::string const& application) {
    return Block(SECTION)
            .u32(BYTE_ORDER_MAGIC)
            .u16(1)
            .u16(0)
            .u32(UINT32_MAX)  // the length of the section, which nobody knows yet
            .u32(UINT32_MAX)
            .option(SECTION_APPLICATION, application)
            .u32(OPTION_END)
            .finish();
}

CaptureWriter::Bytes CaptureWriter::link(std::string const& name, uint64_t micros) {
    Bytes blocks = Block(INTERFACE)
                           .u16(LINK_TYPE)
                           .u16(0)
                           .u32(MAX_RECORD)
                           .option(INTERFACE_NAME, name)
                           .u32(OPTION_END)
                           .finish();
    Bytes const opening = Block(ENHANCED_PACKET).packet(mLinks++, micros, nullptr, 0).finish();
    blocks.insert(blocks.end(), opening.begin(), opening.end());
    return blocks;
}

CaptureWriter::Bytes CaptureWriter::record(FrameText::Direction direction, uint64_t micros,
                                           uint8_t const* bytes, size_t size) const {
    Bytes blocks;
    while (size > 0) {
        size_t const piece = std::min(size, MAX_RECORD);
        Bytes const block = Block(ENHANCED_PACKET, piece + PACKET_FRAME)
                                    .packet(mLinks - 1, micros, bytes, piece)
                                    .u16(PACKET_FLAGS)
                                    .u16(4)
                                    .u32(direction == FrameText::Direction::IN ? INBOUND : OUTBOUND)
                                    .u32(OPTION_END)
                                    .finish();
        blocks.insert(blocks.end(), block.begin(), block.end());
        bytes += piece;
        size -= piece;
    }
    return blocks;
}

}  // namespace vesk::hostkit
