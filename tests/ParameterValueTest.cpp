#include "support/HexBytes.h"

#include <weft/ParameterValue.h>

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>

namespace
{

// Decodes from a heap block of exactly `size` bytes, so that AddressSanitizer
// sees any read at or past the end.
int decodeExact(const Bytes& bytes, std::size_t size, ParameterValue& value)
{
    std::unique_ptr<char[]> exact(new char[size == 0 ? 1 : size]);
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size), exact.get());
    return value.createFromBinary(exact.get(), static_cast<int>(size));
}

TEST(ParameterValueTest, RendersEachKindAsItsFixedTextForm)
{
    const struct
    {
        ParameterValue value;
        const char* text;
    } cases[] = {
        {ParameterValue(), "INV"},
        {ParameterValue(0), "0"},
        {ParameterValue(42), "42"},
        {ParameterValue(-17), "-17"},
        {ParameterValue(INT_MIN), "-2147483648"},
        {ParameterValue(true), "ON"},
        {ParameterValue(false), "OFF"},
        {ParameterValue(1.0f), "1"},
        {ParameterValue(0.5f), "0.5"},
        {ParameterValue(0.1f), "0.1"},
        {ParameterValue(-2.5f), "-2.5"},
        {ParameterValue(3.14159265f), "3.14159"},
        {ParameterValue(100000.0f), "100000"},
        {ParameterValue(1000000.0f), "1e+06"},
        {ParameterValue(1234567.0f), "1.23457e+06"},
        {ParameterValue(0.0001f), "0.0001"},
        {ParameterValue(0.00001f), "1e-05"},
        {ParameterValue("ON"), "ON"},
        {ParameterValue(std::string()), ""},
        {ParameterValue(static_cast<const char*>(nullptr)), ""},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(c.value.getAsString(), c.text) << "type " << c.value.getType();
    }
    EXPECT_EQ(ParameterValue(static_cast<const char*>(nullptr)).getType(), PARAM_TYPE_STRING);
}

TEST(ParameterValueTest, TypedGettersReadOnlyTheirOwnKindAndLeaveTheArgumentOtherwise)
{
    const ParameterValue none, integer(7), boolean(true), real(2.5f), text("ON");
    for (const ParameterValue* value : {&none, &integer, &boolean, &real, &text})
    {
        int i = -1;
        bool b = false;
        float f = -1.0f;
        EXPECT_EQ(value->getIntValue(i), value == &integer) << value->getAsString();
        EXPECT_EQ(i, value == &integer ? 7 : -1);
        EXPECT_EQ(value->getBooleanValue(b), value == &boolean) << value->getAsString();
        EXPECT_EQ(b, value == &boolean);
        EXPECT_EQ(value->getFloatValue(f), value == &real) << value->getAsString();
        EXPECT_EQ(f, value == &real ? 2.5f : -1.0f);
    }
    EXPECT_EQ(none.getType(), PARAM_TYPE_NONE);
}

TEST(ParameterValueTest, CopiesOfAStringValueAreIndependent)
{
    ParameterValue original("first");
    ParameterValue copy(original);
    original = ParameterValue("second");
    EXPECT_EQ(copy.getAsString(), "first");
    EXPECT_EQ(original.getAsString(), "second");
}

TEST(ParameterValueTest, WireExamplesRoundTripByteExactAndEveryShorterCutIsRefused)
{
    const struct
    {
        ParameterValue value;
        const char* wire;
    } cases[] = {
        {ParameterValue(1), "49 01 00 00 00"},
        {ParameterValue(-2), "49 FE FF FF FF"},
        {ParameterValue(INT_MIN), "49 00 00 00 80"},
        {ParameterValue(1.0f), "46 00 00 80 3F"},
        {ParameterValue(-0.5f), "46 00 00 00 BF"},
        {ParameterValue(true), "42 01"},
        {ParameterValue(false), "42 00"},
        {ParameterValue("ab"), "53 61 62 00"},
        {ParameterValue(""), "53 00"},
        {ParameterValue(), "4E"},
    };
    for (const auto& c : cases)
    {
        const Bytes expected = fromHex(c.wire);
        const int length = static_cast<int>(expected.size());
        SCOPED_TRACE(c.wire);

        Bytes written(expected.size() + 1, 0xEE);
        ASSERT_EQ(c.value.getBinaryValue(reinterpret_cast<char*>(written.data()), length), length);
        EXPECT_EQ(toHex(written.data(), expected.size()), c.wire);
        EXPECT_EQ(written.back(), 0xEE) << "wrote past the form";

        // One byte too small: refused, and nothing written past the room given.
        Bytes tight(expected.size(), 0xEE);
        EXPECT_EQ(c.value.getBinaryValue(reinterpret_cast<char*>(tight.data()), length - 1), 0);
        EXPECT_EQ(tight.back(), 0xEE);

        ParameterValue decoded;
        ASSERT_EQ(decodeExact(expected, expected.size(), decoded), length);
        EXPECT_EQ(decoded.getType(), c.value.getType());
        EXPECT_EQ(decoded.getAsString(), c.value.getAsString());
        float f1 = 0, f2 = 0;
        EXPECT_EQ(decoded.getFloatValue(f1), c.value.getFloatValue(f2));
        EXPECT_EQ(f1, f2);

        for (std::size_t cut = 0; cut < expected.size(); ++cut)
        {
            ParameterValue partial;
            EXPECT_EQ(decodeExact(expected, cut, partial), 0) << "cut to " << cut << " bytes";
        }
    }
}

TEST(ParameterValueTest, DecoderKeepsUnknownTagsAndTakesAnyNonZeroBooleanByteAsTrue)
{
    const struct
    {
        const char* wire;
        int consumed;
        int type;
        const char* text;
    } cases[] = {
        {"58 01 02", 1, 88, "INV"}, // unknown tag: one byte, no data
        {"C8", 1, -56, "INV"},      // tag 128 or above widens as a signed byte
        {"42 07", 2, PARAM_TYPE_BOOL, "ON"},
        {"53 61 00 62 00", 3, PARAM_TYPE_STRING, "a"}, // stops at the first NUL
    };
    for (const auto& c : cases)
    {
        const Bytes bytes = fromHex(c.wire);
        ParameterValue value;
        EXPECT_EQ(decodeExact(bytes, bytes.size(), value), c.consumed) << c.wire;
        EXPECT_EQ(value.getType(), c.type) << c.wire;
        EXPECT_EQ(value.getAsString(), c.text) << c.wire;
    }
    ParameterValue unknown;
    const Bytes tag = fromHex("58");
    ASSERT_EQ(decodeExact(tag, 1, unknown), 1);
    char out[4] = {};
    EXPECT_EQ(unknown.getBinaryValue(out, sizeof(out)), 1);
    EXPECT_EQ(out[0], 'X');
}

TEST(ParameterValueTest, WriterRefusesAStringHoldingANulAndAnyRoomOfZeroOrLess)
{
    char out[16] = {};
    EXPECT_EQ(ParameterValue(std::string("a\0b", 3)).getBinaryValue(out, sizeof(out)), 0);
    EXPECT_EQ(ParameterValue(5).getBinaryValue(out, 0), 0);
    EXPECT_EQ(ParameterValue().getBinaryValue(out, -1), 0);
    EXPECT_EQ(out[0], 0) << "wrote with no room";
}

} // namespace
