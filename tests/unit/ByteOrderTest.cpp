#include "ByteOrder.h"

#include "support/HexBytes.h"

#include <gtest/gtest.h>

// Top bits set in every byte catch sign extension on either word size; odd
// offsets catch any reliance on alignment.
TEST(ByteOrderTest, WritesLeastSignificantByteFirstAtAnyOffsetAndReadsItBack)
{
    const std::pair<std::uint32_t, std::string> cases[] = {
        {0x12345678u, "78 56 34 12"}, {0xFEDCBA98u, "98 BA DC FE"}, {0x80808080u, "80 80 80 80"}};
    for (const auto& [value, le32] : cases)
    {
        for (std::size_t offset = 0; offset < 4; ++offset)
        {
            Bytes bytes(offset + 7, 0xAA);
            uint8* at = bytes.data() + offset;
            byteorder::writeLE32(at, value);
            byteorder::writeLE16(at + 4, static_cast<std::uint16_t>(value));
            EXPECT_EQ(toHex(at, 7), le32 + " " + le32.substr(0, 5) + " AA") << "offset " << offset;
            EXPECT_EQ(byteorder::readLE32(at), value);
            EXPECT_EQ(byteorder::readLE16(at + 4), value & 0xFFFFu);
        }
    }
}
