// Writes the captures on which the dissector is tried: one with a record for each frame, and one
// with the same bytes in any pieces. The times are always the same.

#include <fstream>
#include <iomanip>
#include <string>
#include <vector>

#include <vesk/hostkit/CaptureWriter.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/Random.h>

using namespace vesk;
using hostkit::CaptureWriter;
using testkit::FarPeer;
using Bytes = FarPeer::Bytes;
using Direction = hostkit::FrameText::Direction;

namespace {

constexpr uint64_t BEGIN = 1600000000000000;  // microseconds

struct Piece {
    uint64_t millis;
    Direction direction;
    Bytes bytes;
};

// Twice, for the channel is lost after the first part.
using Part = std::vector<Piece>;

Bytes frame(uint8_t type, uint16_t serial, uint16_t msgId, std::string const& data) {
    return FarPeer::encode({2, 1, type, 7, serial, msgId, {data.begin(), data.end()}});
}

Bytes ack(std::vector<FarPeer::Ack> const& entries, uint16_t more = 0) {
    FarPeer::Frame made = FarPeer::ackFrame(entries);
    made.reply = static_cast<uint16_t>(made.reply + more);
    return FarPeer::encode(made);
}

std::vector<Part> traffic() {
    Direction const in = Direction::IN, out = Direction::OUT;
    Bytes cut = frame(2, 9, 209, "never whole");
    cut.resize(15);
    return {{{0, out, frame(2, 0, 201, "hello")},
             {3, in, frame(3, 0, 201, "HELLO")},
             {500, in, ack({{500, 0}})},
             {503, out, ack({{500, 0}})},
             {600, out, frame(2, 1, 202, "")},
             {600, out, FarPeer::encode({1, 13, 2, 8, 2, 203, {1, 2, 3}})},
             {601, in, ack({{1, 1}, {0, 2}})},
             {602, in, FarPeer::encode({9, 1, 2, 7, 1, 1, {}})},
             {603, in, FarPeer::encode({2, 1, 9, 7, 2, 1, {}})},
             {604, in, FarPeer::encode({2, 1, 1, 0, 0, 0, {}})},
             {605, in, ack({{1, 1}}, 1)},
             {606, in, {'g', 'a', 'r', 'b', 'a', 'g', 'e', 'U'}},
             {607, in, frame(3, 3, 202, "after garbage")},
             {608, in, cut},
             {2700, in, frame(2, 4, 1, "after silence")},
             {2800, out, frame(2, 3, 204, "")},
             {5300, in, ack({{0, 3}})}},
            {{6000, out, frame(2, 4, 201, "again")}, {6001, in, frame(3, 5, 201, "AGAIN")}}};
}

/** Joins the neighbours of one direction and cuts what that gives anywhere. */
Part recut(Part const& part, testkit::Random& random) {
    Part pieces;
    for (Piece const& next : part) {
        // A pause stays one, for it says that a frame will not be completed.
        bool const joins = !pieces.empty() && pieces.back().direction == next.direction &&
                           next.millis - pieces.back().millis < 10 && random.below(2) == 0;
        if (!joins) pieces.push_back({next.millis, next.direction, {}});
        for (uint8_t const byte : next.bytes) {
            if (!pieces.back().bytes.empty() && random.below(12) == 0)
                pieces.push_back({next.millis, next.direction, {}});
            pieces.back().bytes.push_back(byte);
        }
    }
    return pieces;
}

void write(std::string const& path, std::vector<Part> const& parts) {
    std::ofstream file(path, std::ios::binary);
    auto const append = [&file](Bytes const& bytes) {
        file.write(reinterpret_cast<char const*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    };
    CaptureWriter writer;
    append(CaptureWriter::begin("a test"));
    for (Part const& part : parts) {
        append(writer.link("unix:/run/peer", BEGIN + part[0].millis * 1000));
        for (auto const& [millis, direction, bytes] : part)
            append(writer.record(direction, BEGIN + millis * 1000, bytes.data(), bytes.size()));
    }
}

/** For text2pcap, which makes a TCP stream of it. */
void writeText(std::string const& path, Part const& part) {
    std::ofstream file(path);
    for (auto const& [millis, direction, bytes] : part) {
        file << (direction == Direction::IN ? "I " : "O ") << 1600000000 + millis / 1000 << '.'
             << std::setfill('0') << std::dec << std::setw(3) << millis % 1000 << "\n0000";
        for (uint8_t const byte : bytes)
            file << ' ' << std::hex << std::setw(2) << unsigned{byte};
        file << std::dec << '\n';
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    std::string const folder = argv[1];
    write(folder + "/frames.pcapng", traffic());
    testkit::Random random(1);
    std::vector<Part> pieces;
    for (Part const& part : traffic())
        pieces.push_back(recut(part, random));
    write(folder + "/pieces.pcapng", pieces);
    writeText(folder + "/tcp.txt", pieces[0]);
}
