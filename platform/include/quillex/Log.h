#pragma once

namespace quillex {

/** Host stand-in for the device's debug log: silent unless a sink is set. */
class Log {
public:
    using Sink = void (*)(char const* tag, char const* message);

    /** Writes one line at debug level. Any thread. */
    static void d(char const* tag, char const* message);

    /**
     * Host only: sends every later line to `sink`; null makes the log silent again. The sink is
     * called on the logging thread, by several threads at once and under locks of the caller's:
     * it must not call the library that logs.
     */
    static void setSink(Sink sink);

    /** Host only: whether there is no sink, so that a line need not be made at all. Any thread. */
    static bool isSilent();
};

}  // namespace quillex
