#include "StatusCommand.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>

#include <vesk/hostkit/FrameText.h>
#include <asio/io_context.hpp>

#include "EndSignals.h"
#include "Errors.h"

namespace vesk::tool {

namespace {

// Takes what stands on the terminal away, and goes to its first line.
constexpr char const* CLEAR_SCREEN = "\x1b[H\x1b[2J";

// What a terminal would act on is none of the host's lines, and in no JSON.
std::string escaped(std::string const& text) {
    std::string safe;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        safe += hostkit::FrameText::escape(line) + '\n';
    return safe;
}

std::string checkedJson(std::string const& text) {
    auto const isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; };
    if (std::none_of(text.begin(), text.end(), isControl)) return text + '\n';
    throw std::runtime_error("the host's status is no JSON object in one line");
}

void print(client::Client& host, StatusOptions const& options) {
    bool const json = options.json;
    std::string const text =
            host.status(json ? client::StatusFormat::JSON : client::StatusFormat::TEXT);
    bool const isScreen = options.watch && !json && ::isatty(STDOUT_FILENO) != 0;
    std::printf("%s%s", isScreen ? CLEAR_SCREEN : "",
                (json ? checkedJson(text) : escaped(text)).c_str());
    flushOutput();
}

/** Returns whether nobody has asked for the end meanwhile. */
bool pauseFor(asio::io_context& io, std::chrono::milliseconds time) {
    io.restart();
    io.run_for(time);
    return !io.stopped();
}

}  // namespace

int runStatus(StatusOptions const& options) {
    asio::io_context io;
    EndSignals signals(io);
    signals.async_wait([&io](asio::error_code const&, int) { io.stop(); });
    client::Client host(options.address.path(), options.address.options());
    do {
        print(host, options);
    } while (options.watch && pauseFor(io, std::chrono::seconds(1)));
    return EXIT_OK;
}

}  // namespace vesk::tool
