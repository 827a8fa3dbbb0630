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
    const struct
    {
        std::function<void()> refuse;
        std::vector<std::string> lines; // in order, all at `level`...
        int level;
        std::string thenLine = ""; // ...then this one at `thenLevel`
        int thenLevel = 0;
    } cases[] = {
        {[] { EUDPPacket(EUDP_CMD).setData(Bytes(1493).data(), 1493); },
         {"WEFT/EUDP: packet length (1493) exceeds max length (1492)"},
         2},
        {[] {
             eudpReceived({2, 'C', 'M', 'D', 0, 0, 0, 0});
         },
         {"WEFT/EUDP: packet validation failed: wrong version"},
         3},
        {[] {
             eudpReceived({1, 'C', 'M', 'D', 0, 0, 0});
         },
         {"WEFT/EUDP: packet validation failed: header too short"},
         3},
        {[] {
             eudpReceived({1, 'c', 'm', 'd', 0, 0, 0, 0});
         },
         {"WEFT/EUDP: packet validation failed: unknown command"},
         3},
        {[] {
             weftRead({2, 'T', 0, 0}, false);
         },
         {"WEFT: packet validation failed: wrong version"},
         3},
        {[] {
             weftRead({1, 'T', 0}, false);
         },
         {"WEFT: packet validation failed: header too short"},
         3},
        {[] {
             weftRead({1, 'T', 5, 0, 't', 0}, false);
         },
         {"WEFT: packet validation failed: wrong packet size"},
         3},
        {[] {
             weftRead({1, 'T', 1, 0, 't'}, false);
         },
         {"WEFT: unterminated string in packet"},
         2},
        {[] {
             weftRead({1, 'T', 3, 0, 't', 0, 'I'}, false);
         },
         {"WEFT: failed to parse parameter value"},
         2},
        {[] {
             weftRead({1, 'F', 3, 0, 'f', 0, 1}, true);
         },
         {"WEFT: failed to parse parameter list"},
         2},
        {[&] { WEFTPacket(WEFT_CMD_TRIGGER).appendString(big); },
         {"WEFT: WEFT packet length (1489) exceeds max length (1488)"},
         2},
        {[&] { sendOn(false, [&](WEFTConnection& c) { return c.subscribe(big); }); },
         {"WEFT: subscribe not sent: it needs 1489 bytes, a message carries at most 1488 (1 too "
          "many)"},
         2},
        {[]
         {
             sendOn(false, [](WEFTConnection& c)
                    { return c.trigger("t", ParameterValue(std::string("a\0b", 3))); });
         },
         {"WEFT: trigger not sent: it cannot be encoded"},
         2},
        {[]
         {
             sendOn(true,
                    [](WEFTConnection& c)
                    {
                        return c.subscribe("a") || c.unsubscribe("a") ||
                               c.trigger("a", ParameterValue(1)) ||
                               c.updateState("a", ParameterValue(1)) ||
                               c.callFunctionId("a", ParameterList());
                    });
         },
         {"WEFT: failed to send subscribe cmd", "WEFT: failed to send unsubscribe cmd",
          "WEFT: failed to send trigger", "WEFT: failed to send state update",
          "WEFT: failed to send FID cmd"},
         5},
        {[] {
             loopReceives({1, 'T', 0, 0});
         },
         {"WEFT: packet validation failed: header too short"},
         3,
         "WEFT: discarding invalid packet",
         3},
        {[] {
             loopReceives({1, 'S', 2, 0, 'x', 0});
         },
         {"WEFT: received unexpected subscribe cmd (no server available)"},
         3},
        {[] {
             loopReceives({1, 'X', 2, 0, 'x', 0});
         },
         {"WEFT: received unexpected unsubscribe cmd (no server available)"},
         3},
        {[] {
             loopReceives({1, 'F', 3, 0, 'f', 0, 0});
         },
         {"WEFT: received unexpected FID cmd (no server available)"},
         3},
        {[] {
             loopReceives({1, 'T', 3, 0, 't', 0, 'N'});
         },
         {"WEFT: received unexpected trigger cmd (no client available)"},
         3},
        {[] {
             loopReceives({1, 'U', 3, 0, 'u', 0, 'N'});
         },
         {"WEFT: received unexpected update state cmd (no client available)"},
         3},
    };
    for (const auto& c : cases)
    {
        log().clear();
        c.refuse();
        std::vector<std::string> expected;
        for (const std::string& line : c.lines)
        {
            expected.push_back(std::to_string(c.level) + " " + line);
        }
        if (!c.thenLine.empty())
        {
            expected.push_back(std::to_string(c.thenLevel) + " " + c.thenLine);
        }
        std::vector<std::string> logged;
        for (const LogCapture::Line& line : log().lines())
        {
            logged.push_back(std::to_string(line.level) + " " + line.text);
        }
        EXPECT_EQ(logged, expected);
    }
}

} // namespace
