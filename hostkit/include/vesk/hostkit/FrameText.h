#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <vesk/VeskConfig.h>
#include <vesk/VeskExport.h>
#include <vesk/VeskFrame.h>

namespace vesk::hostkit {

class JsonObject;

/**
 * Frames in words: one line for a person or one JSON object for a program.
 *
 *     in  request test/test from session 7, msg 5, serial 9, 5 bytes: "hello"
 *     out acknowledgement of 2: serial 9 held 12 ms, serial 10 held 3 ms
 *
 * Neither holds a line break or anything that a terminal would act on, whatever the frame holds,
 * and both are bounded in length, as Options says. A payload is shown as text where most of it is
 * text, in hex where not.
 *
 * Threads: every operation may be called from any thread.
 */
class VESK_EXPORT FrameText {
public:
    struct Options {
        size_t maxPayload = 64;  // bytes of the payload that are shown
        size_t maxEntries = 16;  // entries of an acknowledgement that are shown
        bool hex = false;        // payloads in hex, also those that are text
    };

    enum class Direction { IN, OUT };

    /** What stands before the frame, as far as it is known. */
    struct Prefix {
        std::optional<uint64_t> millis = std::nullopt;  // shown as seconds
        std::optional<Direction> direction = std::nullopt;
    };

    /** @param catalogue must outlive this object. */
    explicit FrameText(VeskConfig const& catalogue) : FrameText(catalogue, Options{}) {}
    FrameText(VeskConfig const& catalogue, Options options);

    /** Without a line break at its end. */
    std::string line(VeskFrame const& frame, Prefix const& prefix) const;
    std::string line(VeskFrame const& frame) const { return line(frame, Prefix{}); }

    /**
     * Members: "ms" and "direction" where known; "type", "msgType", "topic" and "business" where
     * the catalogue has them, "topicId", "businessId", "reply", "serial", "msgId", "size"; then
     * "entries" of an acknowledgement, or the payload as "text" or as "hex"; and "cut": true where
     * not all of these is shown.
     */
    std::string json(VeskFrame const& frame, Prefix const& prefix) const;
    std::string json(VeskFrame const& frame) const { return json(frame, Prefix{}); }

    /**
     * "topic/business" by their names; by number, like "topic 9/business 1", where they have none.
     */
    std::string business(uint8_t topicId, uint8_t businessId) const;

    /**
     * "acknowledgement", "request", "reply"; by number, like "type 4", where it is none of them.
     */
    static std::string type(VeskFrame const& frame);

    /** What stands before a frame in line(); ends with a blank where it is not empty. */
    static std::string prefix(Prefix const& prefix);

    /**
     * Why a peer's library would not act on this frame as its type says; empty where it would:
     * "dropped, ..." for what it does not even acknowledge, "acknowledged and dropped, ...".
     * Whether there is a session for the frame only the peer knows.
     */
    std::string ignored(VeskFrame const& frame) const;

    /**
     * Foreign text for a log or a terminal: control characters (C0, DEL, C1), those that change the
     * direction of writing, line separators, backslashes, quotes and what is no UTF-8 become
     * escapes such as `\n` or `\x1B`.
     */
    static std::string escape(std::string const& text);

private:
    std::string payload(std::vector<uint8_t> const& data) const;
    std::string entries(VeskFrame const& frame) const;
    /** These two return whether all is shown. */
    bool addEntries(VeskFrame const& frame, JsonObject& object) const;
    bool addPayload(std::vector<uint8_t> const& data, JsonObject& object) const;

    VeskConfig const& mCatalogue;
    Options const mOptions;
};

}  // namespace vesk::hostkit
