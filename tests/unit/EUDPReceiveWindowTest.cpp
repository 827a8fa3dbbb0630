#include "EUDPReceiveWindow.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

typedef EUDPReceiveWindow W;

EUDPPacket dataPacket(uint arg, const std::string& payload)
{
    EUDPPacket packet(EUDP_CMD);
    packet.setArg(arg);
    packet.setData(reinterpret_cast<const uint8*>(payload.data()),
                   static_cast<uint>(payload.size()));
    return packet;
}

struct Arrival
{
    EConnMode mode;
    int expected;
    uint arg;
    const char* payload;
    // What the window makes of it:
    W::EArrival arrival;
    EEUDPCommand answer;
    uint answerArg;
    bool stored;
    int expectedAfter;
};

TEST(EUDPReceiveWindowTest, EachArrivingNumberIsTakenDroppedOrAnsweredByItsPlaceAndTheMode)
{
    const EConnMode T = CONN_MODE_REALTIME, R = CONN_MODE_RELIABLE;
    const Arrival table[] = {
        // Real-time: anything newer is taken, gaps skipped, no answer...
        {T, 5, 5, "a", W::ARRIVAL_IN_ORDER, EUDP_UNKNOWN, 0, true, 6},
        {T, 5, 8, "a", W::ARRIVAL_AHEAD, EUDP_UNKNOWN, 0, true, 9},
        {T, 0, 32767, "a", W::ARRIVAL_AHEAD, EUDP_UNKNOWN, 0, true, 32768},
        // ...but a keep-alive is answered with NOP and stores nothing.
        {T, 5, 5, "", W::ARRIVAL_IN_ORDER, EUDP_NOP, 0, false, 6},
        // Duplicates, in either mode, are acknowledged with the number as it came.
        {T, 5, 4, "a", W::ARRIVAL_DUPLICATE, EUDP_ACK, 4, false, 5},
        {R, 0, 65534, "a", W::ARRIVAL_DUPLICATE, EUDP_ACK, 65534, false, 0},
        {R, 3, 65535 + 2, "a", W::ARRIVAL_DUPLICATE, EUDP_ACK, 65537, false, 3},
        {T, 0, 32768, "a", W::ARRIVAL_DUPLICATE, EUDP_ACK, 32768, false, 0},
        // Reliable: only the number expected, acknowledged; a gap is NAKed.
        {R, 5, 5, "a", W::ARRIVAL_IN_ORDER, EUDP_ACK, 5, true, 6},
        {R, 5, 5, "", W::ARRIVAL_IN_ORDER, EUDP_ACK, 5, false, 6},
        {R, 5, 8, "a", W::ARRIVAL_GAP, EUDP_NAK, 5, false, 5},
        {R, 65534, 65534, "a", W::ARRIVAL_IN_ORDER, EUDP_ACK, 65534, true, 0},
        {R, 65533, 1, "a", W::ARRIVAL_GAP, EUDP_NAK, 65533, false, 65533},
    };
    for (const Arrival& row : table)
    {
        SCOPED_TRACE(testing::Message() << char(row.mode) << " expecting " << row.expected
                                        << ", got " << row.arg << " '" << row.payload << "'");
        W window(EUDP_RING_CAPACITY);
        window.restart(ModuloValue(row.expected));
        const W::Verdict verdict = window.receive(dataPacket(row.arg, row.payload), row.mode);
        EXPECT_EQ(verdict.arrival, row.arrival);
        EXPECT_EQ(verdict.answer, row.answer);
        EXPECT_EQ(verdict.answerArg, row.answerArg);
        EXPECT_EQ(verdict.stored, row.stored);
        EXPECT_EQ(window.expected().getValue(), row.expectedAfter);
        EXPECT_EQ(window.stored(), row.stored ? 1u : 0u);
    }
}

TEST(EUDPReceiveWindowTest, AFullWindowDropsWithoutAnswerAndStillExpectsThatNumber)
{
    W window(EUDP_RING_CAPACITY);
    window.restart(ModuloValue(1));
    for (uint seq = 1; seq <= 999; ++seq)
    {
        ASSERT_TRUE(
            window.receive(dataPacket(seq, std::to_string(seq)), CONN_MODE_RELIABLE).stored);
    }
    const W::Verdict full = window.receive(dataPacket(1000, "1000"), CONN_MODE_RELIABLE);
    EXPECT_EQ(full.arrival, W::ARRIVAL_FULL);
    EXPECT_EQ(full.answer, EUDP_UNKNOWN);
    EXPECT_EQ(window.expected().getValue(), 1000);
    // Handed out oldest first; the room is used again.
    const EUDPPacket& oldest = window.oldest();
    EXPECT_EQ(
        std::string(reinterpret_cast<const char*>(oldest.getPayload()), oldest.getPayloadLength()),
        "1");
    window.dropOldest();
    EXPECT_TRUE(window.receive(dataPacket(1000, "1000"), CONN_MODE_RELIABLE).stored);
    EXPECT_EQ(window.stored(), 999u);
}

} // namespace
