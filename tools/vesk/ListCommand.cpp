#include "ListCommand.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <vesk/VeskConfig.h>
#include <vesk/hostkit/CatalogueNames.h>
#include <nlohmann/json.hpp>

#include "Errors.h"

namespace vesk::tool {

namespace {

using hostkit::businessNames;
using hostkit::topicNames;

/** What a host serves. */
struct Served {
    struct Count {
        uint64_t providers = 0;
        uint64_t consumers = 0;
    };

    bool has(std::string const& topic) const { return topics.count(topic) > 0; }
    Count count(std::string const& topic, std::string const& business) const {
        auto const found = businesses.find(client::BusinessName{topic, business}.toString());
        return found == businesses.end() ? Count{} : found->second;
    }

    std::set<std::string> topics;
    std::map<std::string, Count> businesses;  // those that somebody has joined
};

std::map<std::string, Served::Count> countsOf(std::string const& status) {
    std::map<std::string, Served::Count> counts;
    try {
        auto const json = nlohmann::json::parse(status);
        for (auto const& entry : json.at("sessions")) {
            client::BusinessName const name{entry.at("topic"), entry.at("business")};
            counts[name.toString()] = {entry.at("providers"), entry.at("consumers")};
        }
    } catch (nlohmann::json::exception const&) {
        throw std::runtime_error("what the host tells of its state is not understood");
    }
    return counts;
}

std::optional<Served> ask(HostAddress const& address) {
    if (address.host.empty()) return std::nullopt;
    Served served;
    std::string status;
    {
        client::Client host(address.path(), address.options());
        auto const onTopic = [&served](bool added, std::string const& topic) {
            added ? void(served.topics.insert(topic)) : void(served.topics.erase(topic));
        };
        host.watch({onTopic, {}});
        status = host.status(client::StatusFormat::JSON);  // comes behind the topics
    }
    served.businesses = countsOf(status);
    return served;
}

/** The name and the id; the names of the catalogue need no escapes. */
std::string jsonMembers(std::string const& name, int id) {
    return "\"name\":\"" + name + "\",\"id\":" + std::to_string(id);
}

std::string jsonList(std::vector<std::string> const& objects) {
    std::string list;
    for (std::string const& object : objects)
        list += (list.empty() ? "{" : ",{") + object + '}';
    return '[' + list + ']';
}

std::string json(VeskConfig const& catalogue, std::optional<Served> const& served) {
    std::vector<std::string> topics;
    for (std::string const& topic : topicNames(catalogue)) {
        int const topicId = catalogue.getTopicIdByName(topic);
        std::vector<std::string> businesses;
        for (std::string const& business : businessNames(catalogue, topic)) {
            businesses.push_back(
                    jsonMembers(business, catalogue.getBussinessIdByName(topicId, business)));
            if (!served) continue;
            Served::Count const count = served->count(topic, business);
            businesses.back() += ",\"providers\":" + std::to_string(count.providers) +
                                 ",\"consumers\":" + std::to_string(count.consumers);
        }
        topics.push_back(jsonMembers(topic, topicId));
        if (served) {
            topics.back() += std::string(",\"served\":") + (served->has(topic) ? "true" : "false");
        }
        topics.back() += ",\"businesses\":" + jsonList(businesses);
    }
    return "{\"topics\":" + jsonList(topics) + "}\n";
}

std::string table(VeskConfig const& catalogue, std::optional<Served> const& served) {
    std::string text = "business                  topic id  business id";
    text += served ? "  served  providers  consumers\n" : "\n";
    for (std::string const& topic : topicNames(catalogue)) {
        int const topicId = catalogue.getTopicIdByName(topic);
        for (std::string const& business : businessNames(catalogue, topic)) {
            std::string const name = client::BusinessName{topic, business}.toString();
            char line[128];
            std::snprintf(line, sizeof(line), "%-24s  %8d  %11d", name.c_str(), topicId,
                          catalogue.getBussinessIdByName(topicId, business));
            text += line;
            if (served) {
                Served::Count const count = served->count(topic, business);
                std::snprintf(line, sizeof(line), "  %-6s  %9" PRIu64 "  %9" PRIu64,
                              served->has(topic) ? "yes" : "no", count.providers, count.consumers);
                text += line;
            }
            text += '\n';
        }
    }
    return text;
}

}  // namespace

int runList(ListOptions const& options) {
    VeskConfig const catalogue;
    std::optional<Served> const served = ask(options.address);
    std::string const text = options.json ? json(catalogue, served) : table(catalogue, served);
    std::fputs(text.c_str(), stdout);
    return EXIT_OK;
}

}  // namespace vesk::tool
