#include "support/HexBytes.h"

#include <weft/ParameterList.h>

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

namespace
{

std::string printed(const ParameterList& list)
{
    std::ostringstream out;
    list.print(out);
    return out.str();
}

std::string wireOf(const ParameterList& list)
{
    char buffer[4096];
    const int n = list.getBinary(buffer, sizeof(buffer));
    return n == 0 ? "refused" : toHex(buffer, static_cast<std::size_t>(n));
}

// Decodes from a heap block of exactly `size` bytes, so that AddressSanitizer
// sees any read at or past the end.
int decodeExact(const Bytes& bytes, std::size_t size, ParameterList& list)
{
    std::unique_ptr<char[]> exact(new char[size == 0 ? 1 : size]);
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size), exact.get());
    return list.createFromBinary(exact.get(), static_cast<int>(size));
}

TEST(ParameterListTest, AddersReplaceAnyKindAndTypedLookupsRefuseOtherKinds)
{
    ParameterList list;
    list.addNumeric("x", 1);
    list.addString("x", "one");
    list.addFloat("f", 0.5f);
    list.addBoolean("b", true);
    EXPECT_EQ(list.size(), 3u);

    int i = -1;
    bool b = false;
    std::string text;
    EXPECT_FALSE(list.getParam("x", i));
    EXPECT_EQ(i, -1);
    EXPECT_FALSE(list.getParam("f", b));
    EXPECT_FALSE(b);
    EXPECT_TRUE(list.getParam("b", b));
    EXPECT_TRUE(b);
    EXPECT_TRUE(list.getParam("x", text));
    EXPECT_EQ(text, "one");
    EXPECT_TRUE(list.getParam("f", text));
    EXPECT_EQ(text, "0.5");
    EXPECT_EQ(printed(list), "b = ON f = 0.5 x = one ");
    EXPECT_EQ(list.size(), 3u) << "lookups of present names added entries";
}

TEST(ParameterListTest, LookupOfAMissingNameAddsAnEmptyEntryUnlessTheListIsEmpty)
{
    ParameterList empty;
    std::string text = "untouched";
    int i = 0;
    EXPECT_FALSE(empty.getParam("m", text));
    EXPECT_FALSE(empty.getParam("m", i));
    EXPECT_EQ(text, "untouched");
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(printed(empty), "");

    ParameterList list;
    list.addNumeric("a", 1);
    EXPECT_TRUE(list.getParam("m", text));
    EXPECT_EQ(text, "INV");
    EXPECT_FALSE(list.getParam("n", i));
    EXPECT_EQ(printed(list), "a = 1 m = INV n = INV ");
    EXPECT_EQ(wireOf(list), "03 61 00 49 01 00 00 00 6D 00 4E 6E 00 4E");
}

TEST(ParameterListTest, LookupByPositionFollowsBytewiseNameOrder)
{
    ParameterList list;
    std::string name = "none", value = "none";
    EXPECT_FALSE(list.getParam(0u, name, value));
    for (const char* n : {"b", "ab", "a", "B", ""})
    {
        list.addString(n, std::string("v") + n);
    }
    const char* order[] = {"", "B", "a", "ab", "b"};
    for (unsigned int index = 0; index < 5; ++index)
    {
        ASSERT_TRUE(list.getParam(index, name, value)) << index;
        EXPECT_EQ(name, order[index]);
        EXPECT_EQ(value, std::string("v") + order[index]);
    }
    EXPECT_FALSE(list.getParam(5u, name, value));
    EXPECT_EQ(name, "b") << "a failed lookup changed its arguments";
}

TEST(ParameterListTest, WireExamplesRoundTripByteExactAndEveryShorterCutIsRefused)
{
    ParameterList example;
    example.addNumeric("x", 5);
    example.addBoolean("a", false);
    const struct
    {
        ParameterList list;
        const char* wire;
    } cases[] = {
        {ParameterList(), "00"},
        {example, "02 61 00 42 00 78 00 49 05 00 00 00"},
    };
    for (const auto& c : cases)
    {
        const Bytes expected = fromHex(c.wire);
        const int length = static_cast<int>(expected.size());
        SCOPED_TRACE(c.wire);
        EXPECT_EQ(wireOf(c.list), c.wire);

        ParameterList decoded;
        ASSERT_EQ(decodeExact(expected, expected.size(), decoded), length);
        EXPECT_EQ(printed(decoded), printed(c.list));

        for (std::size_t cut = 0; cut < expected.size(); ++cut)
        {
            ParameterList partial;
            EXPECT_EQ(decodeExact(expected, cut, partial), 0) << "cut to " << cut << " bytes";
        }
        // Every room short of the whole form is refused without writing past it.
        for (int room = 0; room < length; ++room)
        {
            Bytes out(static_cast<std::size_t>(length), 0xEE);
            EXPECT_EQ(c.list.getBinary(reinterpret_cast<char*>(out.data()), room), 0) << room;
            EXPECT_EQ(toHex(out.data() + room, out.size() - static_cast<std::size_t>(room)),
                      toHex(Bytes(out.size() - static_cast<std::size_t>(room), 0xEE)))
                << "wrote past a room of " << room;
        }
    }
    // Room for both names and the first value but not the last value.
    char names[11];
    EXPECT_EQ(example.getBinary(names, sizeof(names)), 0);
}

TEST(ParameterListTest, DecodingMergesIntoExistingEntriesAndKeepsTheLaterOfDuplicates)
{
    const struct
    {
        const char* wire;
        int consumed;
        const char* after;
    } cases[] = {
        // merge: b stays, x and a are added
        {"02 61 00 42 00 78 00 49 05 00 00 00", 12, "a = OFF b = 7 x = 5 "},
        // the same name twice: one entry, the later value
        {"02 61 00 49 01 00 00 00 61 00 49 02 00 00 00", 15, "a = 2 b = 7 "},
        // second value truncated: refused, the first entry stays
        {"02 61 00 42 01 78 00 49 05 00", 0, "a = ON b = 7 "},
        // a name without its NUL
        {"01 61 62", 0, "b = 7 "},
    };
    for (const auto& c : cases)
    {
        ParameterList list;
        list.addNumeric("b", 7);
        const Bytes bytes = fromHex(c.wire);
        EXPECT_EQ(decodeExact(bytes, bytes.size(), list), c.consumed) << c.wire;
        EXPECT_EQ(printed(list), c.after) << c.wire;
    }
}

TEST(ParameterListTest, CarriesUpTo255EntriesAndRefusesWhatTheReaderWouldMisread)
{
    ParameterList list;
    for (int i = 0; i < 200; ++i)
    {
        list.addNumeric("p" + std::to_string(1000 + i), i);
    }
    std::unique_ptr<char[]> buffer(new char[4096]);
    const int written = list.getBinary(buffer.get(), 4096);
    ASSERT_EQ(written, 1 + 200 * (6 + 5));
    EXPECT_EQ(static_cast<uint8>(buffer[0]), 0xC8);
    ParameterList decoded;
    EXPECT_EQ(decoded.createFromBinary(buffer.get(), written), written);
    EXPECT_EQ(decoded.size(), 200u);
    EXPECT_EQ(printed(decoded), printed(list));

    for (int i = 200; i < 255; ++i)
    {
        list.addNumeric("p" + std::to_string(1000 + i), i);
    }
    EXPECT_NE(list.getBinary(buffer.get(), 4096), 0) << "255 entries must still be carried";
    list.addNumeric("p9999", 0);
    EXPECT_EQ(list.getBinary(buffer.get(), 4096), 0) << "256 entries would wrap the count";

    ParameterList nulInName;
    nulInName.addNumeric(std::string("a\0b", 3), 1);
    EXPECT_EQ(nulInName.getBinary(buffer.get(), 4096), 0);
    ParameterList nulInValue;
    nulInValue.addString("a", std::string("x\0y", 3));
    EXPECT_EQ(nulInValue.getBinary(buffer.get(), 4096), 0);
}

} // namespace
