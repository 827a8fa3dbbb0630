// What a slow or hostile peer can hold, over real sockets: a message that
// trickles, a peer that takes nothing. Every limit is shortened. (More
// connections than a listener allows: EndToEndTest.)

#include "EUDPTimeouts.h"

#include "support/EudpWire.h"
#include "support/RawUdpSocket.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>
#include <weft/TCPTransport.h>

#include <tavo/TcpSocket.h>

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using eudpwire::modes, eudpwire::packet;

const tavo::HostAddress LOOPBACK("127.0.0.1");

class BoundsTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        EUDPTimeouts limits = timeouts();
        limits.tcpMessage = 300ms;
        limits.sendStall = 200ms;
        EUDPTimeouts::setStandard(limits); // until WeftFixture puts its own back
    }
};

int receiveOnce(IWEFTTransport& transport)
{
    uint8 buffer[WEFT_MAX_PACKET_SIZE];
    return transport.receiveData(buffer, sizeof(buffer));
}

// How many 1400-byte messages were taken before one was refused.
int sendUntilRefused(IWEFTTransport& transport)
{
    const std::vector<uint8> message(1400, 'x');
    int sent = 0;
    while (transport.sendData(message.data(), 1400))
    {
        ++sent;
    }
    return sent;
}

TEST_F(BoundsTest, ATcpMessageMustArriveWholeInTimeWhileAnIdleConnectionStays)
{
    TCPTransport listener;
    ASSERT_TRUE(listener.listen(LOOPBACK, 0));
    tavo::TcpSocket idle, trickling; // accepted in that order
    ASSERT_TRUE(idle.connect(LOOPBACK, listener.getLocalPort()) &&
                trickling.connect(LOOPBACK, listener.getLocalPort()));
    std::unique_ptr<IWEFTTransport> idleServer(listener.accept()), trickled(listener.accept());

    auto idleEnd = std::async(std::launch::async, [&] { return receiveOnce(*idleServer); });
    // Half of a length prefix, then nothing: the connection ends.
    const uint8 half = 4;
    ASSERT_EQ(trickling.send(&half, 1), 1);
    auto end = std::async(std::launch::async, [&] { return receiveOnce(*trickled); });
    ASSERT_EQ(end.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(end.get(), 0);
    EXPECT_EQ(
        log().levelOf(
            "WEFT: closing a TCP connection whose message did not arrive whole within 300 ms"),
        3);
    // A connection that has begun no message is left alone for as long.
    EXPECT_EQ(idleEnd.wait_for(600ms), std::future_status::timeout);
    idle.close();
    EXPECT_EQ(idleEnd.get(), 0);
}

TEST_F(BoundsTest, ASendToAPeerThatTakesNothingGivesUpAfterTheSendTimeoutAndCloses)
{
    // TCP: the peer never reads, so the kernel's buffers fill.
    TCPTransport tcpListener;
    ASSERT_TRUE(tcpListener.listen(LOOPBACK, 0));
    tavo::TcpSocket deaf;
    ASSERT_TRUE(deaf.connect(LOOPBACK, tcpListener.getLocalPort()));
    std::unique_ptr<IWEFTTransport> tcp(tcpListener.accept());
    // EUDP: the peer asks for reliable delivery and never acknowledges.
    EUDPTransport eudpListener;
    ASSERT_TRUE(eudpListener.listen(LOOPBACK, 0));
    RawUdpSocket silent;
    silent.send(eudpListener.getLocalPort(), packet("CON", 0));
    std::unique_ptr<IWEFTTransport> eudp(eudpListener.accept());
    silent.send(eudp->getLocalPort(), packet("MOD", modes("RDDD")));
    const auto granted = [](const auto& bytes) { return bytes == packet("MAK", modes("RRDT")); };
    ASSERT_FALSE(silent.receiveFirst(granted).bytes.empty());

    for (IWEFTTransport* transport : {tcp.get(), eudp.get()})
    {
        auto sending = std::async(std::launch::async, sendUntilRefused, std::ref(*transport));
        ASSERT_EQ(sending.wait_for(10s), std::future_status::ready);
        EXPECT_GT(sending.get(), 0);
        // Closed: what waits for it ends, and nothing more is taken.
        EXPECT_EQ(receiveOnce(*transport), 0);
        const uint8 byte = 'y';
        EXPECT_FALSE(transport->sendData(&byte, 1));
    }
}

} // namespace
