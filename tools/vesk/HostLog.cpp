#include "HostLog.h"

#include "Output.h"

namespace vesk::tool {

void HostLog::say(std::string const& line) {
    if (mKinds.empty()) {
        mTimer.expires_after(std::chrono::seconds(1));
        mTimer.async_wait([this](asio::error_code const& error) {
            if (!error) sumUp();
        });
    }
    Kind& kind = mKinds[line.substr(0, line.find_first_of("0123456789'"))];
    if (kind.count++ < LINES) return tool::say(line);
    kind.last = line;
}

void HostLog::sumUp() {
    for (auto const& [words, kind] : mKinds) {
        if (kind.count <= LINES) continue;
        tool::say(std::to_string(kind.count - LINES) +
                  " more lines like this one within a second: " + kind.last);
    }
    mKinds.clear();
}

}  // namespace vesk::tool
