#include "DecodeCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "CaptureReader.h"
#include "Errors.h"
#include "HexText.h"
#include "Output.h"
#include "StreamDecoder.h"

namespace vesk::tool {

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t SILENCE_MS = 1000;  // as long as a host waits for the rest of a frame
constexpr std::chrono::milliseconds FOLLOW_POLL{50};

/** The bytes of a file, a pipe or a terminal. */
class Input {
public:
    explicit Input(DecodeOptions const& options) : mFollow(options.follow) {
        if (options.file == "-") return;
        mFd = ::open(options.file.c_str(), O_RDONLY | O_CLOEXEC);
        if (mFd < 0) {
            throw std::runtime_error("cannot open '" + options.file + "': " + std::strerror(errno));
        }
    }
    ~Input() {
        if (mFd != STDIN_FILENO) ::close(mFd);
    }
    Input(Input const&) = delete;
    Input& operator=(Input const&) = delete;

    bool isTerminal() const { return ::isatty(mFd) != 0; }

    /** What there is, as soon as there is something; empty after a silence while following. */
    Bytes read() {
        auto const begin = std::chrono::steady_clock::now();
        for (;;) {
            pollfd readable{mFd, POLLIN, 0};
            if (mFollow && ::poll(&readable, 1, static_cast<int>(SILENCE_MS)) == 0) return {};
            ssize_t const size = ::read(mFd, mChunk.data(), mChunk.size());
            if (size < 0 && errno == EINTR) continue;
            if (size < 0) {
                throw std::runtime_error(std::string("cannot read: ") + std::strerror(errno));
            }
            mEnded = size == 0 && !(mFollow && isFile());
            if (size > 0 || mEnded) return {mChunk.data(), mChunk.data() + size};
            if (std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(SILENCE_MS)) {
                return {};
            }
            std::this_thread::sleep_for(FOLLOW_POLL);  // a file says nothing of its growth
        }
    }

    bool ended() const { return mEnded; }

private:
    bool isFile() const {
        struct stat info {};
        return ::fstat(mFd, &info) == 0 && S_ISREG(info.st_mode);
    }

    bool const mFollow;
    int mFd = STDIN_FILENO;
    bool mEnded = false;
    std::array<uint8_t, size_t{64} * 1024> mChunk{};
};

/** What the input turns out to be decides where its bytes go. */
class Decoder {
public:
    explicit Decoder(DecodeOptions const& options) : mOptions(options) {}

    void feed(Bytes const& bytes);
    void silence();
    void finish();
    int status() const;

private:
    using Key = std::pair<uint64_t, int>;  // which opening of the channel, which direction

    struct Stream {
        std::unique_ptr<StreamDecoder> decoder;
        uint64_t lastMillis = 0;
    };

    Stream& stream(Key const& key);
    void feedText(Bytes const& bytes);
    void feedCapture(Bytes const& bytes);
    void feedRecord(CaptureReader::Record const& record);
    void feedRaw(Bytes const& bytes) { stream({}).decoder->feed(bytes.data(), bytes.size(), {}); }

    DecodeOptions const mOptions;
    VeskConfig const mCatalogue;
    HexText mHex;
    std::string mLine;  // of hex text, up to now
    bool mIsKnown = false;
    Bytes mBeginning;  // until it is known what this is
    std::optional<CaptureReader> mCapture;
    std::optional<uint64_t> mFirstMicros;
    std::map<Key, Stream> mStreams;
};

Decoder::Stream& Decoder::stream(Key const& key) {
    Stream& stream = mStreams[key];
    if (!stream.decoder) {
        stream.decoder = std::make_unique<StreamDecoder>(
                mCatalogue, mOptions.json ? StreamDecoder::Form::JSON : StreamDecoder::Form::TEXT,
                [](std::string const& line) { std::puts(line.c_str()); });
    }
    return stream;
}

void Decoder::feed(Bytes const& bytes) {
    if (mOptions.hex) return feedText(bytes);
    if (mIsKnown) return mCapture ? feedCapture(bytes) : feedRaw(bytes);
    mBeginning.insert(mBeginning.end(), bytes.begin(), bytes.end());
    bool const mayBeCapture = CaptureReader::mayBegin(mBeginning);
    if (mayBeCapture && mBeginning.size() < 4) return;
    mIsKnown = true;
    if (mayBeCapture) mCapture.emplace();
    feed(std::exchange(mBeginning, {}));
}

void Decoder::feedText(Bytes const& bytes) {
    for (uint8_t const byte : bytes) {
        if (byte != '\n') {
            mLine += static_cast<char>(byte);
        } else {
            feedRaw(mHex.read(std::exchange(mLine, {})));
        }
    }
}

void Decoder::feedCapture(Bytes const& bytes) {
    mCapture->feed(bytes.data(), bytes.size());
    while (auto const record = mCapture->next())
        feedRecord(*record);
}

void Decoder::feedRecord(CaptureReader::Record const& record) {
    if (!mFirstMicros) mFirstMicros = record.micros;
    uint64_t const millis = (record.micros - std::min(record.micros, *mFirstMicros)) / 1000;
    Stream& from =
            stream({record.link, record.direction ? static_cast<int>(*record.direction) : 2});
    // What the host that was recorded did: it gave the frame up.
    if (from.decoder->incomplete() && millis - from.lastMillis >= SILENCE_MS) {
        from.decoder->silence();
    }
    from.lastMillis = millis;
    from.decoder->feed(record.bytes.data(), record.bytes.size(), {millis, record.direction});
}

void Decoder::silence() {
    if (mCapture) return;  // it has its own times
    for (auto& [key, stream] : mStreams) {
        if (stream.decoder->incomplete()) stream.decoder->silence();
    }
}

void Decoder::finish() {
    if (!mLine.empty()) feedText({'\n'});
    if (!mBeginning.empty()) feedRaw(std::exchange(mBeginning, {}));
    for (auto& [key, stream] : mStreams)
        stream.decoder->finish();
    if (mCapture && mCapture->incomplete()) say("the capture ends in the middle of a block");
}

int Decoder::status() const {
    uint64_t frames = 0, skipped = 0, ignored = 0;
    for (auto const& [key, stream] : mStreams) {
        frames += stream.decoder->frames();
        skipped += stream.decoder->skipped();
        ignored += stream.decoder->ignored();
    }
    if (skipped == 0 && ignored == 0) return EXIT_OK;
    say(std::to_string(frames) + " frames, of which a peer ignores " + std::to_string(ignored) +
        "; " + std::to_string(skipped) + " bytes belong to no frame");
    return EXIT_FAILED;
}

}  // namespace

int runDecode(DecodeOptions const& options) {
    Input input(options);
    Decoder decoder(options);
    if (input.isTerminal()) say("reading from the terminal; Ctrl-D ends it");
    while (!input.ended()) {
        Bytes const bytes = input.read();
        bytes.empty() && !input.ended() ? decoder.silence() : decoder.feed(bytes);
        flushOutput();
    }
    decoder.finish();
    flushOutput();
    return decoder.status();
}

}  // namespace vesk::tool
