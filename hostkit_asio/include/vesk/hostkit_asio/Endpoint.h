#pragma once

#include <cstdint>
#include <string>

namespace vesk::hostkit {

/** Where a byte channel is found: unix:PATH, tcp:[HOST:]PORT or tty:DEVICE[,BAUD]. */
struct Endpoint {
    enum class Kind { UNIX, TCP, TTY };

    /** Throws std::invalid_argument, which says what was wrong with the text and what would be right. */
    static Endpoint parse(std::string const& text);

    std::string toString() const;

    Kind kind = Kind::UNIX;
    std::string path;                // of the socket or of the device
    std::string host = "127.0.0.1";  // who wants to be reached from outside has to say so
    uint16_t port = 0;
    unsigned baud = 115200;
};

/** The path of a unix:PATH; throws std::invalid_argument. `option` is named in the error. */
std::string parseUnixPath(std::string const& option, std::string const& text);

}  // namespace vesk::hostkit
