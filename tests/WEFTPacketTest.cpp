#include "support/HexBytes.h"
#include "support/WeftFixture.h"

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>
#include <weft/WEFTPacket.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>

namespace
{

const char* const TOO_LONG_1489 = "WEFT: WEFT packet length (1489) exceeds max length (1488)";
const char* const UNTERMINATED = "WEFT: unterminated string in packet";

class WEFTPacketTest : public WeftFixture
{
protected:
    static std::string wireOf(const WEFTPacket& packet)
    {
        return toHex(packet.getBuffer(), packet.getLength());
    }

    // Puts `bytes` into a receiving packet as the receive loop does.
    static void receive(WEFTPacket& packet, const Bytes& bytes)
    {
        std::memcpy(packet.getBuffer(), bytes.data(), bytes.size());
        packet.setReadPos(WEFT_HEADER_SIZE);
    }

    void expectOnlyLine(const std::string& text, int level)
    {
        ASSERT_EQ(log().lines().size(), 1u) << "lines: " << ::testing::PrintToString(log().texts());
        EXPECT_EQ(log().lines()[0].output, "WEFT");
        EXPECT_EQ(log().lines()[0].text, text);
        EXPECT_EQ(log().lines()[0].level, level);
    }
};

// One message of each shape: a name and at most one parameter item.
struct Example
{
    EWEFTCommand command;
    std::string name;
    enum
    {
        NAME_ONLY,
        VALUE,
        LIST
    } item;
    ParameterValue value;
    const char* wire;
};

const Example EXAMPLES[] = {
    {WEFT_CMD_SUBSCRIBE, "ab", Example::NAME_ONLY, {}, "01 53 03 00 61 62 00"},
    {WEFT_CMD_UNSUBSCRIBE, "ab", Example::NAME_ONLY, {}, "01 58 03 00 61 62 00"},
    {WEFT_CMD_TRIGGER, "t", Example::VALUE, ParameterValue(5), "01 54 07 00 74 00 49 05 00 00 00"},
    {WEFT_CMD_UPDATE_STATE, "s", Example::VALUE, ParameterValue(true), "01 55 04 00 73 00 42 01"},
    {WEFT_CMD_UPDATE_STATE, "s", Example::VALUE, ParameterValue("hi"),
     "01 55 06 00 73 00 53 68 69 00"},
    {WEFT_CMD_FID, "f", Example::LIST, {}, "01 46 03 00 66 00 00"},
};

TEST_F(WEFTPacketTest, WireExamplesAreBuiltByteExactAndReadBackWithoutALogLine)
{
    for (const Example& e : EXAMPLES)
    {
        SCOPED_TRACE(e.wire);
        WEFTPacket sent(e.command);
        ASSERT_TRUE(sent.appendString(e.name));
        if (e.item == Example::VALUE)
        {
            ASSERT_TRUE(sent.appendParamValue(e.value));
        }
        else if (e.item == Example::LIST)
        {
            ASSERT_TRUE(sent.appendParamList(ParameterList()));
        }
        EXPECT_EQ(wireOf(sent), e.wire);
        EXPECT_EQ(sent.getPayloadLength(), sent.getLength() - WEFT_HEADER_SIZE);

        const Bytes bytes = fromHex(e.wire);
        WEFTPacket received;
        receive(received, bytes);
        ASSERT_TRUE(received.validatePacket(static_cast<unsigned int>(bytes.size())));
        EXPECT_EQ(received.getCommand(), e.command);
        EXPECT_EQ(received.getString(), e.name);
        EXPECT_EQ(received.getReadPos(), WEFT_HEADER_SIZE + e.name.size() + 1);
        if (e.item == Example::VALUE)
        {
            ParameterValue value;
            received.getParameterValue(value);
            EXPECT_EQ(value.getType(), e.value.getType());
            EXPECT_EQ(value.getAsString(), e.value.getAsString());
        }
        else if (e.item == Example::LIST)
        {
            ParameterList list;
            list.addNumeric("kept", 1);
            received.getParameterList(list);
            EXPECT_EQ(list.size(), 1u);
        }
        EXPECT_EQ(received.getReadPos(), bytes.size()) << "items left unread";
    }
    EXPECT_TRUE(log().lines().empty()) << ::testing::PrintToString(log().texts());
}

// The example cut at every length, with a header that agrees with the cut so
// that it passes validation: each read stops at the end and logs its failure.
TEST_F(WEFTPacketTest, ExamplesCutShortAtEveryLengthFailToReadCleanly)
{
    for (const Example& e : EXAMPLES)
    {
        const Bytes bytes = fromHex(e.wire);
        for (unsigned int cut = WEFT_HEADER_SIZE; cut < bytes.size(); ++cut)
        {
            SCOPED_TRACE(std::string(e.wire) + " cut to " + std::to_string(cut));
            log().clear();
            WEFTPacket packet;
            receive(packet, bytes);
            // Zeros beyond the cut would end a string early if a reader went past it.
            std::memset(packet.getBuffer() + cut, 0, WEFT_MAX_PACKET_SIZE - cut);
            packet.getBuffer()[2] = static_cast<uint8>(cut - WEFT_HEADER_SIZE);
            ASSERT_TRUE(packet.validatePacket(cut));

            const std::string name = packet.getString();
            const bool nameWhole = cut >= WEFT_HEADER_SIZE + e.name.size() + 1;
            if (!nameWhole)
            {
                EXPECT_EQ(name, "");
                EXPECT_EQ(packet.getReadPos(), WEFT_HEADER_SIZE);
                expectOnlyLine(UNTERMINATED, 2);
                continue;
            }
            EXPECT_EQ(name, e.name);
            const unsigned int afterName = packet.getReadPos();
            if (e.item == Example::VALUE)
            {
                ParameterValue value;
                packet.getParameterValue(value);
                expectOnlyLine("WEFT: failed to parse parameter value", 2);
            }
            else
            {
                ParameterList list;
                packet.getParameterList(list);
                expectOnlyLine("WEFT: failed to parse parameter list", 2);
            }
            EXPECT_EQ(packet.getReadPos(), afterName);
        }
    }
}

TEST_F(WEFTPacketTest, StringsAndRawDataFillThePayloadUpToTheirLimitAndNoFurther)
{
    WEFTPacket fresh(WEFT_CMD_TRIGGER);
    EXPECT_EQ(wireOf(fresh), "01 54 00 00");
    ASSERT_TRUE(fresh.appendString(""));
    EXPECT_EQ(wireOf(fresh), "01 54 01 00 00");

    const std::string fits(1487, 'q');
    WEFTPacket full;
    ASSERT_TRUE(full.appendString(fits));
    EXPECT_EQ(full.getLength(), WEFT_MAX_PACKET_SIZE);
    EXPECT_EQ(full.getPayloadLength(), 1488);
    EXPECT_EQ(full.getBuffer()[WEFT_MAX_PACKET_SIZE - 1], 0);

    // Raw data leaves the last byte free: 1487 bytes fit, 1488 do not.
    WEFTPacket data;
    ASSERT_TRUE(data.appendData(fits.data(), 1487));
    EXPECT_EQ(data.getLength(), 1491u);
    EXPECT_EQ(data.getPayloadLength(), 1487);
    EXPECT_TRUE(log().lines().empty()) << ::testing::PrintToString(log().texts());

    const std::string tooLong(1488, 'q');
    const struct
    {
        const char* what;
        bool (*append)(WEFTPacket&, const std::string&);
        const char* line;
    } refusals[] = {
        {"string of 1488", [](WEFTPacket& p, const std::string& s) { return p.appendString(s); },
         TOO_LONG_1489},
        {"data of 1488",
         [](WEFTPacket& p, const std::string& s) { return p.appendData(s.data(), 1488); },
         TOO_LONG_1489},
        // A size whose "one byte more" would wrap around 32 bits.
        {"data of UINT_MAX",
         [](WEFTPacket& p, const std::string& s) { return p.appendData(s.data(), UINT_MAX); },
         "WEFT: WEFT packet length (4294967296) exceeds max length (1488)"},
    };
    for (const auto& r : refusals)
    {
        SCOPED_TRACE(r.what);
        log().clear();
        WEFTPacket packet(WEFT_CMD_SUBSCRIBE);
        EXPECT_FALSE(r.append(packet, tooLong));
        EXPECT_EQ(wireOf(packet), "01 53 00 00") << "a refused append changed the packet";
        expectOnlyLine(r.line, 2);
    }

    log().clear();
    EXPECT_FALSE(full.appendString(""));
    expectOnlyLine("WEFT: WEFT packet length (1) exceeds max length (0)", 2);
}

TEST_F(WEFTPacketTest, ParameterItemThatDoesNotFitIsRefusedSilentlyAndLeavesThePacket)
{
    WEFTPacket packet(WEFT_CMD_TRIGGER);
    ASSERT_TRUE(packet.appendString(std::string(1484, 'n'))); // 3 bytes of room left
    const std::string before = wireOf(packet);

    EXPECT_FALSE(packet.appendParamValue(ParameterValue(1)));
    EXPECT_EQ(wireOf(packet), before);
    ParameterList list;
    list.addBoolean("b", true);
    EXPECT_FALSE(packet.appendParamList(list));
    EXPECT_EQ(wireOf(packet), before);
    EXPECT_TRUE(log().lines().empty()) << ::testing::PrintToString(log().texts());

    ASSERT_TRUE(packet.appendParamValue(ParameterValue(true)));
    EXPECT_EQ(packet.getLength(), WEFT_MAX_PACKET_SIZE - 1);
    EXPECT_EQ(packet.getPayloadLength(), WEFT_MAX_PAYLOAD - 1);
}

TEST_F(WEFTPacketTest, ValidationChecksVersionThenHeaderThenSizeAndLogsTheFirstFailure)
{
    const struct
    {
        const char* bytes;
        unsigned int size;
        bool valid;
        const char* line;
    } cases[] = {
        {"02 53 00 00", 4, false, "WEFT: packet validation failed: wrong version"},
        {"02 53", 2, false, "WEFT: packet validation failed: wrong version"},
        {"01 53 00", 3, false, "WEFT: packet validation failed: header too short"},
        {"01", 0, false, "WEFT: packet validation failed: header too short"},
        {"01 53 00 00", 4, true, nullptr},
        {"01 53 0A 00 61 62 63 64 65 66 67 00", 12, false,
         "WEFT: packet validation failed: wrong packet size"},
        {"01 53 08 00 61 62 63 64 65 66 67 00", 12, true, nullptr},
        {"01 53 09 00 61 62 63 64 65 66 67 00", 12, false,
         "WEFT: packet validation failed: wrong packet size"},
        {"01 00 FF FF", 4, false, "WEFT: packet validation failed: wrong packet size"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.bytes);
        log().clear();
        WEFTPacket packet;
        receive(packet, fromHex(c.bytes));
        EXPECT_EQ(packet.validatePacket(c.size), c.valid);
        EXPECT_EQ(packet.getLength(), c.size) << "the received size is the readers' end";
        if (c.line == nullptr)
        {
            EXPECT_TRUE(log().lines().empty()) << ::testing::PrintToString(log().texts());
        }
        else
        {
            expectOnlyLine(c.line, 3);
        }
    }
}

TEST_F(WEFTPacketTest, GetStringOnAnUnterminatedOrExhaustedPayloadLogsAndKeepsItsPlace)
{
    WEFTPacket packet;
    receive(packet, fromHex("01 53 03 00 61 62 63"));
    ASSERT_TRUE(packet.validatePacket(7));
    EXPECT_EQ(packet.getString(), "");
    EXPECT_EQ(packet.getReadPos(), 4u);
    expectOnlyLine(UNTERMINATED, 2);

    log().clear();
    receive(packet, fromHex("01 53 03 00 61 62 00"));
    ASSERT_TRUE(packet.validatePacket(7));
    EXPECT_EQ(packet.getString(), "ab");
    EXPECT_EQ(packet.getReadPos(), 7u);
    EXPECT_EQ(packet.getString(), "");
    EXPECT_EQ(packet.getReadPos(), 7u);
    ParameterValue value;
    packet.getParameterValue(value);
    EXPECT_EQ(packet.getReadPos(), 7u);
    EXPECT_EQ(log().texts(),
              (std::vector<std::string>{UNTERMINATED, "WEFT: failed to parse parameter value"}));
}

} // namespace
