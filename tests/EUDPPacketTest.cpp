#include "support/WeftFixture.h"

#include <weft/EUDPPacket.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

typedef std::vector<uint8> Bytes;

Bytes wire(const EUDPPacket& packet)
{
    return Bytes(packet.getBuffer(), packet.getBuffer() + packet.getLength());
}

// Puts a received datagram into a packet's buffer, as the socket would.
void receiveInto(EUDPPacket& packet, const Bytes& datagram)
{
    std::memcpy(packet.getBuffer(), datagram.data(), datagram.size());
}

class EUDPPacketTest : public WeftFixture
{
};

TEST_F(EUDPPacketTest, HeaderIsVersionThreeLettersAndLittleEndianArgument)
{
    EUDPPacket fresh;
    EXPECT_EQ(wire(fresh), (Bytes{0x01, 'N', 'O', 'P', 0, 0, 0, 0}));

    EUDPPacket data(EUDP_CMD);
    data.setArg(0x04030201);
    EXPECT_EQ(wire(data), (Bytes{0x01, 'C', 'M', 'D', 0x01, 0x02, 0x03, 0x04}));
    EXPECT_EQ(data.getArg(), 0x04030201u);

    // A mode request asking for reliable sending and no other change.
    EUDPPacket mode(EUDP_MOD);
    for (unsigned int i = 0; i < 4; ++i)
    {
        mode.setArgByte(i, i == 0 ? 'R' : 'D');
    }
    EXPECT_EQ(wire(mode), (Bytes{0x01, 'M', 'O', 'D', 0x52, 0x44, 0x44, 0x44}));

    for (int command = EUDP_NOP; command < EUDP_UNKNOWN; ++command)
    {
        EUDPPacket packet;
        packet.setCommand(static_cast<EEUDPCommand>(command));
        EXPECT_EQ(packet.getCommand(), command);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(packet.getBuffer() + 1), 3),
                  EUDPCommand[command]);
    }
}

TEST_F(EUDPPacketTest, PayloadOf1492FitsAndOneByteMoreIsRefusedWithTheLineAndNoChange)
{
    EUDPPacket packet(EUDP_CMD);
    Bytes largest(1492);
    for (std::size_t i = 0; i < largest.size(); ++i)
    {
        largest[i] = static_cast<uint8>(i * 31);
    }
    packet.setData(largest.data(), 1492);
    ASSERT_EQ(packet.getLength(), 1500u);
    EXPECT_EQ(Bytes(packet.getPayload(), packet.getPayload() + 1492), largest);

    Bytes tooLong(1493, 0xEE);
    packet.setData(tooLong.data(), 1493);
    const std::string line = "WEFT/EUDP: packet length (1493) exceeds max length (1492)";
    EXPECT_EQ(log().count(line), 1u);
    EXPECT_EQ(log().levelOf(line), 2);
    EXPECT_EQ(packet.getLength(), 1500u);
    EXPECT_EQ(Bytes(packet.getPayload(), packet.getPayload() + 1492), largest);

    // A keep-alive carries no data at all.
    packet.setData(nullptr, 0);
    EXPECT_EQ(wire(packet), (Bytes{0x01, 'C', 'M', 'D', 0, 0, 0, 0}));
}

TEST_F(EUDPPacketTest, ValidationChecksVersionThenLengthThenCommandAndRecordsTheLength)
{
    const std::string wrongVersion = "WEFT/EUDP: packet validation failed: wrong version";
    const std::string tooShort = "WEFT/EUDP: packet validation failed: header too short";
    const std::string unknown = "WEFT/EUDP: packet validation failed: unknown command";
    struct Case
    {
        Bytes datagram;
        std::string line; // empty: valid
    };
    const std::vector<Case> cases = {
        {{0x01, 'A', 'C', 'K', 0, 0, 0}, tooShort},
        {{0x02, 'A', 'C', 'K', 0}, wrongVersion}, // the version is checked first
        {Bytes(100, 0x02), wrongVersion},
        {{0x01, 'a', 'c', 'k', 0, 0, 0, 0}, unknown},
        {{0x01, 'A', 'C', 'K', 0, 0, 0, 0}, ""},
        {{0x01, 'C', 'M', 'D', 9, 0, 0, 0, 'x'}, ""},
    };
    for (const Case& c : cases)
    {
        log().clear();
        EUDPPacket packet;
        receiveInto(packet, c.datagram);
        const bool valid = packet.validatePacket(static_cast<uint>(c.datagram.size()));
        EXPECT_EQ(valid, c.line.empty()) << c.line;
        EXPECT_EQ(packet.getLength(), c.datagram.size());
        if (c.line.empty())
        {
            EXPECT_TRUE(log().lines().empty());
        }
        else
        {
            ASSERT_EQ(log().texts(), std::vector<std::string>{c.line});
            EXPECT_EQ(log().lines()[0].level, 3);
        }
    }
    EUDPPacket ack;
    receiveInto(ack, cases[4].datagram);
    ASSERT_TRUE(ack.validatePacket(8));
    EXPECT_EQ(ack.getCommand(), EUDP_ACK);
}

TEST_F(EUDPPacketTest, DatagramsCutShortOfTheHeaderAreRefusedAtEveryLength)
{
    const Bytes examples[] = {{0x01, 'C', 'M', 'D', 1, 0, 0, 0, 'h', 'i'},
                              {0x01, 'W', 'A', 'K', 0xFF, 0xFF, 0xFF, 0xFF}};
    for (const Bytes& example : examples)
    {
        for (uint length = 0; length < 8; ++length)
        {
            log().clear();
            EUDPPacket packet;
            receiveInto(packet, example);
            EXPECT_FALSE(packet.validatePacket(length)) << "length " << length;
            EXPECT_EQ(log().texts().size(), 1u) << "length " << length;
        }
    }
}

TEST_F(EUDPPacketTest, CopiesHaveTheirOwnBytesAndCopyOnlyTheBytesInUse)
{
    EUDPPacket original(EUDP_CMD);
    original.setArg(5);
    const uint8 payload[] = {'a', 'b', 'c'};
    original.setData(payload, 3);

    EUDPPacket copy(original);
    copy.setArg(6);
    copy.getBuffer()[8] = 'z';
    EXPECT_EQ(original.getArg(), 5u);
    EXPECT_EQ(original.getPayload()[0], 'a');
    EXPECT_EQ(wire(copy), (Bytes{0x01, 'C', 'M', 'D', 6, 0, 0, 0, 'z', 'b', 'c'}));

    EUDPPacket target;
    std::memset(target.getBuffer() + 8, 0xEE, 100);
    target = original;
    EXPECT_EQ(wire(target), wire(original));
    EXPECT_EQ(target.getBuffer()[11], 0xEE) << "bytes past the length were copied";

    target = *&target;
    EXPECT_EQ(wire(target), wire(original));
}

} // namespace
