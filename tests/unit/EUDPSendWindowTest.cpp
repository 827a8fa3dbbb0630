// The send side of the protocol on plain values, with the time passed in.
// Delivery through loss is ReliabilityTest's and LetterPeerTest's over
// sockets; the switch from real-time to reliable sending is the cases here.

#include "EUDPSendWindow.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using TimePoint = EUDPSendWindow::TimePoint;

const TimePoint START = TimePoint{} + 1h;
constexpr auto RETRANSMIT = 500ms;

// The numbers of the datagrams handed out until none may go; "e<n>" marks
// an empty one.
std::vector<std::string> drainReliable(EUDPSendWindow& window, int size, TimePoint now)
{
    std::vector<std::string> sent;
    while (const EUDPPacket* packet = window.nextReliable(size, now))
    {
        sent.push_back((packet->getPayloadLength() == 0 ? "e" : "") +
                       std::to_string(packet->getArg()));
    }
    return sent;
}

std::vector<std::string> numbers(int from, int to)
{
    std::vector<std::string> result;
    for (int n = from; n <= to; ++n)
    {
        result.push_back(std::to_string(n % 65535));
    }
    return result;
}

void queueMessages(EUDPSendWindow& window, int count)
{
    const uint8 byte = 'x';
    for (int i = 0; i < count; ++i)
    {
        window.queue(&byte, 1);
    }
}

TEST(EUDPSendWindowTest, TheWindowBoundsWhatIsInFlightAndAnAckFreesEverythingUpToItsNumber)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.restart(ModuloValue(65530), ModuloValue(65529));
    window.startReliable();
    queueMessages(window, 15);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(65530, 65539)); // across the wrap
    EXPECT_EQ(window.onAck(ModuloValue(2), START).freed, 8u);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(65540, 65544));

    // Numbers already acknowledged, or never queued, change nothing.
    for (int stale : {2, 65531, 10, 60000, -1})
    {
        EXPECT_FALSE(window.onAck(ModuloValue(stale), START).accepted) << stale;
    }
    EXPECT_EQ(window.onAck(ModuloValue(9), START).freed, 7u);
    EXPECT_TRUE(window.isEmpty());
    EXPECT_FALSE(window.retransmitDue());
}

TEST(EUDPSendWindowTest, AWriterWaitingForRoomIsWokenForABurstOrWhenTheLinkWouldIdle)
{
    EUDPSendWindow window(200, RETRANSMIT); // holds 199
    window.restart(ModuloValue(0), ModuloValue(65534));
    window.startReliable();
    queueMessages(window, 199);
    EXPECT_EQ(drainReliable(window, 64, START).size(), 64u);
    window.onAck(ModuloValue(62), START); // 63 free, 136 wait for the window
    EXPECT_FALSE(window.roomForWriter());
    window.onAck(ModuloValue(63), START);
    EXPECT_TRUE(window.roomForWriter());
    queueMessages(window, 64); // full again, then all of it on the wire:
    EXPECT_EQ(drainReliable(window, 1000, START).size(), 199u);
    window.onAck(ModuloValue(64), START);
    EXPECT_TRUE(window.roomForWriter()); // one free slot keeps the link busy
}

TEST(EUDPSendWindowTest, ARepeatFallsDueATimeOutAfterTheLatestAcknowledgementThatFreedAPacket)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.startReliable();
    queueMessages(window, 3);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(0, 2));
    ASSERT_TRUE(window.onAck(ModuloValue(0), START + 1ms).accepted);
    // 1 and 2 left at START, but the peer is still answering.
    EXPECT_EQ(window.retransmitDue(), START + 1ms + window.roundTrip().timeout());
}

TEST(EUDPSendWindowTest, WhenNothingComesBackTheNewestOrTheMissingPacketGoesOnceMoreARoundTripLater)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.connectionSent(START - 3ms, false);
    window.acknowledgeConnection(ModuloValue(-1), START);
    const auto interval = *window.roundTrip().probeInterval();
    EXPECT_LT(interval, window.roundTrip().timeout());
    window.startReliable();
    queueMessages(window, 20);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(0, 9));
    // The window is full and nothing came back: the newest goes again, once.
    ASSERT_EQ(window.probeDue(), START + interval);
    window.probe(START + interval);
    EXPECT_EQ(drainReliable(window, 10, START + interval), numbers(9, 9));
    EXPECT_FALSE(window.probeDue());
    // Its acknowledgement frees the window and arms the probe again.
    const TimePoint acked = START + interval + 1ms;
    ASSERT_EQ(window.onAck(ModuloValue(9), acked).freed, 10u);
    EXPECT_EQ(drainReliable(window, 10, acked), numbers(10, 19));
    EXPECT_EQ(window.probeDue(), acked + interval);
    // While a gap is filled it is the repeat that goes once more, a round
    // trip after it went.
    const TimePoint resent = acked + 1ms;
    EXPECT_EQ(window.onNak(ModuloValue(10), resent), EUDPSendWindow::NAK_RESEND);
    EXPECT_EQ(drainReliable(window, 10, resent), numbers(10, 10));
    ASSERT_EQ(window.probeDue(), resent + interval);
    window.probe(resent + interval);
    EXPECT_EQ(drainReliable(window, 10, resent + interval), numbers(10, 10));
    EXPECT_FALSE(window.probeDue());
}

TEST(EUDPSendWindowTest, WhileAGapIsFilledNewPacketsGoOnlyAsFarAsAReceiverKeepsAfterIt)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.startReliable();
    queueMessages(window, 200);
    EXPECT_EQ(drainReliable(window, 100, START), numbers(0, 99));
    ASSERT_EQ(window.onNak(ModuloValue(50), START), EUDPSendWindow::NAK_RESEND);
    std::vector<std::string> expected = numbers(100, 113); // 64 after the gap, not 100
    expected.insert(expected.begin(), "50");
    EXPECT_EQ(drainReliable(window, 100, START), expected);
    ASSERT_TRUE(window.onAck(ModuloValue(99), START + 1ms).accepted);
    EXPECT_EQ(drainReliable(window, 100, START + 1ms), numbers(114, 199));
}

TEST(EUDPSendWindowTest, ANakRepeatsTheMissingPacketOnceWhileNewPacketsKeepTheWindowFull)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.startReliable();
    queueMessages(window, 16);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(0, 9));
    // The NAK says 0-2 arrived: the gap goes again, then new packets fill the
    // window it frees. The NAKs of the packets after the gap ask for nothing
    // new until a time-out has passed.
    EXPECT_EQ(window.onNak(ModuloValue(3), START), EUDPSendWindow::NAK_RESEND);
    EXPECT_EQ(window.lastAcked().getValue(), 2);
    EXPECT_EQ(drainReliable(window, 10, START), (std::vector<std::string>{"3", "10", "11", "12"}));
    EXPECT_EQ(window.onNak(ModuloValue(3), START + 1ms), EUDPSendWindow::NAK_REPEATED);
    EXPECT_TRUE(drainReliable(window, 10, START + 1ms).empty());
    EXPECT_EQ(window.onNak(ModuloValue(16), START), EUDPSendWindow::NAK_IMPOSSIBLE);
    // Still asked for a round trip later (the floor, before any is measured):
    // the repeat was lost too.
    EXPECT_EQ(window.onNak(ModuloValue(3), START + 10ms), EUDPSendWindow::NAK_RESEND);
    EXPECT_EQ(drainReliable(window, 10, START + 10ms), numbers(3, 3));

    // The peer kept 4 and 5 but lacks 6, which left before the NAK: lost too.
    ASSERT_TRUE(window.onAck(ModuloValue(5), START + 12ms).accepted);
    EXPECT_EQ(drainReliable(window, 10, START + 12ms),
              (std::vector<std::string>{"6", "13", "14", "15"}));
    EXPECT_EQ(window.onNak(ModuloValue(4), START + 12ms), EUDPSendWindow::NAK_ACKED);
    // This peer keeps packets after a gap: an acknowledgement of the repeat
    // alone means the next one is lost too, not that the rest must come again.
    ASSERT_TRUE(window.onAck(ModuloValue(6), START + 13ms).accepted);
    EXPECT_EQ(drainReliable(window, 10, START + 13ms), numbers(7, 7));
    // Once everything sent before the loss is acknowledged, the recovery is
    // over and the next NAK repeats at once.
    ASSERT_TRUE(window.onAck(ModuloValue(12), START + 14ms).accepted);
    EXPECT_EQ(window.onNak(ModuloValue(13), START + 14ms), EUDPSendWindow::NAK_RESEND);
    EXPECT_EQ(drainReliable(window, 10, START + 14ms), numbers(13, 13));
    // Silence: only the oldest goes again, even with the window open; if it
    // was all that arrived, the rest follows in one pass.
    window.goBack(START + 1s);
    EXPECT_EQ(drainReliable(window, 10, START + 1s), numbers(13, 13));
    ASSERT_TRUE(window.onAck(ModuloValue(13), START + 1s + 1ms).accepted);
    EXPECT_EQ(drainReliable(window, 10, START + 1s + 1ms), numbers(14, 15));
}

TEST(EUDPSendWindowTest, APeerThatKeepsNothingAfterAGapGetsAGoBackAndSilenceRepeatsTheOldestAlone)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    // The answer to a CON sent once measures the round trip; to one sent
    // again it does not.
    window.connectionSent(START - 1s, false);
    window.connectionSent(START - 1s + 1ms, true);
    window.acknowledgeConnection(ModuloValue(-1), START - 1s + 2ms);
    EXPECT_FALSE(window.roundTrip().smoothed());
    window.connectionSent(START - 3ms, false);
    window.acknowledgeConnection(ModuloValue(-1), START);
    EXPECT_EQ(window.roundTrip().smoothed(), std::chrono::microseconds(3ms));
    window.startReliable();
    queueMessages(window, 15);
    EXPECT_EQ(drainReliable(window, 10, START), numbers(0, 9));
    ASSERT_TRUE(window.onAck(ModuloValue(2), START + 1ms).accepted);
    EXPECT_EQ(drainReliable(window, 10, START + 1ms), numbers(10, 12));
    EXPECT_EQ(window.onNak(ModuloValue(3), START + 1ms), EUDPSendWindow::NAK_RESEND);
    EXPECT_EQ(drainReliable(window, 10, START + 1ms), numbers(3, 3)); // the window is full
    // Only the repeated packet was taken: everything after it goes again.
    const TimePoint answered = START + 2ms;
    ASSERT_TRUE(window.onAck(ModuloValue(3), answered).accepted);
    EXPECT_EQ(drainReliable(window, 10, answered), numbers(4, 13));

    // Nothing heard: due one time-out after the oldest unacknowledged packet
    // went, which is measured from the round trip and shorter than the ceiling.
    ASSERT_TRUE(window.onAck(ModuloValue(5), answered).accepted);
    const auto timeout = window.roundTrip().timeout();
    EXPECT_LT(timeout, RETRANSMIT);
    ASSERT_EQ(window.retransmitDue(), answered + timeout);
    window.goBack(answered + timeout);
    EXPECT_EQ(drainReliable(window, 10, answered + timeout), numbers(6, 6));
    EXPECT_EQ(window.roundTrip().timeout(), timeout); // a lost tail is repeated soon
    ASSERT_TRUE(window.onAck(ModuloValue(6), answered + timeout).accepted);
    EXPECT_EQ(drainReliable(window, 10, answered + timeout), numbers(7, 14));

    // A window of 0 lets nothing out, not even after a go-back or a NAK.
    window.goBack(START + 1s);
    EXPECT_TRUE(drainReliable(window, 0, START + 1s).empty());
    EXPECT_EQ(window.onNak(ModuloValue(7), START + 1s), EUDPSendWindow::NAK_RESEND);
    EXPECT_TRUE(drainReliable(window, 0, START + 1s).empty());
    EXPECT_EQ(drainReliable(window, 3, START + 1s), numbers(7, 7));
}

TEST(EUDPSendWindowTest, ReliableSendingTakesOverFromTheOldestPacketAfterAnyRealtimePhase)
{
    for (const int first : {0, 40000, 65534})
    {
        EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
        window.restart(ModuloValue(first), ModuloValue(first).previous());
        // Half the number space and more goes out real-time, with no
        // acknowledgement at all; two packets are still queued at the switch.
        for (int i = 0; i < 40000; ++i)
        {
            queueMessages(window, 1);
            ASSERT_NE(window.takeOldest(), nullptr);
        }
        queueMessages(window, 2);
        window.startReliable();
        const int oldest = (first + 40000) % 65535;
        EXPECT_EQ(drainReliable(window, 10, START), numbers(oldest, oldest + 1)) << first;
    }
}

TEST(EUDPSendWindowTest, APeerWaitingForNumbersSentRealtimeIsBroughtPastThemByEmptyPackets)
{
    EUDPSendWindow window(EUDP_RING_CAPACITY, RETRANSMIT);
    window.restart(ModuloValue(65533), ModuloValue(65532));
    queueMessages(window, 4); // 65533, 65534, 0, 1 go out real-time
    while (window.takeOldest() != nullptr)
    {
    }
    queueMessages(window, 2);
    window.startReliable();
    EXPECT_EQ(drainReliable(window, 10, START), numbers(2, 3));

    // The peer lost 65534 and everything after it: it NAKs 65534 for each
    // later packet. The first NAK sends fillers up to the first reliable
    // number, then the packets the peer dropped; the rest do not repeat it.
    EXPECT_EQ(window.onNak(ModuloValue(65534), START), EUDPSendWindow::NAK_FILL);
    EXPECT_EQ(drainReliable(window, 10, START),
              (std::vector<std::string>{"e65534", "e0", "e1", "2", "3"}));
    EXPECT_EQ(window.onNak(ModuloValue(65534), START + 1ms), EUDPSendWindow::NAK_FILLING);
    EXPECT_TRUE(drainReliable(window, 10, START + 1ms).empty());
    // Lost again: after the retransmission time a NAK fills once more.
    EXPECT_EQ(window.onNak(ModuloValue(65534), START + RETRANSMIT), EUDPSendWindow::NAK_FILL);
    EXPECT_EQ(drainReliable(window, 10, START + RETRANSMIT).size(), 5u);

    // Acknowledged reliable numbers are not filled: the peer has them.
    ASSERT_TRUE(window.onAck(ModuloValue(2), START + RETRANSMIT).accepted);
    EXPECT_EQ(window.onNak(ModuloValue(2), START + 2 * RETRANSMIT), EUDPSendWindow::NAK_ACKED);
}

} // namespace
