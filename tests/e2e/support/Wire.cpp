#include "support/Wire.h"

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>

#include <stdexcept>

#include <asio/write.hpp>

namespace vesk::e2e {

Wire::Wire(WireEnd a, WireEnd b) : mA(std::move(a)), mB(std::move(b)) {
    carry(std::make_shared<Direction>(Direction{mA, mB, {}}));
    carry(std::make_shared<Direction>(Direction{mB, mA, {}}));
}

void Wire::carry(std::shared_ptr<Direction> const& direction) {
    direction->from->async_read_some(
            asio::buffer(direction->bytes),
            [direction](asio::error_code const& readError, size_t size) {
                if (readError) return;
                asio::async_write(*direction->to, asio::buffer(direction->bytes, size),
                                  [direction](asio::error_code const& writeError, size_t) {
                                      if (!writeError) carry(direction);
                                  });
            });
}

void Wire::insertTowardsB(std::vector<uint8_t> const& bytes) {
    asio::write(*mB, asio::buffer(bytes));
}

void Wire::cut() {
    mA->close();
    mB->close();
}

Socket::Socket(asio::io_context& io, std::string const& path) : mListener(io, path) {
    mListener.acceptor().async_accept([this, &io](asio::error_code const& error, auto socket) {
        if (error) return;
        mEnd = std::make_shared<asio::posix::stream_descriptor>(io, socket.release());
    });
}

PseudoTerminal::PseudoTerminal(asio::io_context& io) {
    int const master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
        throw std::runtime_error("this machine has no pseudo-terminals");
    }
    std::array<char, 128> name{};
    if (::ptsname_r(master, name.data(), name.size()) != 0) throw std::runtime_error("ptsname_r");
    mDevice = name.data();
    mEnd = std::make_shared<asio::posix::stream_descriptor>(io, master);
    int const slave = ::open(name.data(), O_RDWR | O_NOCTTY);
    termios settings{};
    ::tcgetattr(slave, &settings);
    ::cfmakeraw(&settings);
    ::tcsetattr(slave, TCSANOW, &settings);
    mKeeper = std::make_shared<asio::posix::stream_descriptor>(io, slave);
}

}  // namespace vesk::e2e
