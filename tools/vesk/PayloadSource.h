#pragma once

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include <vesk/client/ClientProtocol.h>

#include "CallCommand.h"
#include "Errors.h"

namespace vesk::tool {

/** Makes the payload of each request, as the options of vesk call ask. */
class PayloadSource {
public:
    /** Reads the payload; throws UsageError where there is none or it is too long. */
    explicit PayloadSource(CallOptions const& options)
        : mRandomSize(options.randomSize),
          mReadsLines(options.lines),
          mRandom(std::random_device()()) {
        if (mReadsLines) {
            askPerson("one request a line");
        } else if (mRandomSize) {
            checkSize(*mRandomSize, "--random-size");
        } else if (options.data) {
            mFixed.assign(options.data->begin(), options.data->end());
            checkSize(mFixed.size(), "--data");
        } else if (!options.file.empty() && options.file != "-") {
            std::unique_ptr<FILE, int (*)(FILE*)> const file(std::fopen(options.file.c_str(), "rb"),
                                                             &std::fclose);
            read(file.get(), "'" + options.file + "'");
        } else {
            askPerson("the payload, and Ctrl-D behind it");
            read(stdin, "stdin");
        }
    }

    /** Whether all lines have been taken, as far as that is known without waiting. */
    bool atEnd() { return hasLine() && mText.empty(); }

    /** Whether next() has a line, or the end, without waiting for it. */
    bool hasLine() {
        pollfd waiting{STDIN_FILENO, POLLIN, 0};
        while (!hasWholeLine() && !mEnded && ::poll(&waiting, 1, 0) > 0)
            readMore();
        return hasWholeLine() || mEnded;
    }

    client::Bytes next() {
        if (mReadsLines) return nextLine();
        if (!mRandomSize) return mFixed;
        // As many short ones as long ones, on a scale of powers of two.
        double const scale = std::uniform_real_distribution<>(0, 1)(mRandom);
        double const size = std::pow(static_cast<double>(*mRandomSize) + 2, scale) - 1;
        client::Bytes bytes(std::min(static_cast<size_t>(size), *mRandomSize));
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(mRandom());
        return bytes;
    }

private:
    bool hasWholeLine() const { return mText.find('\n') != std::string::npos; }

    void readMore() {
        char bytes[4096];
        ssize_t const count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count < 0 && errno == EINTR) return;
        mEnded = count <= 0;
        if (!mEnded) mText.append(bytes, static_cast<size_t>(count));
        if (!hasWholeLine()) checkSize(mText.size(), "a line of stdin");
    }

    client::Bytes nextLine() {
        size_t const end = std::min(mText.find('\n'), mText.size());
        client::Bytes line(mText.begin(), mText.begin() + static_cast<std::ptrdiff_t>(end));
        mText.erase(0, end + 1);
        checkSize(line.size(), "a line of stdin");
        return line;
    }

    static void askPerson(char const* what) {
        if (::isatty(STDIN_FILENO) != 0) say(std::string("reading stdin: type ") + what);
    }

    // Reads one byte more than may be, to tell the longest payload from one that is too long.
    void read(FILE* in, std::string const& name) {
        mFixed.resize(MAX_PAYLOAD_SIZE + 1);
        if (in) mFixed.resize(std::fread(mFixed.data(), 1, mFixed.size(), in));
        if (!in || std::ferror(in) != 0) {
            throw UsageError("cannot read the payload from " + name + ": " + std::strerror(errno) +
                             "; give it with --data TEXT, --file FILE or on stdin");
        }
        if (mFixed.size() > MAX_PAYLOAD_SIZE) {
            throw UsageError("the payload from " + name + " is longer than " +
                             std::to_string(MAX_PAYLOAD_SIZE) + " bytes, which is all that one " +
                             "message carries; send it in parts");
        }
    }

    static void checkSize(size_t size, std::string const& name) {
        if (size > MAX_PAYLOAD_SIZE) {
            throw UsageError("the payload of " + name + " has " + std::to_string(size) +
                             " bytes; one message carries " + std::to_string(MAX_PAYLOAD_SIZE) +
                             " at most, so send it in parts");
        }
    }

    std::optional<size_t> const mRandomSize;
    bool const mReadsLines;
    std::minstd_rand mRandom;
    std::string mText;  // of stdin, that is not sent yet
    bool mEnded = false;
    client::Bytes mFixed;
};

}  // namespace vesk::tool
