#include <vesk/client/BusinessName.h>

#include <stdexcept>

namespace vesk::client {

BusinessName BusinessName::parse(std::string const& text) {
    size_t const slash = text.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == text.size()) {
        throw std::invalid_argument("'" + text +
                                    "' is no business; write TOPIC/BUSINESS, like test/test");
    }
    BusinessName name{text.substr(0, slash), text.substr(slash + 1)};
    if (name.topic.size() > 255 || name.business.size() > 255) {
        throw std::invalid_argument(
                "the names in '" + text.substr(0, 40) +
                "...' are too long; a topic and a business have 255 bytes at most");
    }
    return name;
}

}  // namespace vesk::client
