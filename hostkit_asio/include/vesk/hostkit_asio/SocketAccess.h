#pragma once

#include <sys/types.h>

#include <optional>

namespace vesk::hostkit {

/**
 * Who may connect to a Unix socket that is created, beside root. A socket has exactly this mode,
 * whatever the umask, from before anybody can connect.
 */
struct SocketAccess {
    mode_t mode = 0600;          // who may write may connect
    std::optional<gid_t> group;  // of the file; by default as the system has it
};

}  // namespace vesk::hostkit
