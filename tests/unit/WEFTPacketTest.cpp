#include "support/HexBytes.h"
#include "support/WeftFixture.h"

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>
#include <weft/WEFTPacket.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <tuple>

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
    // The command, the name, its value (`none`: an empty list) and the example.
    const ParameterValue five(5), on(true), hi("hi"), none;
    const std::tuple<EWEFTCommand, std::string, const ParameterValue*, std::string> cases[] = {
        {WEFT_CMD_SUBSCRIBE, "ab", nullptr, "01 53 03 00 61 62 00"},
        {WEFT_CMD_UNSUBSCRIBE, "ab", nullptr, "01 58 03 00 61 62 00"},
        {WEFT_CMD_TRIGGER, "t", &five, "01 54 07 00 74 00 49 05 00 00 00"},
        {WEFT_CMD_UPDATE_STATE, "s", &on, "01 55 04 00 73 00 42 01"},
        {WEFT_CMD_UPDATE_STATE, "s", &hi, "01 55 06 00 73 00 53 68 69 00"},
        {WEFT_CMD_FID, "f", &none, "01 46 03 00 66 00 00"},
    };
    for (const auto& [command, itemName, item, example] : cases)
    {
        SCOPED_TRACE(example);
        const bool nameOnly = command == WEFT_CMD_SUBSCRIBE || command == WEFT_CMD_UNSUBSCRIBE;
        WEFTPacket sent(command);
        ASSERT_TRUE(sent.appendString(itemName));
        ASSERT_TRUE(nameOnly || (item == &none ? sent.appendParamList(ParameterList())
                                               : sent.appendParamValue(*item)));
        EXPECT_EQ(wireOf(sent), example);

        const std::size_t length = fromHex(example).size();
        for (std::size_t cut = length; cut >= WEFT_HEADER_SIZE; --cut)
        {
            Bytes bytes = fromHex(example);
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
                item == &none ? packet.getParameterList(list) : packet.getParameterValue(value);
            }
            const bool whole = cut == length;
            EXPECT_EQ(packet.getReadPos(), whole ? length : afterName) << "cut to " << cut;
            EXPECT_EQ(name, afterName > WEFT_HEADER_SIZE ? itemName : "") << "cut to " << cut;
            if (whole && item != nullptr)
            {
                EXPECT_EQ(value.getAsString(), item->getAsString());
            }
        }
    }
}

// The received size is what the readers stop at, valid or not.
TEST_F(WEFTPacketTest, AFullPacketTakesNothingMoreAndValidationKeepsTheReceivedSize)
{
    WEFTPacket full;
    ASSERT_TRUE(full.appendString(std::string(1487, 'q')));
    EXPECT_FALSE(full.appendString(""));
    EXPECT_FALSE(full.appendData("x", 1));
    EXPECT_EQ(full.getLength(), WEFT_MAX_PACKET_SIZE);
    for (const auto& [bytes, size, valid] :
         {std::tuple<std::string, unsigned int, bool>{"01 53 02 00 61 00", 6, true},
          {"01 53 03 00 61 00", 6, false},
          {"01 00 FF FF", 4, false},
          {"02 53", 2, false}})
    {
        WEFTPacket packet;
        EXPECT_EQ(receive(packet, bytes, size), valid) << bytes;
        EXPECT_EQ(packet.getLength(), size) << bytes;
    }
}

} // namespace
