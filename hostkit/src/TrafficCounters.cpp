#include <vesk/hostkit/TrafficCounters.h>

#include <vesk/VeskProtocol.h>

namespace vesk::hostkit {

uint64_t TrafficCounters::undelivered() const {
    uint64_t const delivered = mDelivered;  // first: each of these has been counted in before
    return in(REQUESTS).frames + in(REPLIES).frames + in(OTHERS).frames - delivered;
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
