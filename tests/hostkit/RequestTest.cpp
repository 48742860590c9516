#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include <vesk/hostkit/Requester.h>
#include <vesk/hostkit/Responder.h>
#include <vesk/testkit/Await.h>
#include <vesk/testkit/ShiftedClock.h>

using namespace vesk;
using namespace vesk::hostkit;
using Outcome = Requester::Outcome;
using FramePtr = std::shared_ptr<VeskFrame>;

class RequestTest : public testing::Test {
protected:
    auto ask(char name, uint64_t timeout, Requester::Bytes payload = {}) {
        return requester->ask(SESSION, std::move(payload), timeout,
                              [=](Outcome outcome, FramePtr const& reply) {
                                  events += {' ', name, "RTC"[int(outcome)]};
                                  if (reply) events += char(reply->data.at(0));
                                  if (name == 'c') requester.reset();
                              });
    }
    bool reply(size_t to, uint8_t payload = 'x') {
        return requester->received(Responder(*sent[to]).reply({payload}));
    }
    void expectCall(Outcome outcome, std::function<void()> const& meanwhile) {
        Outcome result{};
        std::atomic<bool> asked{false};
        onSend = [&] { asked = true; };
        std::thread caller([&] { result = requester->call(SESSION, {}, 100).outcome; });
        EXPECT_TRUE(testkit::eventually([&] { return asked.load(); }));
        meanwhile();
        caller.join();
        EXPECT_EQ(result, outcome);
    }
    Requester::Address const SESSION{2, 1, 7};
    testkit::ShiftedClock clock;
    MessageIds ids{65534};
    std::vector<FramePtr> sent;
    std::function<void()> onSend = [] {};
    std::string events;
    std::unique_ptr<Requester> requester =
            std::make_unique<Requester>(ids, [this](FramePtr const& frame) {
                sent.push_back(frame);
                onSend();
            });
};

TEST_F(RequestTest, EachEndsOnceWithItsOwnReplyOrWithNone) {
    EXPECT_EQ(requester->nextTimeout(), std::nullopt);
    ask('a', 500);
    ask('b', 200);
    auto const c = ask('c', UINT64_MAX);
    ask('d', 100);
    EXPECT_EQ(ask('e', 1, Requester::Bytes(65536)), std::nullopt);
    EXPECT_EQ(requester->nextTimeout(), 100U);
    requester->expire();
    FramePtr const wrong = Responder(*sent[0]).reply({});
    for (uint8_t* field : {&wrong->topicId, &wrong->businessId, &wrong->msgType,
                           reinterpret_cast<uint8_t*>(&wrong->reply)}) {
        *field ^= 1;
        EXPECT_FALSE(requester->received(wrong));
        *field ^= 1;
    }
    EXPECT_TRUE(reply(0, '1'));
    EXPECT_FALSE(reply(0, '2'));
    clock.jump(300);
    EXPECT_EQ(requester->nextTimeout(), 0U);
    requester->expire();
    EXPECT_TRUE(reply(1, '3'));
    EXPECT_FALSE(reply(1, '4'));
    EXPECT_EQ(requester->lateReplies(), 1U);
    EXPECT_EQ(events, " aR1 dT bT");
    EXPECT_EQ(requester->outstanding(), 1U);
    onSend = [&] { reply(4); };
    ask('f', 1);
    EXPECT_TRUE(requester->cancel(*c));  // its callback destroys the requester
    EXPECT_EQ(events, " aR1 dT bT fRx cC");
    EXPECT_EQ(requester, nullptr);
}

TEST_F(RequestTest, BlocksOnlyOnAThreadThatDoesNotReadTheChannel) {
    onSend = [&] { reply(sent.size() - 1); };
    EXPECT_EQ(requester->call(SESSION, {'?'}, 100).reply->data, Requester::Bytes{'x'});
    EXPECT_EQ(sent[0]->data, Requester::Bytes{'?'});
    onSend = [&] { clock.jump(100); };
    EXPECT_EQ(requester->call(SESSION, {}, 100).outcome, Outcome::TIMED_OUT);
    EXPECT_EQ(requester->call(SESSION, Requester::Bytes(65536), 100).outcome, Outcome::NOT_SENT);
    expectCall(Outcome::REPLIED, [&] { reply(2); });
    EXPECT_EQ(requester->call(SESSION, {}, 100).outcome, Outcome::WRONG_THREAD);
    EXPECT_EQ(sent.size(), 3U);
    expectCall(Outcome::TIMED_OUT, [&] {
        clock.jump(100);
        requester->expire();
    });
    expectCall(Outcome::CANCELLED, [&] { requester.reset(); });
}

TEST_F(RequestTest, AnIdIsInUseUntilNothingCanComeForItAnyMore) {
    std::vector<MessageIds::Ticket> tickets;
    std::set<uint16_t> distinct{0};
    while (auto const ticket = ids.take()) {
        tickets.push_back(*ticket);
        distinct.insert(ticket->msgId);
    }
    EXPECT_EQ(distinct.size(), 65536U);
    EXPECT_EQ(ask('a', 1), std::nullopt);
    ids.answered(tickets[3]);
    ids.givenUp(tickets[4]);
    ids.givenUp(tickets[5]);
    clock.jump(1000);
    ids.answered(tickets[5]);  // the late reply
    struct {
        int64_t millis;
        size_t free;
    } const steps[] = {{999, 0}, {1, 1}, {999, 1}, {1, 2}, {56999, 2}, {1, 3}};
    for (auto const& step : steps) {
        clock.jump(step.millis);
        EXPECT_EQ(ids.available(), step.free);
    }
    EXPECT_EQ(ids.take()->msgId, tickets[3].msgId);
    ids.answered(tickets[3]);  // that use of it is over
    clock.jump(2000);
    EXPECT_EQ(ids.available(), 2U);
    ask('b', 0);
    ask('d', 0);
    requester->expire();  // both ids are given up, and one is asked for again
    reply(0);
    clock.jump(2000);
    EXPECT_EQ(ids.available(), 1U);
}

TEST_F(RequestTest, IsAnsweredOnceToTheSessionThatAsked) {
    ask('a', 1);
    Responder responder(*sent[0]), copy = responder;
    EXPECT_EQ(responder.reply(Requester::Bytes(65536)), nullptr);
    EXPECT_FALSE(copy.answered());
    FramePtr const reply = copy.reply({'y'});
    EXPECT_EQ(responder.reply({'z'}), nullptr);
    EXPECT_TRUE(responder.answered());
    std::vector<int> const fields{reply->topicId,     reply->businessId, reply->msgType,
                                  reply->reply,       reply->msgId,      reply->data.at(0),
                                  reply->serialNumber};
    EXPECT_EQ(fields,
              (std::vector<int>{2, 1, 3, 7, 65534, 'y', uint16_t(sent[0]->serialNumber + 1)}));
    EXPECT_EQ(Responder(*reply).reply({}), nullptr);
}
