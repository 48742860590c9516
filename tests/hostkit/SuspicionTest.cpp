#include <functional>

#include <gtest/gtest.h>
#include <vesk/hostkit/HostStatus.h>

namespace vesk::hostkit {

// What stands in a status, and the sentences that it gives rise to.
TEST(SuspicionTest, EachNamesItsCauseAndAHostThatIsWellHasNone) {
    using Sentences = std::vector<std::string>;
    std::string const silent = " frames: it is not reading or does not acknowledge";
    std::string const lossy = " frames: it loses some, or is slow to acknowledge";
    struct Row {
        std::function<void(HostStatus&)> stage;
        Sentences expected;
    } const rows[] = {
            {[](auto& s) { s.awaitingAck = 99; }, {}},
            {[](auto& s) { s.awaitingAck = 100; }, {"the peer has acknowledged 0 of 100" + silent}},
            {[](auto& s) { s.awaitingAck = 1000, s.timedOut = 2001; },
             {"the peer has acknowledged 0 of 3,001" + silent}},
            {[](auto& s) { s.timedOut = 1; }, {"the peer has acknowledged 0 of 1" + silent}},
            {[](auto& s) { s.awaitingAck = 900, s.acknowledged = 1; }, {}},
            {[](auto& s) { s.acknowledged = 1000000, s.timedOut = 100000; }, {}},
            {[](auto& s) { s.acknowledged = 1000000, s.timedOut = 100001, s.awaitingAck = 5; },
             {"the peer has acknowledged 1,000,000 of 1,100,006" + lossy}},
            {[](auto& s) { s.up = false; }, {"the channel is down"}},
            {[](auto& s) { s.up = false, s.channelMillis = 12999, s.backlog = 1 << 20; },
             {"the channel is down since 12 s"}},
            {[](auto& s) { s.skippedBytes = 20, s.traffic[3].in.bytes = 980; },
             {"2 % of the bytes belong to no frame"}},
            {[](auto& s) { s.skippedBytes = 1, s.traffic[0].in.bytes = 980; },
             {"less than 1 % of the bytes belong to no frame"}},
            {[](auto& s) { s.skippedBytes = 10, s.traffic[1].in.bytes = 990; },
             {"1 % of the bytes belong to no frame"}},
            {[](auto& s) { s.backlog = 262143; }, {}},
            {[](auto& s) { s.backlog = 262144; },
             {"262,144 bytes wait for the channel: the peer does not read"}},
            {[](auto& s) { s.dropped = 1234; },
             {"1,234 frames were dropped because 1,000 were pending"}},
            {[](auto& s) { s.dropped = 1; }, {"1 frames were dropped because 1,000 were pending"}},
            {[](auto& s) {
                 s.businesses = {{"a", "b", 0, 0, 1}, {"c", "d", 9, 1, 2}, {"e", "f", 1, 0, 0}};
             },
             {"requests for a/b arrive and nobody provides it"}},
            {[](auto& s) {
                 s.slowClients = {{7, 1, 1000}, {9, 1, 0}};
             },
             {"client 7 does not read", "client 9 does not read"}},
    };
    for (Row const& row : rows) {
        HostStatus status;
        row.stage(status);
        EXPECT_EQ(status.suspicions(), row.expected) << status.text();
    }
}

}  // namespace vesk::hostkit
