// docs/protocol.md, against the library.

#include <vesk/VeskProtocol.h>
#include <vesk/hostkit/FrameText.h>
#include <vesk/hostkit/Responder.h>

#include "support/ProtocolPage.h"
#include "support/VeskTest.h"

namespace vesk {

class ProtocolPageTest : public VeskTest {
protected:
    /** Plays one side of the exchange with the library, and the other one from the page. */
    void play(std::string const& side) {
        auto const id = static_cast<uint16_t>(join(1, side == "A" ? CONSUMER : PROVIDER));
        size_t written = 0, given = 0;
        uint64_t now = 0;
        ProtocolPage::Block const exchange = mPage.blocks("exchange").at(0);
        for (auto const& [words, bytes] : exchange.lines) {
            uint64_t const time = std::stoull(words);
            bool const ours = words.find(side + " ->") != std::string::npos;
            if (time > now) clock.advance(time - now);
            now = time;
            if (!ours) {
                peer.send(bytes);
            } else if (!FarPeer::isAck(FarPeer::decode(bytes))) {
                sessions->getSession(id)->send(
                        false, side == "A" ? question(id, given) : answer(given), 1);
                ++given;
            }
            clock.settle();
            if (!ours) continue;
            ASSERT_GT(callback->sentCount(), written) << words;
            EXPECT_EQ(callback->sent()[written++], bytes) << words;
        }
        EXPECT_EQ(callback->sentCount(), written);
        EXPECT_EQ(queue->awaitingAck() + queue->owedAcks(), 0U);
        EXPECT_EQ(callback->deliveries().size(), side == "A" ? 1U : 6U);
    }

    static std::shared_ptr<VeskFrame> question(uint16_t session, size_t number) {
        auto asked = frame(static_cast<uint16_t>(201 + number), REQUEST, session);
        asked->serialNumber = static_cast<uint16_t>(number);
        if (number == 0) asked->data = {'h', 'e', 'l', 'l', 'o'};
        return asked;
    }

    std::shared_ptr<VeskFrame> answer(size_t number) const {
        auto reply = hostkit::Responder(*callback->deliveries().at(0).frame)
                             .reply({'H', 'E', 'L', 'L', 'O'});
        reply->serialNumber = static_cast<uint16_t>(number);
        return reply;
    }

    ProtocolPage const mPage;
};

TEST_F(ProtocolPageTest, BothSidesOfTheExchangeWriteWhatThePageSays) {
    vesk->createTopic("test", false);
    play("A");
    sessions->removeSessionByClient(1);
    callback->clear();
    vesk->onChannelAvailable(false);
    play("B");
}

TEST_F(ProtocolPageTest, ItsFramesAreWhatItCallsThem) {
    hostkit::FrameText const text(*vesk->getConfig());
    for (ProtocolPage::Block const& block : mPage.blocks("frame")) {
        std::vector<uint8_t> bytes;
        for (auto const& line : block.lines)
            bytes.insert(bytes.end(), line.bytes.begin(), line.bytes.end());
        VeskFrame frame;
        ASSERT_TRUE(frame.unSerialze(bytes));
        EXPECT_EQ(text.line(frame), block.title);
        EXPECT_NO_THROW(FarPeer::decode(bytes));
    }
}

TEST_F(ProtocolPageTest, ItsCatalogueIsTheLibrarys) {
    std::regex const row("\n\\| (\\d+) \\| (\\w+) \\| (\\d+) \\| (\\w+) \\|");
    VeskConfig const& catalogue = *vesk->getConfig();
    int rows = 0, supported = 0;
    for (std::sregex_iterator next(mPage.text().begin(), mPage.text().end(), row), end; next != end;
         ++next, ++rows) {
        int const topic = std::stoi((*next)[1]), business = std::stoi((*next)[3]);
        EXPECT_EQ(catalogue.getTopicIdById(topic), (*next)[2]);
        EXPECT_EQ(catalogue.getBussinessIdById(topic, business), (*next)[4]);
    }
    for (uint32_t ids = 0; ids <= UINT16_MAX; ++ids) {
        if (catalogue.isBussinessSupport(uint16_t(ids / 256), uint16_t(ids % 256))) ++supported;
    }
    EXPECT_EQ(rows, supported);
}

}  // namespace vesk
