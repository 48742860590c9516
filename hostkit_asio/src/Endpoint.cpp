#include <vesk/hostkit_asio/Endpoint.h>

#include <sys/un.h>
#include <termios.h>

#include <charconv>
#include <optional>
#include <stdexcept>

namespace vesk::hostkit {

namespace {

constexpr size_t MAX_UNIX_PATH = sizeof(sockaddr_un::sun_path) - 1;

std::optional<unsigned> parseNumber(std::string const& text) {
    unsigned value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string checkedUnixPath(std::string const& path, std::string const& text) {
    if (path.empty()) {
        throw std::invalid_argument("'" + text + "' names no socket; write unix:PATH");
    }
    if (path.size() > MAX_UNIX_PATH) {
        throw std::invalid_argument("the socket path in '" + text + "' has " +
                                    std::to_string(path.size()) + " bytes; the system takes " +
                                    std::to_string(MAX_UNIX_PATH) +
                                    " at most, so choose a shorter one");
    }
    return path;
}

void parseTcp(std::string const& rest, std::string const& text, Endpoint& endpoint) {
    size_t const colon = rest.rfind(':');
    std::optional<unsigned> const port =
            parseNumber(colon == std::string::npos ? rest : rest.substr(colon + 1));
    if (!port || *port == 0 || *port > 65535) {
        throw std::invalid_argument("'" + text +
                                    "' names no port; write tcp:HOST:PORT or, for the loopback " +
                                    "interface, tcp:PORT, with a port from 1 to 65535");
    }
    endpoint.port = static_cast<uint16_t>(*port);
    if (colon == std::string::npos || colon == 0) return;
    endpoint.host = rest.substr(0, colon);
    if (endpoint.host.front() == '[' && endpoint.host.back() == ']') {
        endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    }
}

void parseTty(std::string const& rest, std::string const& text, Endpoint& endpoint) {
    size_t const comma = rest.find(',');
    endpoint.path = rest.substr(0, comma);
    if (endpoint.path.empty()) {
        throw std::invalid_argument("'" + text +
                                    "' names no device; write tty:DEVICE or tty:DEVICE,BAUD");
    }
    if (comma == std::string::npos) return;
    std::optional<unsigned> const baud = parseNumber(rest.substr(comma + 1));
    termios probe{};
    if (!baud || *baud == 0 || cfsetspeed(&probe, *baud) != 0) {
        throw std::invalid_argument(
                "'" + rest.substr(comma + 1) + "' in '" + text +
                "' is no speed of a serial line; write one like 9600, 115200 or 921600");
    }
    endpoint.baud = *baud;
}

bool startsWith(std::string const& text, char const* prefix) {
    return text.rfind(prefix, 0) == 0;
}

}  // namespace

Endpoint Endpoint::parse(std::string const& text) {
    Endpoint endpoint;
    if (startsWith(text, "unix:")) {
        endpoint.path = checkedUnixPath(text.substr(5), text);
    } else if (startsWith(text, "tcp:")) {
        endpoint.kind = Kind::TCP;
        parseTcp(text.substr(4), text, endpoint);
    } else if (startsWith(text, "tty:")) {
        endpoint.kind = Kind::TTY;
        parseTty(text.substr(4), text, endpoint);
    } else if (startsWith(text, "dev:") && text.size() > 4) {
        endpoint.kind = Kind::DEV;
        endpoint.path = text.substr(4);
    } else if (startsWith(text, "exec:") && text.size() > 5) {
        endpoint.kind = Kind::EXEC;
        endpoint.path = text.substr(5);
    } else if (text == "stdio:") {
        endpoint.kind = Kind::STDIO;
    } else {
        throw std::invalid_argument("'" + text +
                                    "' is no channel; write unix:PATH, tcp:HOST:PORT, "
                                    "tty:DEVICE[,BAUD], dev:PATH, exec:COMMAND or stdio:");
    }
    return endpoint;
}

std::string Endpoint::toString() const {
    switch (kind) {
        case Kind::TCP:
            return "tcp:" + host + ":" + std::to_string(port);
        case Kind::TTY:
            return "tty:" + path + "," + std::to_string(baud);
        case Kind::DEV:
            return "dev:" + path;
        case Kind::EXEC:
            return "exec:" + path;
        case Kind::STDIO:
            return "stdio:";
        case Kind::UNIX:
            break;
    }
    return "unix:" + path;
}

std::string parseUnixPath(std::string const& option, std::string const& text) {
    if (!startsWith(text, "unix:")) {
        throw std::invalid_argument(option + " '" + text +
                                    "' is no client socket; write unix:PATH");
    }
    return checkedUnixPath(text.substr(5), text);
}

}  // namespace vesk::hostkit
