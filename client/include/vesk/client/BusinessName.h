#pragma once

#include <string>

#include <vesk/VeskExport.h>

namespace vesk::client {

/** A business as people write it: TOPIC/BUSINESS. */
struct VESK_EXPORT BusinessName {
    /** Throws std::invalid_argument. Whether there is such a business is for the host to say. */
    static BusinessName parse(std::string const& text);

    std::string toString() const { return topic + "/" + business; }

    std::string topic;
    std::string business;
};

}  // namespace vesk::client
