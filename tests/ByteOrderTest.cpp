#include "ByteOrder.h"

#include "support/HexBytes.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace
{

// Values with the top bit set in every byte position catch sign extension on
// either word size; odd offsets catch any reliance on alignment.
TEST(ByteOrderTest, WritesLeastSignificantByteFirstAtAnyOffsetAndReadsItBack)
{
    static_assert(sizeof(void*) == 4 || sizeof(void*) == 8, "unexpected word size");
    const struct
    {
        std::uint32_t value;
        const char* le32;
        const char* le16;
    } cases[] = {
        {0x00000000u, "00 00 00 00", "00 00"}, {0x12345678u, "78 56 34 12", "78 56"},
        {0xFEDCBA98u, "98 BA DC FE", "98 BA"}, {0x80808080u, "80 80 80 80", "80 80"},
        {0xFFFFFFFFu, "FF FF FF FF", "FF FF"},
    };
    for (const auto& c : cases)
    {
        for (std::size_t offset = 0; offset < 4; ++offset)
        {
            Bytes bytes(offset + 5, 0xAA);
            byteorder::writeLE32(bytes.data() + offset, c.value);
            EXPECT_EQ(toHex(bytes.data() + offset, 4), c.le32) << "offset " << offset;
            EXPECT_EQ(byteorder::readLE32(bytes.data() + offset), c.value) << "offset " << offset;
            EXPECT_EQ(bytes.back(), 0xAA) << "byte after the value overwritten";

            Bytes half(offset + 3, 0xAA);
            const auto low = static_cast<std::uint16_t>(c.value & 0xFFFFu);
            byteorder::writeLE16(half.data() + offset, low);
            EXPECT_EQ(toHex(half.data() + offset, 2), c.le16) << "offset " << offset;
            EXPECT_EQ(byteorder::readLE16(half.data() + offset), low) << "offset " << offset;
            EXPECT_EQ(half.back(), 0xAA) << "byte after the value overwritten";
        }
    }
}

} // namespace
