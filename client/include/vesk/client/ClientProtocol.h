#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <vesk/VeskExport.h>
#include <vesk/VeskProtocol.h>

namespace vesk::client {

/**
 * What a host and its clients say to each other over the Unix socket.
 *
 *     message := size(4) type(1) body        size counts type and body; numbers are little-endian
 *     name    := length(1) bytes
 *
 *     type          from    body
 *     JOIN          client  role(1: 1 consumer, 2 provider) topic:name business:name
 *     JOINED        host    session(2)
 *     REFUSED       host    text in UTF-8, to the end; the host closes the connection behind it
 *     REQUEST       both    session(2) msgId(2) payload, to the end
 *     REPLY         both    session(2) msgId(2) payload, to the end
 *     WATCH         client  -
 *     TOPIC         host    added(1) topic:name
 *     PROVIDER      host    added(1) topic:name business:name
 *     QUERY         client  -
 *     COUNTERS      host    every number of Counters, 8 bytes each, in the order of its fields
 *     STATUS        client  format(1: 1 text, 2 JSON)
 *     STATUS_TEXT   host    text in UTF-8, to the end
 *     TAP           client  on(1: 1 begin, 0 end)
 *     TAPPED        host    time(8: us since 1970) direction(1: 0 in, 1 out) missed(8) bytes, to
 *                           the end
 *     NOTICE        host    text in UTF-8, to the end
 *     SKIPPED       host    time(8: us since 1970) bytes(8)
 *     NOTIFY        client  -
 *
 * A connection joins once, as consumer or as provider; its end is the end of its session. A
 * consumer sends REQUEST (whose session the host fills in) and gets REPLY; a provider gets REQUEST
 * and sends REPLY with the session and the msgId of the request. WATCH is answered with what is
 * present, as added, and then with every change; a second WATCH changes nothing. STATUS is answered
 * with all that can be counted about the host, for a person or as one JSON object, whose members a
 * newer host may add to. TAP begins a copy of the channel's frames, in TAPPED messages: a frame is
 * the bytes of one message, or of several behind each other where it is longer than MAX_BYTES.
 * `missed` counts the frames since the beginning that the client was too slow for. The end is
 * answered with a TAPPED without bytes, and nothing is copied behind it. SKIPPED counts bytes that
 * have come in and belong to no frame; it stands between the frames where they did. QUERY, STATUS
 * and the end of a TAP are answered in the order in which they come. NOTIFY asks for
 * NOTICE messages from then on, which are for a person: they tell a provider when another client of
 * the host takes over its business or leaves it, and one who watches what else changes. Anything
 * that is not exactly of this form is an error; a client ignores messages of types that it does not
 * know.
 *
 * Flow control. The figures are for a host with its default of 64 MiB (`vesk host --memory`), and
 * stand in proportion for another.
 *
 * - The host takes a message out of the socket when it can pass it on, and lets it lie there
 *   otherwise; the client is paused, and its send blocks in the end. What it has not handed over
 *   when it leaves is dropped.
 * - A consumer has to read while it writes. It is paused while more than 128 KiB wait for it, until
 *   that is below 64; while the replies to what it has asked may come to 3.8 MiB, less in its first
 *   moments; and while the requests of its business that had no reply come to 1 MiB, for 3 seconds
 *   at most, and then, as long as no reply comes at all, for 250 ms. It slows only itself.
 * - A provider may finish a reply before it reads on: while the host leaves unread what it sends,
 *   its time does not count. Otherwise it has 3 seconds for each request while more than 2 MiB wait
 *   for it; then it is disconnected.
 * - No client may have more than 4 MiB waiting. When all of them together have 24 MiB, the one for
 *   whom something has waited longest is disconnected, and with 18 MiB those for whom it has waited
 *   for a second.
 * - A message should be written at one go. With 31 messages begun and not ended, the next that
 *   comes in parts has to wait, and those begun more than a second ago are disconnected. For these
 *   messages 2 MiB are set aside, and for each of them 65,544 bytes, which is the longest; those of
 *   the topics that are local to the host have as much besides.
 * - A host has places for 1000 connections. One that has neither joined nor sent WATCH makes place
 *   for a new one; where there is none, the new one is refused.
 *
 * A client that is disconnected in this way sees the end of the stream, without REFUSED.
 */
enum class MessageType : uint8_t {
    JOIN = 1,
    JOINED,
    REFUSED,
    REQUEST,
    REPLY,
    WATCH,
    TOPIC,
    PROVIDER,
    QUERY,
    COUNTERS,
    STATUS,
    STATUS_TEXT,
    TAP,
    TAPPED,
    NOTICE,
    SKIPPED,
    NOTIFY,
};

/** How a host writes down its status. */
enum class StatusFormat : uint8_t { TEXT = 1, JSON };

/** Of the size field: type, session, msgId and the greatest payload. */
constexpr size_t MAX_MESSAGE_SIZE = 1 + 2 + 2 + MAX_PAYLOAD_SIZE;

using Bytes = std::vector<uint8_t>;

struct VESK_EXPORT JoinMessage {
    Bytes encode() const;
    static std::optional<JoinMessage> decode(Bytes const& body);

    int role = 0;
    std::string topic;
    std::string business;
};

struct VESK_EXPORT JoinedMessage {
    Bytes encode() const;
    static std::optional<JoinedMessage> decode(Bytes const& body);

    uint16_t session = 0;
};

/** REQUEST or REPLY. */
struct VESK_EXPORT DataMessage {
    /** Throws std::invalid_argument for more than one message carries. */
    static void checkSize(size_t payload);

    /** REQUIRES: the payload has MAX_PAYLOAD_SIZE bytes at most. */
    static Bytes encode(MessageType type, uint16_t session, uint16_t msgId, Bytes const& payload);
    static std::optional<DataMessage> decode(Bytes const& body);

    uint16_t session = 0;
    uint16_t msgId = 0;
    Bytes payload;
};

/** TOPIC or, with a business, PROVIDER. */
struct VESK_EXPORT ChangeMessage {
    Bytes encode(MessageType type) const;
    static std::optional<ChangeMessage> decode(MessageType type, Bytes const& body);

    bool added = false;
    std::string topic;
    std::string business;
};

/** The state of a host. All but the first block counts from the host's start. */
struct VESK_EXPORT Counters {
    Bytes encode() const;
    static std::optional<Counters> decode(Bytes const& body);

    uint64_t channelUp = 0;  // 0 or 1
    uint64_t clients = 0;
    uint64_t providers = 0;
    uint64_t pending = 0;
    uint64_t awaitingAck = 0;
    uint64_t owedAcks = 0;
    uint64_t lastDelayMillis = 0;
    uint64_t slowCount = 0;

    uint64_t sentPackets = 0;  // these two begin anew when the channel drops
    uint64_t receivedPackets = 0;
    uint64_t skippedBytes = 0;
    uint64_t reconnects = 0;
    uint64_t refused = 0;  // joins and messages that were in error
    uint64_t evicted = 0;  // clients that did not read what was sent to them, or too slowly
};

/** A message without a body, or one whose body is text. */
VESK_EXPORT Bytes encodeMessage(MessageType type, std::string const& body = {});

struct VESK_EXPORT StatusMessage {
    Bytes encode() const;
    static std::optional<StatusMessage> decode(Bytes const& body);

    StatusFormat format = StatusFormat::TEXT;
};

struct VESK_EXPORT TapMessage {
    Bytes encode() const;
    static std::optional<TapMessage> decode(Bytes const& body);

    bool on = true;
};

/** A frame that the channel of a host has carried, or a part of one. */
struct VESK_EXPORT TappedMessage {
    /** A message holds no more of a frame than this. */
    static constexpr size_t MAX_BYTES = MAX_MESSAGE_SIZE - 1 - 8 - 1 - 8;

    Bytes encode() const;
    static std::optional<TappedMessage> decode(Bytes const& body);

    uint64_t micros = 0;  // since 1970
    bool out = false;     // to the peer
    uint64_t missed = 0;  // frames
    Bytes bytes;
};

/** Bytes that the channel of a host has brought and that belong to no frame. */
struct VESK_EXPORT SkippedMessage {
    Bytes encode() const;
    static std::optional<SkippedMessage> decode(Bytes const& body);

    uint64_t micros = 0;  // since 1970, when they had come
    uint64_t bytes = 0;   // how many
};

struct Message {
    MessageType type{};
    Bytes body;
};

/**
 * Cuts a client connection's bytes into messages.
 *
 * Memory: one message and what a single append() brings. No I/O, no threads.
 */
class VESK_EXPORT MessageReader {
public:
    enum class Result { MESSAGE, NEED_MORE, TOO_LONG, EMPTY };

    static constexpr size_t PREFIX_SIZE = 4;
    static constexpr size_t MAX_SIZE = PREFIX_SIZE + MAX_MESSAGE_SIZE;

    /**
     * Reads the message at the beginning of these bytes. @param taken its bytes; 0 unless it is
     * there.
     */
    static Result cut(uint8_t const* bytes, size_t size, Message& message, size_t& taken);

    /** What the message at the beginning of these bytes needs, as far as they tell. */
    static size_t sizeOf(uint8_t const* bytes, size_t size);

    void append(uint8_t const* bytes, size_t size);

    /** Takes the next message out. After TOO_LONG or EMPTY the stream cannot be read further. */
    Result next(Message& message);

private:
    Bytes mBytes;
    size_t mRead = 0;  // up to here mBytes has been consumed
};

}  // namespace vesk::client
