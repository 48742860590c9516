#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vesk::testkit {

/**
 * Records the library's log lines for as long as it lives; the log is silent again afterwards.
 *
 * Threads: lines may be written, and looked up, on any threads. A line that another thread is just
 *          writing when the object ends is dropped.
 * Failure: the log has one sink, so the constructor throws std::logic_error while another
 *          CapturedLog lives.
 */
class CapturedLog {
public:
    struct Line {
        std::string tag;
        std::string message;
    };

    CapturedLog();
    ~CapturedLog();
    CapturedLog(CapturedLog const&) = delete;
    CapturedLog& operator=(CapturedLog const&) = delete;

    /** A copy of the lines recorded since the last clear(), oldest first. */
    std::vector<Line> lines() const;

    /** The messages among lines() that have this tag. */
    std::vector<std::string> messages(std::string const& tag) const;

    /** How many lines have exactly this tag and message. */
    size_t count(std::string const& tag, std::string const& message) const;
    bool contains(std::string const& tag, std::string const& message) const;

    void clear();

private:
    static void sink(char const* tag, char const* message);

    std::vector<Line> mLines;
};

}  // namespace vesk::testkit
