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
#include <tuple>
#include <vector>

namespace
{

typedef QueueTransport::Bytes Bytes;
using WeftLogTest = WeftFixture;

// `bytes` as the receiving code reads them: 'e' an EUDP datagram validated,
// 'v' or 'l' a WEFT message read as the loop reads it (validated, the name,
// then a value or a list), 'r' a message through the receive loop of a
// connection with no client and no server.
void receive(char how, const Bytes& bytes)
{
    if (how == 'e')
    {
        EUDPPacket packet;
        std::memcpy(packet.getBuffer(), bytes.data(), bytes.size());
        packet.validatePacket(static_cast<uint>(bytes.size()));
        return;
    }
    if (how == 'r')
    {
        auto* transport = new QueueTransport();
        transport->queue(bytes);
        transport->disconnect();
        WEFTConnection(transport).run();
        return;
    }
    WEFTPacket packet;
    std::memcpy(packet.getBuffer(), bytes.data(), bytes.size());
    packet.setReadPos(WEFT_HEADER_SIZE);
    if (packet.validatePacket(static_cast<unsigned int>(bytes.size())))
    {
        packet.getString();
        if (packet.getReadPos() == WEFT_HEADER_SIZE)
        {
            return; // no name: the loop reads no further
        }
        ParameterValue value;
        ParameterList params;
        how == 'l' ? packet.getParameterList(params) : packet.getParameterValue(value);
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

std::vector<std::string> logged(LogCapture& log)
{
    std::vector<std::string> lines;
    for (const LogCapture::Line& line : log.lines())
    {
        lines.push_back(std::to_string(line.level) + " " + line.text);
    }
    log.clear();
    return lines;
}

TEST_F(WeftLogTest, EachRefusalWritesItsLineAtItsLevel)
{
    const std::string eudp = "3 WEFT/EUDP: packet validation failed: ";
    const std::string weft = "3 WEFT: packet validation failed: ";
    const std::string unexpected = "3 WEFT: received unexpected ";
    const std::tuple<char, Bytes, std::vector<std::string>> received[] = {
        {'e', {2, 'C', 'M', 'D', 0, 0, 0, 0}, {eudp + "wrong version"}},
        {'e', {1, 'C', 'M', 'D', 0, 0, 0}, {eudp + "header too short"}},
        {'e', {1, 'c', 'm', 'd', 0, 0, 0, 0}, {eudp + "unknown command"}},
        {'v', {2, 'T', 0, 0}, {weft + "wrong version"}},
        {'v', {1, 'T', 0}, {weft + "header too short"}},
        {'v', {1, 'T', 5, 0, 't', 0}, {weft + "wrong packet size"}},
        {'v', {1, 'T', 1, 0, 't'}, {"2 WEFT: unterminated string in packet"}},
        {'v', {1, 'T', 3, 0, 't', 0, 'I'}, {"2 WEFT: failed to parse parameter value"}},
        {'l', {1, 'F', 3, 0, 'f', 0, 1}, {"2 WEFT: failed to parse parameter list"}},
        {'r', {1, 'T'}, {weft + "header too short", "3 WEFT: discarding invalid packet"}},
        {'r', {1, 'S', 2, 0, 'x', 0}, {unexpected + "subscribe cmd (no server available)"}},
        {'r', {1, 'X', 2, 0, 'x', 0}, {unexpected + "unsubscribe cmd (no server available)"}},
        {'r', {1, 'F', 3, 0, 'f', 0, 0}, {unexpected + "FID cmd (no server available)"}},
        {'r', {1, 'T', 3, 0, 't', 0, 'N'}, {unexpected + "trigger cmd (no client available)"}},
        {'r', {1, 'U', 3, 0, 'u', 0, 'N'}, {unexpected + "update state cmd (no client available)"}},
    };
    for (const auto& [how, bytes, lines] : received)
    {
        log().clear();
        receive(how, bytes);
        EXPECT_EQ(logged(log()), lines);
    }

    const std::string big(1488, 'v');
    EUDPPacket(EUDP_CMD).setData(Bytes(1493).data(), 1493);
    WEFTPacket(WEFT_CMD_TRIGGER).appendString(big);
    sendOn(false, [&](WEFTConnection& c) { return c.subscribe(big); });
    sendOn(false, [](WEFTConnection& c)
           { return c.trigger("t", ParameterValue(std::string("a\0b", 3))); });
    sendOn(true,
           [](WEFTConnection& c)
           {
               return c.subscribe("a") || c.unsubscribe("a") || c.trigger("a", ParameterValue(1)) ||
                      c.updateState("a", ParameterValue(1)) ||
                      c.callFunctionId("a", ParameterList());
           });
    EXPECT_EQ(logged(log()),
              (std::vector<std::string>{
                  "2 WEFT/EUDP: packet length (1493) exceeds max length (1492)",
                  "2 WEFT: WEFT packet length (1489) exceeds max length (1488)",
                  "2 WEFT: subscribe not sent: it needs 1489 bytes, a message carries at most "
                  "1488 (1 too many)",
                  "2 WEFT: trigger not sent: it cannot be encoded",
                  "5 WEFT: failed to send subscribe cmd", "5 WEFT: failed to send unsubscribe cmd",
                  "5 WEFT: failed to send trigger", "5 WEFT: failed to send state update",
                  "5 WEFT: failed to send FID cmd"}));
}

} // namespace
