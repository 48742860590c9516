#pragma once

#include <cstdint>
#include <string>

namespace vesk::hostkit {

/** Collects the members of one JSON object, in the order in which they are added. */
class JsonObject {
public:
    /** A number. */
    JsonObject& add(char const* name, uint64_t value) {
        return addRaw(name, std::to_string(value));
    }

    /** Anything that is JSON already: an object, a list, true, null. */
    JsonObject& addRaw(char const* name, std::string const& value) {
        mText += (mText.empty() ? "\"" : ",\"") + std::string(name) + "\":" + value;
        return *this;
    }

    std::string text() const { return '{' + mText + '}'; }

private:
    std::string mText;
};

}  // namespace vesk::hostkit
