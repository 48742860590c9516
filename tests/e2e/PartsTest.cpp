// What the commands are made of, in this process.

#include <set>

#include "NoReply.h"
#include "PayloadSource.h"
#include "support/Scene.h"

namespace vesk::e2e {

class PartsTest : public Scene {};

TEST_F(PartsTest, APayloadIsWhatTheOptionsSayUpToItsSize) {
    using tool::PayloadSource;
    tool::CallOptions file, data, random;
    file.file = path("payload");
    EXPECT_THROW(PayloadSource{file}, tool::UsageError);
    for (size_t const size : {size_t{MAX_PAYLOAD_SIZE}, size_t{MAX_PAYLOAD_SIZE} + 1}) {
        data.data = std::string(size, 'x');
        std::ofstream(file.file) << *data.data;
        for (tool::CallOptions const& options : {file, data}) {
            if (size > MAX_PAYLOAD_SIZE) {
                EXPECT_THROW(PayloadSource{options}, tool::UsageError);
            } else {
                EXPECT_EQ(PayloadSource(options).next(), Bytes(size, 'x'));
            }
        }
    }
    for (size_t const most : {0U, 1U, 65535U}) {
        random.randomSize = most;
        PayloadSource source(random);
        std::set<size_t> sizes;
        std::set<uint8_t> bytes;
        for (int i = 0; i < 300; ++i) {
            Bytes const payload = source.next();
            sizes.insert(payload.size());
            bytes.insert(payload.begin(), payload.end());
        }
        EXPECT_LE(*sizes.rbegin(), most);
        if (most < 2) {
            EXPECT_EQ(sizes.size(), most + 1);
        } else {
            EXPECT_LT(*sizes.begin(), 20U);
            EXPECT_GT(*sizes.rbegin(), most / 4) << "there are as many long ones as short ones";
            EXPECT_EQ(bytes.size(), 256U);
        }
    }
}

TEST_F(PartsTest, WhyNoReplyCameIsToldByWhatTheHostCounts) {
    for (auto const& [status, lost, waited, exitStatus, reason] :
         {std::tuple{R"("up":false,"channelMs":12999)", 1, 5000, 4, "channel is down since 12 s"},
          {R"("up":true,"acknowledged":0,"awaitingAck":0)", 1, 501, 6, "see whether it runs"},
          {R"("up":true,"acknowledged":0,"awaitingAck":0)", 1, 500, 6, "a longer --timeout"},
          {R"("acknowledged":9,"awaitingAck":1,"pending":1)", 2, 1999, 6, "not acknowledged"},
          {R"("acknowledged":9,"awaitingAck":1,"pending":1)", 3, 1999, 7, "nobody answered"},
          {R"("acknowledged":9,"awaitingAck":1,"pending":1)", 2, 2000, 7, "nobody answered"},
          {R"("acknowledged":9,"timedOut":2)", 2, 2000, 6, "the peer has not acknowledged"},
          {R"("acknowledged":9,"timedOut":2)", 3, 2000, 7, "whether test/test is provided"},
          {R"("up":false,"localTopics":["testing","test"])", 1, 1, 5, "provides test/test on this"},
          {R"("localTopics":["test"],"sessions":[{"topic":"test","business":"other",)"
           R"("providers":1},{"topic":"test","business":"test","providers":1}])",
           1, 1, 7, "its provider on this host has not answered"},
          {R"("localTopics":["test"],"sessions":[{"topic":"test","business":"test",)"
           R"("providers":0}])",
           1, 1, 5, "nobody provides test/test"},
          {R"("frames":{"timedOut":9},"acknowledged":9,"timedOut":null)", 1, 1, 7, "answered"},
          {R"("up":"no")", 1, 1, 1, "what the host tells of its state is not understood"}}) {
        auto const why = tool::NoReply::explain("{" + std::string(status) + "}", "test/test",
                                                size_t(lost), size_t(waited));
        EXPECT_EQ(why.exitStatus, exitStatus) << why.reason;
        EXPECT_NE(why.reason.find(reason), std::string::npos) << why.reason;
    }
}

}  // namespace vesk::e2e
