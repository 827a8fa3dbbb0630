// Every refusal of the library's codecs and connection writes one line, at
// the level its kind has: error for what cannot be built or read, warning for
// received data that is dropped, debug for refused sends. The lines of the
// EUDP transport's threads are in system/EUDPWireTest.cpp.

#include "support/QueueTransport.h"
#include "support/WeftFixture.h"

#include <weft/EUDPPacket.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTPacket.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace
{

typedef QueueTransport::Bytes Bytes;
using WeftLogTest = WeftFixture;

void eudpReceived(const Bytes& datagram)
{
    EUDPPacket packet;
    std::memcpy(packet.getBuffer(), datagram.data(), datagram.size());
    packet.validatePacket(static_cast<uint>(datagram.size()));
}

// A message read as the receive loop reads it: validated, name, then item.
void weftRead(const Bytes& message, bool list)
{
    WEFTPacket packet;
    std::memcpy(packet.getBuffer(), message.data(), message.size());
    packet.setReadPos(WEFT_HEADER_SIZE);
    if (packet.validatePacket(static_cast<unsigned int>(message.size())))
    {
        packet.getString();
        if (packet.getReadPos() == WEFT_HEADER_SIZE)
        {
            return; // no name: the loop reads no further
        }
        ParameterValue value;
        ParameterList params;
        list ? packet.getParameterList(params) : packet.getParameterValue(value);
    }
}

// `request` on a connection whose transport refuses (or takes) every send.
void sendOn(bool refuse, const std::function<bool(WEFTConnection&)>& request)
{
    auto* transport = new QueueTransport();
    transport->refuseSends(refuse);
    WEFTConnection connection(transport);
    request(connection);
}

// `message` through the receive loop of a connection with no client and no
// server, on this thread.
void loopReceives(const Bytes& message)
{
    auto* transport = new QueueTransport();
    transport->queue(message);
    transport->disconnect();
    WEFTConnection connection(transport);
    connection.run();
}

TEST_F(WeftLogTest, EachRefusalWritesItsLineAtItsLevel)
{
    const std::string big(1488, 'v');
    const auto refusedSends = [](WEFTConnection& c)
    {
        return c.subscribe("a") || c.unsubscribe("a") || c.trigger("a", ParameterValue(1)) ||
               c.updateState("a", ParameterValue(1)) || c.callFunctionId("a", ParameterList());
    };
    const auto unencodable = [](WEFTConnection& c)
    { return c.trigger("t", ParameterValue(std::string("a\0b", 3))); };
    const std::pair<std::function<void()>, std::vector<std::string>> cases[] = {
        {[] { EUDPPacket(EUDP_CMD).setData(Bytes(1493).data(), 1493); },
         {"2 WEFT/EUDP: packet length (1493) exceeds max length (1492)"}},
        {[] {
             eudpReceived({2, 'C', 'M', 'D', 0, 0, 0, 0});
         },
         {"3 WEFT/EUDP: packet validation failed: wrong version"}},
        {[] {
             eudpReceived({1, 'C', 'M', 'D', 0, 0, 0});
         },
         {"3 WEFT/EUDP: packet validation failed: header too short"}},
        {[] {
             eudpReceived({1, 'c', 'm', 'd', 0, 0, 0, 0});
         },
         {"3 WEFT/EUDP: packet validation failed: unknown command"}},
        {[] {
             weftRead({2, 'T', 0, 0}, false);
         },
         {"3 WEFT: packet validation failed: wrong version"}},
        {[] {
             weftRead({1, 'T', 0}, false);
         },
         {"3 WEFT: packet validation failed: header too short"}},
        {[] {
             weftRead({1, 'T', 5, 0, 't', 0}, false);
         },
         {"3 WEFT: packet validation failed: wrong packet size"}},
        {[] {
             weftRead({1, 'T', 1, 0, 't'}, false);
         },
         {"2 WEFT: unterminated string in packet"}},
        {[] {
             weftRead({1, 'T', 3, 0, 't', 0, 'I'}, false);
         },
         {"2 WEFT: failed to parse parameter value"}},
        {[] {
             weftRead({1, 'F', 3, 0, 'f', 0, 1}, true);
         },
         {"2 WEFT: failed to parse parameter list"}},
        {[&] { WEFTPacket(WEFT_CMD_TRIGGER).appendString(big); },
         {"2 WEFT: WEFT packet length (1489) exceeds max length (1488)"}},
        {[&] { sendOn(false, [&](WEFTConnection& c) { return c.subscribe(big); }); },
         {"2 WEFT: subscribe not sent: it needs 1489 bytes, a message carries at most 1488 (1 "
          "too many)"}},
        {[&] { sendOn(false, unencodable); }, {"2 WEFT: trigger not sent: it cannot be encoded"}},
        {[&] { sendOn(true, refusedSends); },
         {"5 WEFT: failed to send subscribe cmd", "5 WEFT: failed to send unsubscribe cmd",
          "5 WEFT: failed to send trigger", "5 WEFT: failed to send state update",
          "5 WEFT: failed to send FID cmd"}},
        {[] {
             loopReceives({1, 'T'});
         },
         {"3 WEFT: packet validation failed: header too short",
          "3 WEFT: discarding invalid packet"}},
        {[] {
             loopReceives({1, 'S', 2, 0, 'x', 0});
         },
         {"3 WEFT: received unexpected subscribe cmd (no server available)"}},
        {[] {
             loopReceives({1, 'X', 2, 0, 'x', 0});
         },
         {"3 WEFT: received unexpected unsubscribe cmd (no server available)"}},
        {[] {
             loopReceives({1, 'F', 3, 0, 'f', 0, 0});
         },
         {"3 WEFT: received unexpected FID cmd (no server available)"}},
        {[] {
             loopReceives({1, 'T', 3, 0, 't', 0, 'N'});
         },
         {"3 WEFT: received unexpected trigger cmd (no client available)"}},
        {[] {
             loopReceives({1, 'U', 3, 0, 'u', 0, 'N'});
         },
         {"3 WEFT: received unexpected update state cmd (no client available)"}},
    };
    for (const auto& [refuse, expected] : cases)
    {
        log().clear();
        refuse();
        std::vector<std::string> logged;
        for (const LogCapture::Line& line : log().lines())
        {
            logged.push_back(std::to_string(line.level) + " " + line.text);
        }
        EXPECT_EQ(logged, expected);
    }
}

} // namespace
