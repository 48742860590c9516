#include <vesk/client/ClientProtocol.h>

#include <iterator>
#include <stdexcept>

namespace vesk::client {

namespace {

constexpr size_t PREFIX_SIZE = MessageReader::PREFIX_SIZE;

class BodyWriter {
public:
    explicit BodyWriter(MessageType type) : mBytes(PREFIX_SIZE) {
        number(static_cast<uint8_t>(type), 1);
    }

    BodyWriter& number(uint64_t value, size_t width) {
        for (size_t i = 0; i < width; ++i)
            mBytes.push_back(static_cast<uint8_t>(value >> 8 * i));
        return *this;
    }

    BodyWriter& name(std::string const& text) {
        number(text.size(), 1);
        return rest(text);
    }

    template <typename Container>
    BodyWriter& rest(Container const& bytes) {
        mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
        return *this;
    }

    Bytes finish() {
        size_t const size = mBytes.size() - PREFIX_SIZE;
        for (size_t i = 0; i < PREFIX_SIZE; ++i)
            mBytes[i] = static_cast<uint8_t>(size >> 8 * i);
        return std::move(mBytes);
    }

private:
    Bytes mBytes;
};

// Reads past the end give zeros and are remembered.
class BodyReader {
public:
    explicit BodyReader(Bytes const& bytes) : mBytes(bytes) {}

    template <typename T>
    T number(size_t width) {
        uint64_t value = 0;
        if (!has(width)) return T{};
        for (size_t i = 0; i < width; ++i)
            value |= static_cast<uint64_t>(mBytes[mAt++]) << 8 * i;
        return static_cast<T>(value);
    }

    std::string name() {
        size_t const length = number<size_t>(1);
        if (!has(length)) return {};
        auto const begin = mBytes.begin() + static_cast<Bytes::difference_type>(mAt);
        mAt += length;
        return {begin, begin + static_cast<Bytes::difference_type>(length)};
    }

    Bytes rest() {
        Bytes bytes(mBytes.begin() + static_cast<Bytes::difference_type>(mAt), mBytes.end());
        mAt = mBytes.size();
        return bytes;
    }

    /** Whether everything was there and nothing is left over. */
    bool complete() const { return !mFailed && mAt == mBytes.size(); }

private:
    bool has(size_t count) {
        mFailed = mFailed || mBytes.size() - mAt < count;
        return !mFailed;
    }

    Bytes const& mBytes;
    size_t mAt = 0;
    bool mFailed = false;
};

template <typename T>
std::optional<T> whole(BodyReader const& reader, T const& value) {
    return reader.complete() ? std::optional<T>(value) : std::nullopt;
}

uint64_t Counters::*const COUNTER_FIELDS[] = {
        &Counters::channelUp,       &Counters::clients,      &Counters::providers,
        &Counters::pending,         &Counters::awaitingAck,  &Counters::owedAcks,
        &Counters::lastDelayMillis, &Counters::slowCount,    &Counters::sentPackets,
        &Counters::receivedPackets, &Counters::skippedBytes, &Counters::reconnects,
        &Counters::refused,         &Counters::evicted,
};
static_assert(sizeof(Counters) == std::size(COUNTER_FIELDS) * sizeof(uint64_t));

}  // namespace

Bytes JoinMessage::encode() const {
    return BodyWriter(MessageType::JOIN)
            .number(static_cast<uint64_t>(role), 1)
            .name(topic)
            .name(business)
            .finish();
}

std::optional<JoinMessage> JoinMessage::decode(Bytes const& body) {
    BodyReader reader(body);
    JoinMessage join;
    join.role = reader.number<int>(1);
    join.topic = reader.name();
    join.business = reader.name();
    return whole(reader, join);
}

Bytes JoinedMessage::encode() const {
    return BodyWriter(MessageType::JOINED).number(session, 2).finish();
}

std::optional<JoinedMessage> JoinedMessage::decode(Bytes const& body) {
    BodyReader reader(body);
    JoinedMessage joined;
    joined.session = reader.number<uint16_t>(2);
    return whole(reader, joined);
}

void DataMessage::checkSize(size_t payload) {
    if (payload <= MAX_PAYLOAD_SIZE) return;
    throw std::invalid_argument("the payload has " + std::to_string(payload) +
                                " bytes; one message carries " + std::to_string(MAX_PAYLOAD_SIZE) +
                                " at most, so send it in parts");
}

Bytes DataMessage::encode(MessageType type, uint16_t session, uint16_t msgId,
                          Bytes const& payload) {
    return BodyWriter(type).number(session, 2).number(msgId, 2).rest(payload).finish();
}

std::optional<DataMessage> DataMessage::decode(Bytes const& body) {
    BodyReader reader(body);
    DataMessage data;
    data.session = reader.number<uint16_t>(2);
    data.msgId = reader.number<uint16_t>(2);
    data.payload = reader.rest();
    return whole(reader, data);
}

Bytes ChangeMessage::encode(MessageType type) const {
    BodyWriter writer(type);
    writer.number(added ? 1 : 0, 1).name(topic);
    if (type == MessageType::PROVIDER) writer.name(business);
    return writer.finish();
}

std::optional<ChangeMessage> ChangeMessage::decode(MessageType type, Bytes const& body) {
    BodyReader reader(body);
    ChangeMessage change;
    change.added = reader.number<bool>(1);
    change.topic = reader.name();
    if (type == MessageType::PROVIDER) change.business = reader.name();
    return whole(reader, change);
}

Bytes Counters::encode() const {
    BodyWriter writer(MessageType::COUNTERS);
    for (auto field : COUNTER_FIELDS)
        writer.number(this->*field, 8);
    return writer.finish();
}

std::optional<Counters> Counters::decode(Bytes const& body) {
    BodyReader reader(body);
    Counters counters;
    for (auto field : COUNTER_FIELDS)
        counters.*field = reader.number<uint64_t>(8);
    return whole(reader, counters);
}

Bytes StatusMessage::encode() const {
    return BodyWriter(MessageType::STATUS).number(static_cast<uint64_t>(format), 1).finish();
}

std::optional<StatusMessage> StatusMessage::decode(Bytes const& body) {
    BodyReader reader(body);
    StatusMessage status{reader.number<StatusFormat>(1)};
    bool const isKnown = status.format == StatusFormat::TEXT || status.format == StatusFormat::JSON;
    return isKnown ? whole(reader, status) : std::nullopt;
}

Bytes TapMessage::encode() const {
    return BodyWriter(MessageType::TAP).number(on ? 1 : 0, 1).finish();
}

std::optional<TapMessage> TapMessage::decode(Bytes const& body) {
    BodyReader reader(body);
    auto const on = reader.number<uint8_t>(1);
    return on <= 1 ? whole(reader, TapMessage{on == 1}) : std::nullopt;
}

Bytes TappedMessage::encode() const {
    return BodyWriter(MessageType::TAPPED)
            .number(micros, 8)
            .number(out ? 1 : 0, 1)
            .number(missed, 8)
            .rest(bytes)
            .finish();
}

std::optional<TappedMessage> TappedMessage::decode(Bytes const& body) {
    BodyReader reader(body);
    TappedMessage tapped;
    tapped.micros = reader.number<uint64_t>(8);
    tapped.out = reader.number<bool>(1);
    tapped.missed = reader.number<uint64_t>(8);
    tapped.bytes = reader.rest();
    return whole(reader, tapped);
}

Bytes SkippedMessage::encode() const {
    return BodyWriter(MessageType::SKIPPED).number(micros, 8).number(bytes, 8).finish();
}

std::optional<SkippedMessage> SkippedMessage::decode(Bytes const& body) {
    BodyReader reader(body);
    SkippedMessage skipped;
    skipped.micros = reader.number<uint64_t>(8);
    skipped.bytes = reader.number<uint64_t>(8);
    return whole(reader, skipped);
}

Bytes encodeMessage(MessageType type, std::string const& body) {
    return BodyWriter(type).rest(body).finish();
}

void MessageReader::append(uint8_t const* bytes, size_t size) {
    mBytes.erase(mBytes.begin(), mBytes.begin() + static_cast<Bytes::difference_type>(mRead));
    mRead = 0;
    mBytes.insert(mBytes.end(), bytes, bytes + size);
}

MessageReader::Result MessageReader::next(Message& message) {
    size_t taken = 0;
    Result const result = cut(mBytes.data() + mRead, mBytes.size() - mRead, message, taken);
    mRead += taken;
    return result;
}

MessageReader::Result MessageReader::cut(uint8_t const* bytes, size_t size, Message& message,
                                         size_t& taken) {
    taken = 0;
    if (size < PREFIX_SIZE) return Result::NEED_MORE;
    size_t const whole = sizeOf(bytes, size);
    if (whole == PREFIX_SIZE) return Result::EMPTY;
    if (whole > MAX_SIZE) return Result::TOO_LONG;
    if (size < whole) return Result::NEED_MORE;
    message.type = static_cast<MessageType>(bytes[PREFIX_SIZE]);
    message.body.assign(bytes + PREFIX_SIZE + 1, bytes + whole);
    taken = whole;
    return Result::MESSAGE;
}

size_t MessageReader::sizeOf(uint8_t const* bytes, size_t size) {
    size_t whole = PREFIX_SIZE;
    for (size_t i = 0; i < PREFIX_SIZE && size >= PREFIX_SIZE; ++i)
        whole += static_cast<size_t>(bytes[i]) << 8 * i;
    return whole;
}

}  // namespace vesk::client
