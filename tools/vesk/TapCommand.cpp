#include "TapCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include <vesk/hostkit/CaptureWriter.h>
#include <vesk/hostkit/FrameReader.h>
#include <vesk/hostkit/FrameText.h>
#include <asio/io_context.hpp>

#include "EndSignals.h"
#include "Errors.h"
#include "TapFilter.h"

namespace vesk::tool {

namespace {

using hostkit::CaptureWriter;
using hostkit::FrameReader;
using hostkit::FrameText;
using Direction = FrameText::Direction;

/** Where the frames go. Its functions throw std::runtime_error where they cannot. */
class Sink {
public:
    virtual ~Sink() = default;
    virtual void frame(Direction direction, uint64_t micros, VeskFrame const& frame) = 0;
    /** So many bytes have come in that belong to no frame. */
    virtual void skipped(uint64_t micros, uint64_t bytes) = 0;
};

/** Prints each frame with the time since the first one. */
class Printer final : public Sink {
public:
    Printer(VeskConfig const& catalogue, bool json) : mJson(json), mText(catalogue) {}

    void frame(Direction direction, uint64_t micros, VeskFrame const& frame) override {
        FrameText::Prefix const prefix = prefixOf(direction, micros);
        print(mJson ? mText.json(frame, prefix) : mText.line(frame, prefix));
    }

    void skipped(uint64_t micros, uint64_t bytes) override {
        FrameText::Prefix const prefix = prefixOf(Direction::IN, micros);
        std::string const count = std::to_string(bytes);
        print(mJson ? "{\"ms\":" + std::to_string(*prefix.millis) +
                              ",\"direction\":\"in\",\"skipped\":" + count + '}'
                    : FrameText::prefix(prefix) + count + " bytes belong to no frame");
    }

private:
    FrameText::Prefix prefixOf(Direction direction, uint64_t micros) {
        if (!mFirst) mFirst = micros;
        return {(micros - std::min(micros, *mFirst)) / 1000, direction};
    }

    static void print(std::string const& line) {
        std::puts(line.c_str());
        flushOutput();
    }

    bool const mJson;
    FrameText const mText;
    std::optional<uint64_t> mFirst;
};

/** Writes a capture that is whole behind each frame. */
class Recorder final : public Sink {
public:
    Recorder(std::string const& file, std::string const& link) : mName(file), mLink(link) {
        if (file != "-") {
            mFile = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                           S_IRUSR | S_IWUSR);
        }
        if (mFile < 0) fail();
        write(CaptureWriter::begin("vesk tap " VESK_VERSION));
    }
    ~Recorder() override {
        if (mFile > STDERR_FILENO) ::close(mFile);
    }
    Recorder(Recorder const&) = delete;
    Recorder& operator=(Recorder const&) = delete;

    void frame(Direction direction, uint64_t micros, VeskFrame const& frame) override {
        CaptureWriter::Bytes bytes, record;
        if (!std::exchange(mOpened, true)) record = mWriter.link(mLink, micros);
        frame.serialze(bytes);
        bytes = mWriter.record(direction, micros, bytes.data(), bytes.size());
        record.insert(record.end(), bytes.begin(), bytes.end());
        write(record);
    }

    void skipped(uint64_t /*micros*/, uint64_t /*bytes*/) override {}  // a capture holds bytes

private:
    void write(CaptureWriter::Bytes const& bytes) {
        for (size_t written = 0; written < bytes.size();) {
            ssize_t const taken = ::write(mFile, &bytes[written], bytes.size() - written);
            if (taken < 0 && errno != EINTR) fail();
            if (taken > 0) written += static_cast<size_t>(taken);
        }
    }

    [[noreturn]] void fail() const {
        throw std::runtime_error("cannot write the capture '" + mName +
                                 "': " + std::strerror(errno));
    }

    std::string const mName;
    std::string const mLink;
    int mFile = STDOUT_FILENO;
    CaptureWriter mWriter;
    bool mOpened = false;
};

std::unique_ptr<Sink> makeSink(TapOptions const& options, VeskConfig const& catalogue) {
    if (options.file.empty()) return std::make_unique<Printer>(catalogue, options.json);
    return std::make_unique<Recorder>(options.file, "unix:" + options.address.path());
}

/** Shows the frames on the client's thread; what this thread asks the host stands in run(). */
class Tapping {
public:
    explicit Tapping(TapOptions const& options)
        : mFilter(options.filters, mCatalogue),
          mSink(makeSink(options, mCatalogue)),
          mHost(options.address.path(), withLost(options.address)) {}

    int run();

private:
    FrameReader reader(Direction direction) {
        return {mCatalogue, [this, direction](auto const& frame) {
                    if (!mFilter.fits(direction, *frame)) return;
                    mSink->frame(direction, mMicros, *frame);
                    ++mShown;
                }};
    }

    client::Client::Options withLost(HostAddress const& address) {
        client::Client::Options options = address.options();
        options.onLost = [this](std::string const& reason) { fail(reason); };
        return options;
    }

    void tapped(client::TappedMessage const& message);
    void skipped(client::SkippedMessage const& message);
    void fail(std::string const& reason);

    asio::io_context mIo;
    std::atomic<int> mStatus{EXIT_OK};
    VeskConfig const mCatalogue;
    TapFilter const mFilter;
    std::unique_ptr<Sink> const mSink;
    uint64_t mMicros = 0;  // of the message that is being read
    std::atomic<uint64_t> mShown{0};
    std::atomic<uint64_t> mSkipped{0};  // bytes
    FrameReader mIn = reader(Direction::IN);
    FrameReader mOut = reader(Direction::OUT);
    client::Client mHost;
};

int Tapping::run() {
    EndSignals signals(mIo);
    signals.async_wait([this](asio::error_code const&, int) { mIo.stop(); });
    mHost.tap([this](client::TappedMessage const& message) { tapped(message); },
              [this](client::SkippedMessage const& message) { skipped(message); });
    mHost.query();  // its answer tells that the tap is open
    say("tapping; Ctrl-C ends it");
    mIo.run();
    if (mStatus != EXIT_OK) return mStatus;
    uint64_t const missed = mHost.untap();
    std::string line =
            std::to_string(mShown) + " frames shown; " + std::to_string(missed) + " missed";
    if (missed > 0) line += ", because this command was slower than the channel";
    if (mSkipped > 0) line += "; " + std::to_string(mSkipped) + " bytes belong to no frame";
    say(line);
    return mStatus;
}

void Tapping::tapped(client::TappedMessage const& message) {
    if (mStatus != EXIT_OK) return;
    mMicros = message.micros;
    try {
        (message.out ? mOut : mIn).feed(message.bytes.data(), message.bytes.size());
    } catch (std::runtime_error const& error) {
        fail(error.what());
    }
}

void Tapping::skipped(client::SkippedMessage const& message) {
    mSkipped += message.bytes;
    if (mStatus != EXIT_OK || !mFilter.fitsSkipped()) return;
    try {
        mSink->skipped(message.micros, message.bytes);
    } catch (std::runtime_error const& error) {
        fail(error.what());
    }
}

void Tapping::fail(std::string const& reason) {
    if (mStatus.exchange(EXIT_FAILED) == EXIT_OK) say(reason);
    mIo.stop();
}

}  // namespace

int runTap(TapOptions const& options) {
    return Tapping(options).run();
}

}  // namespace vesk::tool
