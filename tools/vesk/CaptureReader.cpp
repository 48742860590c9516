#include "CaptureReader.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>

#include <vesk/hostkit/CaptureWriter.h>

namespace vesk::tool {

namespace {

using Direction = hostkit::FrameText::Direction;

constexpr uint8_t SECTION_BYTES[] = {0x0A, 0x0D, 0x0D, 0x0A};
constexpr uint32_t SECTION = 0x0A0D0D0A, INTERFACE = 1, ENHANCED_PACKET = 6;
constexpr uint32_t BYTE_ORDER_MAGIC = 0x1A2B3C4D;
constexpr uint16_t PACKET_FLAGS = 2, TIME_RESOLUTION = 9;
constexpr size_t HEAD = 8, LEAST_BLOCK = 12, MOST_BLOCK = size_t{16} * 1024 * 1024;
constexpr size_t INTERFACE_HEAD = 8, PACKET_HEAD = 20;  // behind the block's own head

[[noreturn]] void fail(std::string const& why) {
    throw std::runtime_error("the capture cannot be read: " + why);
}

}  // namespace

bool CaptureReader::mayBegin(std::vector<uint8_t> const& bytes) {
    size_t const size = std::min(bytes.size(), std::size(SECTION_BYTES));
    return std::equal(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size), SECTION_BYTES);
}

uint16_t CaptureReader::u16(size_t at) const {
    return static_cast<uint16_t>(mBytes[at] | mBytes[at + 1] << 8);
}

uint32_t CaptureReader::u32(size_t at) const {
    return u16(at) | static_cast<uint32_t>(u16(at + 2)) << 16;
}

void CaptureReader::feed(uint8_t const* bytes, size_t size) {
    mBytes.erase(mBytes.begin(), mBytes.begin() + static_cast<ptrdiff_t>(mRead));
    mRead = 0;
    mBytes.insert(mBytes.end(), bytes, bytes + size);
}

std::optional<CaptureReader::Record> CaptureReader::next() {
    while (mBytes.size() - mRead >= LEAST_BLOCK) {
        size_t const block = mRead;
        uint32_t const type = u32(block);
        if (type == SECTION && u32(block + HEAD) != BYTE_ORDER_MAGIC) {
            fail("it is of another byte order, or no pcapng file");
        }
        size_t const size = u32(block + 4);
        if (size < LEAST_BLOCK || size % 4 != 0 || size > MOST_BLOCK) {
            fail("a block cannot have " + std::to_string(size) + " bytes");
        }
        if (mBytes.size() - block < size) return std::nullopt;
        mRead += size;
        if (type == SECTION) mLinks.clear();
        if (type == INTERFACE) addLink(block + HEAD, size - LEAST_BLOCK);
        if (type == ENHANCED_PACKET) return record(block + HEAD, size - LEAST_BLOCK);
    }
    return std::nullopt;
}

template <typename Use>
void CaptureReader::options(size_t at, size_t end, Use const& use) const {
    while (end - at >= 4 && u16(at) != 0) {
        size_t const length = u16(at + 2);
        size_t const padded = (length + 3) / 4 * 4;
        if (end - at - 4 < padded) fail("an option is longer than its block");
        use(u16(at), at + 4, length);
        at += 4 + padded;
    }
}

void CaptureReader::addLink(size_t block, size_t size) {
    if (size < INTERFACE_HEAD) fail("an interface block is too short");
    if (u16(block) != hostkit::CaptureWriter::LINK_TYPE) {
        fail("its link type is " + std::to_string(u16(block)) + "; that of a channel is " +
             std::to_string(hostkit::CaptureWriter::LINK_TYPE));
    }
    Link link{1000000};
    options(block + INTERFACE_HEAD, block + size, [&](uint16_t code, size_t at, size_t length) {
        if (code != TIME_RESOLUTION || length != 1) return;
        unsigned const digits = mBytes[at];
        if (digits > 18) fail("it counts time in a unit that is not a power of ten");
        link.ticksPerSecond = 1;
        for (unsigned i = 0; i < digits; ++i)
            link.ticksPerSecond *= 10;
    });
    mLinks.push_back(link);
}

CaptureReader::Record CaptureReader::record(size_t block, size_t size) const {
    if (size < PACKET_HEAD) fail("a packet block is too short");
    Record record;
    record.link = u32(block);
    if (record.link >= mLinks.size()) fail("a packet is of an interface that is not described");
    uint64_t const ticks = static_cast<uint64_t>(u32(block + 4)) << 32 | u32(block + 8);
    uint64_t const rate = mLinks[record.link].ticksPerSecond;
    record.micros =
            ticks / rate * 1000000 + static_cast<uint64_t>(static_cast<double>(ticks % rate) * 1e6 /
                                                           static_cast<double>(rate));
    size_t const length = u32(block + 12);
    size_t const data = block + PACKET_HEAD;
    if (length > size - PACKET_HEAD) fail("a packet is longer than its block");
    auto const begin = mBytes.begin() + static_cast<ptrdiff_t>(data);
    record.bytes.assign(begin, begin + static_cast<ptrdiff_t>(length));
    size_t const behind = data + (length + 3) / 4 * 4;
    options(std::min(behind, block + size), block + size,
            [&](uint16_t code, size_t at, size_t optionLength) {
                if (code != PACKET_FLAGS || optionLength != 4) return;
                uint32_t const direction = u32(at) & 3;
                if (direction == 1) record.direction = Direction::IN;
                if (direction == 2) record.direction = Direction::OUT;
            });
    return record;
}

}  // namespace vesk::tool
