#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
 *
 * A connection joins once, as consumer or as provider; its end is the end of its session. A
 * consumer sends REQUEST (whose session the host fills in) and gets REPLY; a provider gets REQUEST
 * and sends REPLY with the session and the msgId of the request. WATCH is answered with what is
 * present, as added, and then with every change; a second WATCH changes nothing. Anything that is
 * not exactly of this form is an error.
 *
 * A client has to read. When more than 8 MiB wait for it, it has 3 seconds to bring that below 4;
 * until then the host keeps others waiting, and then it closes the connection. Time does not count
 * while the host itself leaves unread what the client sends, so a provider may write a reply to
 * its end before it reads the next request. A consumer should read while it writes: requests whose
 * replies it does not read come to wait for it, and with 32 MiB waiting any client is closed. In
 * that state WATCH and QUERY are refused.
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
};

/** Of the size field: type, session, msgId and the greatest payload. */
constexpr size_t MAX_MESSAGE_SIZE = 1 + 2 + 2 + MAX_PAYLOAD_SIZE;

using Bytes = std::vector<uint8_t>;

struct JoinMessage {
    Bytes encode() const;
    static std::optional<JoinMessage> decode(Bytes const& body);

    int role = 0;
    std::string topic;
    std::string business;
};

struct JoinedMessage {
    Bytes encode() const;
    static std::optional<JoinedMessage> decode(Bytes const& body);

    uint16_t session = 0;
};

/** REQUEST or REPLY. */
struct DataMessage {
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
struct ChangeMessage {
    Bytes encode(MessageType type) const;
    static std::optional<ChangeMessage> decode(MessageType type, Bytes const& body);

    bool added = false;
    std::string topic;
    std::string business;
};

/** The state of a host. All but the first block counts from the host's start. */
struct Counters {
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
Bytes encodeMessage(MessageType type, std::string const& body = {});

struct Message {
    MessageType type{};
    Bytes body;
};

/**
 * Cuts a client connection's bytes into messages.
 *
 * Memory: one message and what a single append() brings. No I/O, no threads.
 */
class MessageReader {
public:
    enum class Result { MESSAGE, NEED_MORE, TOO_LONG, EMPTY };

    void append(uint8_t const* bytes, size_t size);

    /** Takes the next message out. After TOO_LONG or EMPTY the stream cannot be read further. */
    Result next(Message& message);

private:
    Bytes mBytes;
    size_t mRead = 0;  // up to here mBytes has been consumed
};

}  // namespace vesk::client
