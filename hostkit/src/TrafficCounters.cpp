#include <vesk/hostkit/TrafficCounters.h>

#include <vesk/VeskProtocol.h>

namespace vesk::hostkit {

namespace {

size_t indexOf(uint16_t topicId, uint16_t businessId) {
    return size_t{topicId} * (TrafficCounters::MAX_ID + 1) + businessId;
}

// A host that does not count what comes in has nothing that was not delivered.
uint64_t without(uint64_t all, uint64_t delivered) {
    return all > delivered ? all - delivered : 0;
}

bool isCounted(uint16_t topicId, uint16_t businessId) {
    return topicId <= TrafficCounters::MAX_ID && businessId <= TrafficCounters::MAX_ID;
}

}  // namespace

void TrafficCounters::in(VeskFrame const& frame) {
    mIn[kindOf(frame.msgType, frame.topicId, frame.businessId)].add(VeskFrame::FRAME_HEAD_SIZE +
                                                                    frame.data.size());
    countRequest(mRequestsIn, frame);
}

void TrafficCounters::delivered(VeskFrame const& frame, bool local) {
    if (local) return;
    ++mDelivered;
    countRequest(mRequestsDelivered, frame);
}

void TrafficCounters::countRequest(ByBusiness& counts, VeskFrame const& frame) {
    if (frame.msgType != REQUEST || !isCounted(frame.topicId, frame.businessId)) return;
    ++counts[indexOf(frame.topicId, frame.businessId)];
}

uint64_t TrafficCounters::unprovided(uint16_t topicId, uint16_t businessId) const {
    if (!isCounted(topicId, businessId)) return 0;
    size_t const index = indexOf(topicId, businessId);
    uint64_t const delivered = mRequestsDelivered[index];  // first, as in undelivered()
    return without(mRequestsIn[index], delivered);
}

uint64_t TrafficCounters::undelivered() const {
    uint64_t const delivered = mDelivered;  // first: each of these has been counted in before
    return without(in(REQUESTS).frames + in(REPLIES).frames + in(OTHERS).frames, delivered);
}

TrafficCounters::Kind TrafficCounters::kindOf(uint8_t msgType, uint8_t topicId,
                                              uint8_t businessId) {
    switch (msgType) {
        case ACKNOWLEDGEMENT:
            return topicId == ACK_ID && businessId == ACK_ID ? ACKNOWLEDGEMENTS : OTHERS;
        case REQUEST:
            return REQUESTS;
        case REPLY:
            return REPLIES;
        default:
            return OTHERS;
    }
}

}  // namespace vesk::hostkit
