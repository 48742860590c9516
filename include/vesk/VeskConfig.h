#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include <vesk/VeskExport.h>

namespace vesk {

/**
 * The fixed catalogue of topics and, inside each topic, of businesses: ids and names.
 *
 * Threads: filled by the constructor and only read afterwards, so every lookup may run on any
 *          thread without a lock.
 * Failure: a lookup that finds nothing says so by its result (false, -1 or an empty string); ids in
 *          use start at 1.
 */
class VESK_EXPORT VeskConfig {
public:
    /** One business of a topic. Ordered, and so equal, by id alone. */
    struct BuisnessDesc {
        uint16_t id = 0;
        std::string name;

        bool operator<(BuisnessDesc const& other) const { return id < other.id; }
    };

    VeskConfig();

    bool isTopicSupport(uint16_t topicId) const;

    /** Whether the topic has a business of that id. */
    bool isBussinessSupport(uint16_t topicId, uint16_t businessId) const;

    /** The id of the topic with exactly this name; -1 when there is none. */
    int getTopicIdByName(std::string const& name) const;

    /**
     * The id of the topic's business with exactly this name; -1 when there is none.
     *
     * @param topicId only its low 16 bits count.
     */
    int getBussinessIdByName(int topicId, std::string const& name) const;

    /** The NAME of the topic with this id; empty when there is none. All 32 bits count. */
    std::string getTopicIdById(int topicId) const;

    /**
     * The NAME of a business; empty when there is none.
     *
     * @param topicId    only its low 16 bits count.
     * @param businessId all 32 bits count.
     */
    std::string getBussinessIdById(int topicId, int const& businessId) const;

private:
    std::map<uint16_t, std::string> mTopicNames;
    std::map<uint16_t, std::set<BuisnessDesc>> mBusinesses;
};

}  // namespace vesk
