#include <vesk/hostkit/FrameText.h>

#include <algorithm>
#include <cstdio>

#include <vesk/VeskProtocol.h>

#include "ByteOrder.h"
#include "Escape.h"
#include "JsonObject.h"

namespace vesk::hostkit {

namespace {

using std::to_string;

bool isAcknowledgement(VeskFrame const& frame) {
    return frame.msgType == ACKNOWLEDGEMENT && frame.topicId == ACK_ID &&
           frame.businessId == ACK_ID;
}

size_t entryCount(VeskFrame const& frame) {
    return frame.data.size() / ACK_ENTRY_SIZE;
}

uint16_t heldMillis(VeskFrame const& frame, size_t entry) {
    return getU16(&frame.data[entry * ACK_ENTRY_SIZE]);
}

uint16_t serialOf(VeskFrame const& frame, size_t entry) {
    return getU16(&frame.data[entry * ACK_ENTRY_SIZE + 2]);
}

std::string seconds(uint64_t millis) {
    char text[32];
    std::snprintf(text, sizeof(text), "%llu.%03u ", static_cast<unsigned long long>(millis / 1000),
                  static_cast<unsigned>(millis % 1000));
    return text;
}

char const* sessionWord(uint8_t msgType) {
    if (msgType == REQUEST) return " from session ";
    return msgType == REPLY ? " to session " : " reply field ";
}

/** More than a quarter of what would be shown is not text. */
bool looksBinary(Escaped const& text) {
    return text.escapes * 4 > text.used;
}

}  // namespace

FrameText::FrameText(VeskConfig const& catalogue, Options options)
    : mCatalogue(catalogue), mOptions(options) {}

std::string FrameText::type(VeskFrame const& frame) {
    if (isAcknowledgement(frame)) return "acknowledgement";
    if (frame.msgType == REQUEST) return "request";
    return frame.msgType == REPLY ? "reply" : "type " + to_string(frame.msgType);
}

std::string FrameText::business(uint8_t topicId, uint8_t businessId) const {
    std::string const topic = mCatalogue.getTopicIdById(topicId);
    std::string const business = mCatalogue.getBussinessIdById(topicId, businessId);
    return (topic.empty() ? "topic " + to_string(topicId) : topic) + "/" +
           (business.empty() ? "business " + to_string(businessId) : business);
}

std::string FrameText::escape(std::string const& text) {
    return hostkit::escape({text.begin(), text.end()}, text.size(), Escapes::TEXT).text;
}

std::string FrameText::prefix(Prefix const& prefix) {
    std::string text;
    if (prefix.millis) text += seconds(*prefix.millis);
    if (prefix.direction) text += *prefix.direction == Direction::IN ? "in  " : "out ";
    return text;
}

std::string FrameText::ignored(VeskFrame const& frame) const {
    if (isAcknowledgement(frame)) {
        return frame.reply == entryCount(frame) ? ""
                                                : "dropped, its reply field is not its number of "
                                                  "entries";
    }
    if (frame.msgType == ACKNOWLEDGEMENT) {
        return "dropped, an acknowledgement has topic and business " + to_string(ACK_ID);
    }
    if (!mCatalogue.isBussinessSupport(frame.topicId, frame.businessId)) {
        return "dropped, the catalogue has no such business";
    }
    if (frame.msgType != REQUEST && frame.msgType != REPLY) {
        return "acknowledged and dropped, there is no such type";
    }
    bool const hasSession = frame.reply != 0 && frame.reply != UINT16_MAX;
    return frame.msgType == REQUEST || hasSession
                   ? ""
                   : "acknowledged and dropped, no session has this id";
}

std::string FrameText::line(VeskFrame const& frame, Prefix const& prefix) const {
    std::string text = FrameText::prefix(prefix) + type(frame);
    if (isAcknowledgement(frame)) return text + entries(frame);
    return text + " " + business(frame.topicId, frame.businessId) + sessionWord(frame.msgType) +
           to_string(frame.reply) + ", msg " + to_string(frame.msgId) + ", serial " +
           to_string(frame.serialNumber) + ", " + to_string(frame.data.size()) + " bytes" +
           payload(frame.data);
}

std::string FrameText::payload(std::vector<uint8_t> const& data) const {
    if (data.empty()) return {};
    Escaped const text = hostkit::escape(data, mOptions.maxPayload, Escapes::TEXT);
    bool const inHex = mOptions.hex || looksBinary(text);
    return (inHex ? ": 0x" + hex(data, mOptions.maxPayload) : ": \"" + text.text + '"') +
           (data.size() > mOptions.maxPayload ? "..." : "");
}

std::string FrameText::entries(VeskFrame const& frame) const {
    size_t const count = entryCount(frame);
    std::string text = " of " + to_string(count);
    if (frame.reply != count) text += ", ignored because it says " + to_string(frame.reply);
    for (size_t i = 0; i < std::min(count, mOptions.maxEntries); ++i) {
        text += (i == 0 ? ": serial " : ", serial ") + to_string(serialOf(frame, i)) + " held " +
                to_string(heldMillis(frame, i)) + " ms";
    }
    return text + (count > mOptions.maxEntries ? ", ..." : "");
}

std::string FrameText::json(VeskFrame const& frame, Prefix const& prefix) const {
    JsonObject object;
    auto const addName = [&object](char const* name, std::string const& value) {
        if (!value.empty()) object.addRaw(name, jsonString(value));
    };
    if (prefix.millis) object.add("ms", *prefix.millis);
    if (prefix.direction) addName("direction", *prefix.direction == Direction::IN ? "in" : "out");
    addName("type", type(frame));
    object.add("msgType", frame.msgType);
    addName("topic", mCatalogue.getTopicIdById(frame.topicId));
    addName("business", mCatalogue.getBussinessIdById(frame.topicId, frame.businessId));
    object.add("topicId", frame.topicId)
            .add("businessId", frame.businessId)
            .add("reply", frame.reply)
            .add("serial", frame.serialNumber)
            .add("msgId", frame.msgId)
            .add("size", frame.data.size());
    bool const whole =
            isAcknowledgement(frame) ? addEntries(frame, object) : addPayload(frame.data, object);
    if (!whole) object.addRaw("cut", "true");
    return object.text();
}

bool FrameText::addEntries(VeskFrame const& frame, JsonObject& object) const {
    size_t const shown = std::min(entryCount(frame), mOptions.maxEntries);
    std::string list;
    for (size_t i = 0; i < shown; ++i) {
        JsonObject entry;
        entry.add("serial", serialOf(frame, i)).add("heldMs", heldMillis(frame, i));
        list += (i == 0 ? "" : ",") + entry.text();
    }
    object.addRaw("entries", '[' + list + ']');
    return shown == entryCount(frame);
}

bool FrameText::addPayload(std::vector<uint8_t> const& data, JsonObject& object) const {
    Escaped const text = hostkit::escape(data, mOptions.maxPayload, Escapes::JSON);
    bool const inHex = mOptions.hex || !text.isUtf8 || looksBinary(text);
    std::string const shown = inHex ? hex(data, mOptions.maxPayload) : text.text;
    object.addRaw(inHex ? "hex" : "text", '"' + shown + '"');
    return data.size() <= mOptions.maxPayload;
}

}  // namespace vesk::hostkit
