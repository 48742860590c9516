#pragma once

#include <chrono>
#include <string>

#include <asio/local/stream_protocol.hpp>

namespace vesk::client {

/**
 * Connects to the socket at `path`, for so long at most: its owner may live and not accept, and
 * then there is no end to wait for. Blocks. Gives asio::error::timed_out in that case.
 */
asio::error_code connectUnix(asio::local::stream_protocol::socket& socket, std::string const& path,
                             std::chrono::milliseconds limit);

}  // namespace vesk::client
