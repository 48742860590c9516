#pragma once

#include <cstdint>
#include <string>

#include <vesk/hostkit_asio/SocketAccess.h>

namespace vesk::hostkit {

/**
 * Where a byte channel is found:
 *
 *     unix:PATH          a Unix socket
 *     tcp:[HOST:]PORT    a TCP port, of the loopback interface where no host is named
 *     tty:DEVICE[,BAUD]  a serial line, 115200 baud where none are named
 *     dev:PATH           a device that carries bytes as they are, such as a virtual serial port
 *     exec:COMMAND       the stdin and stdout of a shell command, such as exec:ssh board vesk-host
 *     stdio:             this process's own stdin and stdout: the other side of an exec:
 */
struct Endpoint {
    enum class Kind { UNIX, TCP, TTY, DEV, EXEC, STDIO };

    /** Throws std::invalid_argument, which says what is wrong and what would be right. */
    static Endpoint parse(std::string const& text);

    std::string toString() const;

    Kind kind = Kind::UNIX;
    std::string path;                // of the socket or of the device; or the command
    std::string host = "127.0.0.1";  // who wants to be reached from outside has to say so
    uint16_t port = 0;
    unsigned baud = 115200;
    SocketAccess access;  // of a unix: channel that is listened to
};

/** The path of a unix:PATH; throws std::invalid_argument. `option` is named in the error. */
std::string parseUnixPath(std::string const& option, std::string const& text);

}  // namespace vesk::hostkit
