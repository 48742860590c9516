#pragma once

#include <cstddef>
#include <string>

namespace vesk::tool {

/** Why requests got no reply, as far as their host knows. */
struct NoReply {
    /**
     * @param status the host's, as a JSON object.
     * @param business TOPIC/BUSINESS, which was asked.
     * @param lost how many requests got no reply.
     * @param waitedMillis how long each was waited for.
     */
    static NoReply explain(std::string const& status, std::string const& business, size_t lost,
                           size_t waitedMillis);

    int exitStatus;
    std::string reason;
};

}  // namespace vesk::tool
