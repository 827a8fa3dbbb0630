#include "support/HexBytes.h"

#include <weft/ParameterValue.h>

#include <gtest/gtest.h>

#include <climits>

namespace
{

// Per value: its text, then the typed getters that accept it (i, b, f).
std::string describe(const ParameterValue& value)
{
    int i = -1;
    bool b = false;
    float f = -1.0f;
    std::string text = value.getAsString() + ":";
    text += value.getIntValue(i) ? "i" : (i == -1 ? "" : "!");
    text += value.getBooleanValue(b) ? "b" : (b == false ? "" : "!");
    text += value.getFloatValue(f) ? "f" : (f == -1.0f ? "" : "!"); // "!": refused, yet written
    return text + " ";
}

TEST(ParameterValueTest, RendersEachKindAsTextAndReadsBackOnlyItsOwnKind)
{
    std::string all;
    for (const ParameterValue& value :
         {ParameterValue(), ParameterValue(0), ParameterValue(-17), ParameterValue(INT_MIN),
          ParameterValue(true), ParameterValue(false), ParameterValue(1.0f), ParameterValue(0.5f),
          ParameterValue(3.14159265f), ParameterValue(100000.0f), ParameterValue(1e6f),
          ParameterValue(1234567.0f), ParameterValue(0.00001f), ParameterValue("ON"),
          ParameterValue(""), ParameterValue(static_cast<const char*>(nullptr))})
    {
        all += describe(value);
    }
    EXPECT_EQ(all, "INV: 0:i -17:i -2147483648:i ON:b OFF:b 1:f 0.5:f 3.14159:f 100000:f "
                   "1e+06:f 1.23457e+06:f 1e-05:f ON: : : ");
    EXPECT_EQ(ParameterValue(static_cast<const char*>(nullptr)).getType(), PARAM_TYPE_STRING);
}

TEST(ParameterValueTest, WireExamplesRoundTripByteExactAndEveryShorterCutIsRefused)
{
    const std::pair<ParameterValue, std::string> cases[] = {
        {ParameterValue(1), "49 01 00 00 00"},
        {ParameterValue(-2), "49 FE FF FF FF"},
        {ParameterValue(1.0f), "46 00 00 80 3F"},
        {ParameterValue(true), "42 01"},
        {ParameterValue(false), "42 00"},
        {ParameterValue("ab"), "53 61 62 00"},
        {ParameterValue(""), "53 00"},
        {ParameterValue(), "4E"}};
    for (const auto& [value, wire] : cases)
    {
        SCOPED_TRACE(wire);
        const int length = static_cast<int>(fromHex(wire).size());
        Bytes out(static_cast<std::size_t>(length) + 1, 0xEE);
        ASSERT_EQ(value.getBinaryValue(reinterpret_cast<char*>(out.data()), length), length);
        EXPECT_EQ(toHex(out.data(), out.size()), wire + " EE");
        // One byte too small: refused, nothing written past the room.
        EXPECT_EQ(value.getBinaryValue(reinterpret_cast<char*>(out.data() + 1), length - 1), 0);
        EXPECT_EQ(out.back(), 0xEE);

        ParameterValue decoded;
        ASSERT_EQ(decodeExact(decoded, wire, static_cast<std::size_t>(length)), length);
        EXPECT_EQ(describe(decoded), describe(value));
        for (int cut = 0; cut < length; ++cut)
        {
            ParameterValue partial;
            EXPECT_EQ(decodeExact(partial, wire, static_cast<std::size_t>(cut)), 0) << cut;
        }
    }
    // An unknown tag is one byte without data and keeps its letter; any
    // non-zero byte is true.
    ParameterValue unknown, seven;
    EXPECT_EQ(decodeExact(unknown, "58 01", 2) + decodeExact(seven, "42 07", 2), 1 + 2);
    EXPECT_EQ(unknown.getType(), 88);
    EXPECT_EQ(describe(unknown) + describe(seven), "INV: ON:b ");
}

} // namespace
