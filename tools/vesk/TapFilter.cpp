#include "TapFilter.h"

#include <algorithm>

#include <vesk/VeskProtocol.h>
#include <vesk/client/BusinessName.h>
#include <vesk/hostkit/CatalogueNames.h>

#include "Errors.h"

namespace vesk::tool {

namespace {

using Names = std::vector<std::string>;

std::map<std::string, Names> knownValues(VeskConfig const& catalogue) {
    std::map<std::string, Names> known{{"dir", {"in", "out"}},
                                       {"type", {"request", "reply", "ack"}}};
    known["topic"] = hostkit::topicNames(catalogue);
    for (std::string const& topic : known["topic"]) {
        for (std::string const& business : hostkit::businessNames(catalogue, topic)) {
            known["business"].push_back(client::BusinessName{topic, business}.toString());
        }
    }
    return known;
}

}  // namespace

TapFilter::TapFilter(Names const& words, VeskConfig const& catalogue) : mCatalogue(catalogue) {
    auto const kinds = knownValues(catalogue);
    for (std::string const& word : words) {
        size_t const sign = std::min(word.find('='), word.size());
        std::string const kind = word.substr(0, sign);
        auto const values = kinds.find(kind);
        if (sign == word.size() || values == kinds.end()) {
            throw UsageError("'" + word + "' is no filter; write business=TOPIC/BUSINESS, " +
                             "topic=TOPIC, type=request, reply or ack, or dir=in or out");
        }
        Names const& allowed = values->second;
        std::string const value = word.substr(sign + 1);
        if (std::find(allowed.begin(), allowed.end(), value) == allowed.end()) {
            std::string error = "'" + word + "' fits no frame; for ";
            error.append(kind).append("= there are: ").append(hostkit::joinNames(allowed));
            throw UsageError(error);
        }
        mWanted[kind].insert(value);
    }
}

bool TapFilter::fits(Direction direction, VeskFrame const& frame) const {
    return std::all_of(mWanted.begin(), mWanted.end(), [&](auto const& wanted) {
        return wanted.second.count(valueOf(wanted.first, direction, frame)) > 0;
    });
}

bool TapFilter::fitsSkipped() const {
    return std::all_of(mWanted.begin(), mWanted.end(), [](auto const& wanted) {
        return wanted.first == "dir" && wanted.second.count("in") > 0;
    });
}

std::string TapFilter::valueOf(std::string const& kind, Direction direction,
                               VeskFrame const& frame) const {
    if (kind == "dir") return direction == Direction::IN ? "in" : "out";
    if (kind == "topic") return mCatalogue.getTopicIdById(frame.topicId);
    if (kind == "business") {
        return client::BusinessName{mCatalogue.getTopicIdById(frame.topicId),
                                    mCatalogue.getBussinessIdById(frame.topicId, frame.businessId)}
                .toString();
    }
    return frame.msgType == ACKNOWLEDGEMENT ? "ack" : hostkit::FrameText::type(frame);
}

}  // namespace vesk::tool
