#include <gtest/gtest.h>

#include <map>
#include <thread>

#include <vesk/Vesk.h>
#include <vesk/hostkit/Requester.h>
#include <vesk/hostkit/Responder.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

using namespace vesk;
using namespace vesk::hostkit;
using Outcome = Requester::Outcome;
using FramePtr = std::shared_ptr<VeskFrame>;

struct RequestTest : testing::Test {
    auto ask(char name, uint64_t timeout, Requester::Bytes payload = {}) {
        auto const done = [=](Outcome outcome, FramePtr const& frame) {
            events += {' ', name, "RTC"[int(outcome)], frame ? char(frame->data.at(0)) : '-'};
            if (name == 'c') requester.reset();
            if (name == 'g') events += over->ask(SESSION, {}, 1, {}) ? '!' : '.';
        };
        return requester->ask(SESSION, std::move(payload), timeout, done);
    }
    bool reply(size_t to, uint8_t payload = 'x') {
        return requester->received(Responder(*sent[to]).reply({payload}));
    }
    Outcome call(Requester::Bytes payload = {}) {
        return requester->call(SESSION, std::move(payload), 100).outcome;
    }
    Requester::Address const SESSION{2, 1, 7};
    testkit::ShiftedClock clock{nullptr, uint64_t{5} << 32};
    MessageIds ids{65534};
    std::vector<FramePtr> sent;
    std::function<void()> onSend = [] {};
    std::string events;
    Requester::Send const send = [this](auto const& frame) { sent.push_back(frame), onSend(); };
    std::unique_ptr<Requester> requester = std::make_unique<Requester>(ids, send);
    Requester* const over = requester.get();  // also where it is being destroyed
};

TEST_F(RequestTest, EachEndsOnceWithItsOwnReplyOrWithNone) {
    EXPECT_EQ(requester->nextTimeout(), std::nullopt);
    ask('a', 500);
    ask('b', 200);
    auto const c = ask('c', uint64_t{1} << 40);
    ask('d', 100);
    EXPECT_EQ(ask('e', 1, Requester::Bytes(65536)), std::nullopt);
    EXPECT_EQ(requester->nextTimeout(), 100U);
    requester->expire();
    Responder responder(*sent[0]), copy = responder;
    EXPECT_FALSE(copy.send(0, Requester::Bytes(65536)));  // too much to be an answer
    FramePtr const wrong = copy.reply({'y'});
    EXPECT_TRUE(responder.answered() && !responder.reply({}) && !responder.send(0, {}));
    EXPECT_EQ(Responder(*wrong).reply({}), nullptr);  // it is no request
    EXPECT_EQ(wrong->serialNumber, uint16_t(sent[3]->serialNumber + 1));
    auto* const session = reinterpret_cast<uint8_t*>(&wrong->reply);
    for (uint8_t* field : {&wrong->topicId, &wrong->businessId, &wrong->msgType, session}) {
        *field ^= 1;
        EXPECT_FALSE(requester->received(wrong));
        *field ^= 1;
    }
    EXPECT_TRUE(requester->received(wrong));
    EXPECT_TRUE(Responder(*sent[0]).send(0, {}));  // also where the session is gone
    EXPECT_FALSE(reply(0, '2'));
    clock.jump(300);
    EXPECT_EQ(requester->nextTimeout(), 0U);
    requester->expire();
    EXPECT_TRUE(reply(1, '3'));
    EXPECT_FALSE(reply(1, '4'));
    EXPECT_EQ(requester->nextTimeout(), (uint64_t{1} << 40) - 300);
    onSend = [&] { reply(4); };
    ask('f', 1);
    onSend = [] {};
    ask('g', UINT64_MAX);
    requester->expire();
    EXPECT_TRUE(requester->outstanding() == 2 && requester->lateReplies() == 1);
    EXPECT_TRUE(requester->cancel(*c));  // its callback destroys the requester
    EXPECT_EQ(events, " aRy dT- bT- fRx cC- gC-.");
    EXPECT_EQ(requester, nullptr);
}

// What really waits is in examples/stream_host.cpp.
TEST_F(RequestTest, CallIsRefusedToTheThreadThatReadsTheChannelAlone) {
    onSend = [&] { reply(sent.size() - 1); };
    EXPECT_EQ(requester->call(SESSION, {'?'}, 100).reply->data, Requester::Bytes{'x'});
    EXPECT_EQ(sent[0]->data, Requester::Bytes{'?'});
    EXPECT_EQ(call(Requester::Bytes(65536)), Outcome::NOT_SENT);
    onSend = [&] { clock.jump(100); };
    EXPECT_EQ(call(), Outcome::TIMED_OUT);
    requester->received(nullptr);
    EXPECT_EQ(call(), Outcome::WRONG_THREAD);
    std::thread([&] { requester->received(nullptr, true); }).join();  // it has only sent
    EXPECT_EQ(call(), Outcome::WRONG_THREAD);
    EXPECT_EQ(sent.size(), 2U);
    std::thread([&] { requester->received(nullptr); }).join();
    onSend = [&] { requester.reset(); };
    EXPECT_EQ(call(), Outcome::CANCELLED);
}

TEST_F(RequestTest, AnIdIsInUseUntilNothingCanComeForItAnyMore) {
    std::map<uint16_t, MessageIds::Ticket> tickets;
    while (auto const ticket = ids.take())
        tickets[ticket->msgId] = *ticket;
    EXPECT_TRUE(tickets.size() == 65535 && tickets.count(0) == 0);
    EXPECT_EQ(ask('a', 1), std::nullopt);
    ids.answered(tickets[3]);
    ids.givenUp(tickets[4]);
    ids.givenUp(tickets[5]);
    clock.jump(1000);
    ids.answered(tickets[5]);  // the late reply
    size_t free = 0;
    for (int const millis : {999, 1, 999, 1, 56999, 1}) {
        clock.jump(millis);
        EXPECT_EQ(ids.available(), millis == 1 ? ++free : free);
    }
    EXPECT_EQ(ids.take()->msgId, 3);
    for (uint16_t const id : {uint16_t{3}, uint16_t{4}})
        ids.answered(tickets[id]);  // it is in use again, or free
    clock.jump(2000);
    EXPECT_EQ(ids.available(), 2U);
    ask('b', 0);
    EXPECT_FALSE(requester->cancel(tickets[sent[0]->msgId]));  // nor is this one's use of it
    ask('d', 0);
    requester->expire();  // both ids are given up, and one is asked for again
    reply(0);
    clock.jump(2000);
    EXPECT_EQ(ids.available(), 1U);
    clock.jump(58000);
    Requester other(ids, send);
    free = 3;
    for (int i = 0; i < 2; ++i) {
        other.ask(SESSION, {}, 1, [&](Outcome, FramePtr const&) {
            clock.jump(60000);  // all that were given up are free; an id that was not is in use
            free = std::min(free, ids.available());
        });
    }
    EXPECT_FALSE(reply(2) || reply(3));  // to the other's requests, whatever their ids were before
    clock.jump(1);
    other.expire();
    EXPECT_EQ(free, 2U);
}

TEST(ToPeerTest, RequestsLeaveAtOnceThroughTheirSessionsWithTheIdsOfTheProcess) {
    // The first id is 1 + what is left of this when it is divided by 65535.
    testkit::ShiftedClock clock(nullptr, (uint64_t{1} << 40) - 256 + 65534);
    android::sp<testkit::RecordingCallback> const peer = new testkit::RecordingCallback;
    Vesk& vesk = *Vesk::getInstance();
    vesk.init(peer);
    vesk.createTopic("test", false);
    auto const id = vesk.getSessionManager()->createSession(1, 1, "test", "test", false);
    Requester requester;
    for (auto const session : {uint16_t(id), uint16_t(99), uint16_t(id)})
        requester.ask({2, 1, session}, {'?'}, 1, {});
    clock.settle();
    ASSERT_EQ(peer->sentCount(), 2U);
    EXPECT_EQ(peer->sent()[0][10] << 8 | peer->sent()[0][11], 65535);
    EXPECT_EQ(peer->sent()[1][10] | peer->sent()[1][11] << 8, 2);
    vesk.init(new testkit::RecordingCallback);
}
