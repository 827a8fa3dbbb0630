#include "support/WeftFixture.h"

#include <weft/EUDPPacket.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

typedef std::vector<uint8> Bytes;

Bytes wire(const EUDPPacket& packet)
{
    return Bytes(packet.getBuffer(), packet.getBuffer() + packet.getLength());
}

using EUDPPacketTest = WeftFixture;

TEST_F(EUDPPacketTest, HeaderIsVersionThreeLettersAndALittleEndianArgument)
{
    EXPECT_EQ(wire(EUDPPacket()), (Bytes{0x01, 'N', 'O', 'P', 0, 0, 0, 0}));
    EUDPPacket mode(EUDP_MOD); // asks for reliable sending, no other change
    for (unsigned int i = 0; i < 4; ++i)
    {
        mode.setArgByte(i, i == 0 ? 'R' : 'D');
    }
    EXPECT_EQ(wire(mode), (Bytes{0x01, 'M', 'O', 'D', 0x52, 0x44, 0x44, 0x44}));
    EXPECT_EQ(mode.getArg(), 0x44444452u);
    for (int command = EUDP_NOP; command < EUDP_UNKNOWN; ++command)
    {
        EUDPPacket packet;
        packet.setCommand(static_cast<EEUDPCommand>(command));
        EXPECT_EQ(packet.getCommand(), command);
        EXPECT_EQ(std::string(packet.getBuffer() + 1, packet.getBuffer() + 4),
                  EUDPCommand[command]);
    }
}

TEST_F(EUDPPacketTest, PayloadOf1492FitsOneByteMoreIsRefusedAndCopiesCarryTheBytesInUse)
{
    EUDPPacket packet(EUDP_CMD);
    Bytes largest(1492, 0x5A);
    packet.setData(largest.data(), 1492);
    ASSERT_EQ(packet.getLength(), 1500u);
    Bytes tooLong(1493, 0xEE);
    packet.setData(tooLong.data(), 1493);
    EXPECT_EQ(Bytes(packet.getPayload(), packet.getPayload() + packet.getPayloadLength()), largest);
    packet.setData(nullptr, 0); // a keep-alive
    EXPECT_EQ(wire(packet), (Bytes{0x01, 'C', 'M', 'D', 0, 0, 0, 0}));
    // Copies carry the bytes in use; assigning a packet to itself changes nothing.
    packet.setArg(5);
    packet.setData(reinterpret_cast<const uint8*>("abc"), 3);
    EUDPPacket copy(packet), assigned;
    assigned = packet;
    assigned = *&assigned;
    EXPECT_EQ(wire(copy), (Bytes{0x01, 'C', 'M', 'D', 5, 0, 0, 0, 'a', 'b', 'c'}));
    EXPECT_EQ(wire(assigned), wire(copy));
}

} // namespace
