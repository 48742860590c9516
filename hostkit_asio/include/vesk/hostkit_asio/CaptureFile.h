#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include <vesk/VeskThreadAnnotations.h>
#include <vesk/hostkit/CaptureWriter.h>
#include <vesk/hostkit_asio/ChannelWatcher.h>
#include <vesk/hostkit_asio/Report.h>

namespace vesk::hostkit {

/**
 * Writes what a channel carries to a file that Wireshark and vesk decode read (pcapng). Each piece
 * is in the file when carried() returns. When the next one would exceed the limit, or the file
 * cannot be written, that is reported once, the file stays as it is, and nothing more is recorded.
 *
 * Threads: as ChannelWatcher; the report may come on either of its threads.
 */
class CaptureFile final : public ChannelWatcher {
public:
    /**
     * Makes the file, or empties it; only its owner may read it, for it holds what clients say.
     * Throws std::runtime_error where it cannot.
     *
     * @param limit       bytes of the file.
     * @param application what the file names as its maker.
     */
    CaptureFile(std::string const& path, uint64_t limit, std::string const& application,
                Report report);
    ~CaptureFile();
    CaptureFile(CaptureFile const&) = delete;
    CaptureFile& operator=(CaptureFile const&) = delete;

    void opened(std::string const& name) override VESK_EXCLUDES(mMutex);
    void closed() override VESK_EXCLUDES(mMutex);
    void carried(FrameText::Direction direction, uint8_t const* bytes, size_t size) override
            VESK_EXCLUDES(mMutex);

private:
    /** Returns why recording ends here; empty where it goes on. */
    std::string append(CaptureWriter::Bytes const& bytes) VESK_REQUIRES(mMutex);
    void reportEnd(std::string const& why);

    std::string const mPath;
    uint64_t const mLimit;
    Report const mReport;
    std::mutex mMutex;
    int const mFile;
    CaptureWriter mWriter VESK_GUARDED_BY(mMutex);
    uint64_t mSize VESK_GUARDED_BY(mMutex) = 0;
    bool mRecords VESK_GUARDED_BY(mMutex) = true;
    bool mUp VESK_GUARDED_BY(mMutex) = false;
};

}  // namespace vesk::hostkit
