#include "SerialLine.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vesk::hostkit {

bool SerialLine::take(int fd, unsigned baud) {
    release();
    termios settings{};
    if (::tcgetattr(fd, &settings) != 0) return false;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        errno = EBUSY;
        return false;
    }
    ::ioctl(fd, TIOCEXCL);
    mBefore = settings;
    mFd = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    // Raw bytes, no modem lines.
    ::cfmakeraw(&settings);
    settings.c_cflag |= CREAD | CLOCAL;
    if (mFd >= 0 && ::cfsetspeed(&settings, baud) == 0 && ::tcsetattr(fd, TCSANOW, &settings) == 0)
        return true;
    int const why = errno;
    release();
    errno = why;
    return false;
}

void SerialLine::release() {
    if (mFd < 0) return;
    ::tcsetattr(mFd, TCSANOW, &mBefore);
    ::ioctl(mFd, TIOCNXCL);
    ::flock(mFd, LOCK_UN);
    ::close(std::exchange(mFd, -1));
}

}  // namespace vesk::hostkit
