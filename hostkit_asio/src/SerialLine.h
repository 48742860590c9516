#pragma once

#include <termios.h>

namespace vesk::hostkit {

/**
 * A serial line that is ours alone, as long as this object lives; then it gets back the settings
 * that it had.
 *
 * Who opens it meanwhile is told that it is busy: root only by a program that locks it too, as
 * another host does.
 */
class SerialLine {
public:
    SerialLine() = default;
    SerialLine(SerialLine const&) = delete;
    SerialLine& operator=(SerialLine const&) = delete;
    ~SerialLine() { release(); }

    /**
     * Locks the line of an open descriptor, which stays with the caller, and sets it up for raw
     * bytes. On failure, EBUSY where somebody else has it, errno says why and nothing is changed.
     */
    bool take(int fd, unsigned baud);

    void release();

private:
    int mFd = -1;  // of our own: the settings are restored after the other one has been closed
    termios mBefore{};
};

}  // namespace vesk::hostkit
