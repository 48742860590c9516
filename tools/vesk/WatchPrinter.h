#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <vesk/client/ClientProtocol.h>

namespace vesk::tool {

/**
 * Prints what vesk watch learns: each change as it comes, and the counters when they are others
 * than before. Throws std::runtime_error where stdout takes no more.
 *
 * Threads: one caller at a time.
 */
class WatchPrinter {
public:
    enum class Form {
        LINES,
        SCREEN,  // of a terminal: the counters stay below the changes, where they are rewritten
        JSON     // one object in a line
    };

    explicit WatchPrinter(Form form) : mForm(form) {}

    /** @param what "topic" or "provider". */
    void change(std::string const& what, std::string const& name, bool added);

    /** What the host says. */
    void notice(std::string const& text);

    void counters(client::Counters const& counters);

    /** Somebody else is about to print: what stands on the screen stays there. */
    void leave() { mDrawn = 0; }

private:
    void print(std::string const& line);
    void erase();
    void draw();

    Form const mForm;
    std::vector<std::string> mCounters;  // in words, or as one JSON object
    size_t mDrawn = 0;                   // lines of the screen that hold them
};

}  // namespace vesk::tool
