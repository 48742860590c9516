#pragma once

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <quillex/SystemClock.h>

namespace vesk::simulation {

template <typename... Parts>
std::string text(Parts const&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

/** Ends the process at the first difference: the library may be in no state to be taken down. */
inline void require(bool holds, std::string const& otherwise) {
    if (holds) return;
    std::cerr << "failed at " << quillex::SystemClock::uptimeMillis() << " ms: " << otherwise
              << std::endl;
    std::abort();
}

/** The log lines and notifications that are still to come, in their order. */
class Trace {
public:
    void expect(std::string line) { mExpected.push_back({std::move(line)}); }

    /** These come in an order that nobody promises. */
    void expectAll(std::vector<std::string> lines) {
        if (!lines.empty()) mExpected.push_back(std::move(lines));
    }

    void happened(std::string const& line) {
        require(!mExpected.empty(), "unexpected: " + line);
        auto& next = mExpected.front();
        auto const found = std::find(next.begin(), next.end(), line);
        require(found != next.end(), line + " instead of: " + next.front());
        next.erase(found);
        if (next.empty()) mExpected.pop_front();
    }

    void requireNothingLeft() const {
        require(mExpected.empty(),
                mExpected.empty() ? "" : "missing: " + mExpected.front().front());
    }

private:
    std::deque<std::vector<std::string>> mExpected;
};

}  // namespace vesk::simulation
