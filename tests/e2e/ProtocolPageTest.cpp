// The conversation in docs/protocol.md, with a host.

#include <map>

#include "support/ProtocolPage.h"
#include "support/Scene.h"

namespace vesk::e2e {

class ProtocolPageTest : public Scene {};

TEST_F(ProtocolPageTest, AHostSaysWhatThePageSays) {
    Process& host = start("host --listen --channel " + socket("channel") + " --clients " +
                          socket("host") + " --local-topic test");
    awaitText(host, "serving");
    std::map<std::string, std::pair<Line*, size_t>> clients;
    ProtocolPage::Block const conversation = ProtocolPage().blocks("conversation").at(0);
    for (auto const& [words, bytes] : conversation.lines) {
        bool const fromHost = words.rfind("host -> ", 0) == 0;
        std::string const name = fromHost ? words.substr(8) : words.substr(0, words.find(' '));
        auto& [line, heard] = clients[name];
        if (!line) line = &connect();
        if (!fromHost) {
            line->say(bytes);
            continue;
        }
        awaitHeard(*line, ++heard);
        EXPECT_EQ(line->heard()[heard - 1], bytes) << words;
    }
    awaitClosed(*clients.at("consumer").first);
    for (auto const& [name, client] : clients) {
        EXPECT_EQ(client.first->heard().size(), client.second) << name;
    }
}

}  // namespace vesk::e2e
