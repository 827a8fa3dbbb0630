#include "support/HexBytes.h"
#include "support/WeftFixture.h"

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>
#include <weft/WEFTPacket.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>

namespace
{

class WEFTPacketTest : public WeftFixture
{
protected:
    static std::string wireOf(const WEFTPacket& packet)
    {
        return toHex(packet.getBuffer(), packet.getLength());
    }

    // As the receive loop does. The zeros after the message would end a
    // string early if a reader went past the received size.
    static bool receive(WEFTPacket& packet, const std::string& hex, std::size_t size)
    {
        const Bytes bytes = fromHex(hex);
        std::memset(packet.getBuffer(), 0, WEFT_MAX_PACKET_SIZE);
        std::memcpy(packet.getBuffer(), bytes.data(), bytes.size());
        packet.setReadPos(WEFT_HEADER_SIZE);
        return packet.validatePacket(static_cast<unsigned int>(size));
    }
};

// Each example is built byte for byte and read back; then cut at every length
// with a header that agrees with the cut, so that it passes validation and the
// reads must stop at the end and keep their place.
TEST_F(WEFTPacketTest, WireExamplesRoundTripAndEveryCutFailsToReadCleanly)
{
    const ParameterValue five(5), on(true), hi("hi"), none;
    const struct
    {
        EWEFTCommand command;
        std::string name;
        const ParameterValue* value; // none for a list item
        std::string wire;
    } cases[] = {
        {WEFT_CMD_SUBSCRIBE, "ab", nullptr, "01 53 03 00 61 62 00"},
        {WEFT_CMD_UNSUBSCRIBE, "ab", nullptr, "01 58 03 00 61 62 00"},
        {WEFT_CMD_TRIGGER, "t", &five, "01 54 07 00 74 00 49 05 00 00 00"},
        {WEFT_CMD_UPDATE_STATE, "s", &on, "01 55 04 00 73 00 42 01"},
        {WEFT_CMD_UPDATE_STATE, "s", &hi, "01 55 06 00 73 00 53 68 69 00"},
        {WEFT_CMD_FID, "f", &none, "01 46 03 00 66 00 00"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.wire);
        const bool nameOnly = c.command == WEFT_CMD_SUBSCRIBE || c.command == WEFT_CMD_UNSUBSCRIBE;
        WEFTPacket sent(c.command);
        ASSERT_TRUE(sent.appendString(c.name));
        ASSERT_TRUE(nameOnly || (c.value == &none ? sent.appendParamList(ParameterList())
                                                  : sent.appendParamValue(*c.value)));
        EXPECT_EQ(wireOf(sent), c.wire);

        const std::size_t length = fromHex(c.wire).size();
        for (std::size_t cut = length; cut >= WEFT_HEADER_SIZE; --cut)
        {
            Bytes bytes = fromHex(c.wire);
            bytes[2] = static_cast<uint8>(cut - WEFT_HEADER_SIZE);
            bytes.resize(cut);
            const std::string wire = toHex(bytes.data(), bytes.size());
            WEFTPacket packet;
            ASSERT_TRUE(receive(packet, wire, cut)) << "cut to " << cut;
            const std::string name = packet.getString();
            const unsigned int afterName = packet.getReadPos();
            ParameterValue value;
            ParameterList list;
            if (!nameOnly && afterName > WEFT_HEADER_SIZE)
            {
                c.value == &none ? packet.getParameterList(list) : packet.getParameterValue(value);
            }
            const bool whole = cut == length;
            EXPECT_EQ(packet.getReadPos(), whole ? length : afterName) << "cut to " << cut;
            EXPECT_EQ(name, afterName > WEFT_HEADER_SIZE ? c.name : "") << "cut to " << cut;
            if (whole && c.value != nullptr)
            {
                EXPECT_EQ(value.getAsString(), c.value->getAsString());
            }
        }
    }
}

TEST_F(WEFTPacketTest, AppendsFillThePayloadUpToTheirLimitAndARefusalLeavesThePacket)
{
    const std::string text(1488, 'q');
    ParameterList tooLong; // count, the empty name's NUL, a 1487-byte value: one too many
    tooLong.addString("", text.substr(3));
    const struct
    {
        std::function<bool(WEFTPacket&)> append;
        unsigned int payload; // 0: refused
    } cases[] = {
        {[&](WEFTPacket& p) { return p.appendString(""); }, 1},
        {[&](WEFTPacket& p) { return p.appendString(text.substr(1)); }, 1488},
        {[&](WEFTPacket& p) { return p.appendString(text); }, 0},
        {[&](WEFTPacket& p) { return p.appendData(text.data(), 1487); }, 1487},
        {[&](WEFTPacket& p) { return p.appendData(text.data(), 1488); }, 0},
        {[&](WEFTPacket& p) { return p.appendData(text.data(), UINT_MAX); }, 0},
        {[&](WEFTPacket& p) { return p.appendParamValue(ParameterValue(text.substr(2))); }, 1488},
        {[&](WEFTPacket& p) { return p.appendParamValue(ParameterValue(text.substr(1))); }, 0},
        {[&](WEFTPacket& p) { return p.appendParamList(tooLong); }, 0},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i)
    {
        WEFTPacket packet(WEFT_CMD_TRIGGER);
        EXPECT_EQ(cases[i].append(packet), cases[i].payload != 0) << "case " << i;
        EXPECT_EQ(packet.getLength(), WEFT_HEADER_SIZE + cases[i].payload) << "case " << i;
        EXPECT_EQ(packet.getPayloadLength(), cases[i].payload) << "case " << i;
        EXPECT_EQ(wireOf(packet).substr(0, 5), "01 54") << "case " << i;
    }
    WEFTPacket full;
    ASSERT_TRUE(full.appendString(text.substr(1)));
    EXPECT_FALSE(full.appendString(""));
    EXPECT_EQ(full.getLength(), WEFT_MAX_PACKET_SIZE);
}

TEST_F(WEFTPacketTest, ValidationChecksVersionHeaderAndSizeAndKeepsTheReceivedSize)
{
    const struct
    {
        std::string bytes;
        unsigned int size;
        const char* failure;
    } cases[] = {
        {"02 53 00 00", 4, "wrong version"},
        {"02 53", 2, "wrong version"},
        {"01 53 00", 3, "header too short"},
        {"01", 0, "header too short"},
        {"01 53 00 00", 4, nullptr},
        {"01 53 02 00 61 00", 6, nullptr},
        {"01 53 03 00 61 00", 6, "wrong packet size"},
        {"01 00 FF FF", 4, "wrong packet size"},
    };
    for (const auto& c : cases)
    {
        WEFTPacket packet;
        EXPECT_EQ(receive(packet, c.bytes, c.size), c.failure == nullptr) << c.bytes;
        EXPECT_EQ(packet.getLength(), c.size) << "the received size is the readers' end";
    }
}

} // namespace
