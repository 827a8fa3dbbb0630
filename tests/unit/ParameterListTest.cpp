#include "support/HexBytes.h"

#include <weft/ParameterList.h>

#include <gtest/gtest.h>

#include <tuple>

namespace
{

std::string printed(const ParameterList& list)
{
    std::ostringstream out;
    list.print(out);
    return out.str();
}

// Writes into a heap block of exactly `room` bytes, so that AddressSanitizer
// reports any write past it.
std::string wireOf(const ParameterList& list, std::size_t room = 4096)
{
    std::unique_ptr<char[]> buffer(new char[room]);
    const int n = list.getBinary(buffer.get(), static_cast<int>(room));
    return n == 0 ? "refused" : toHex(buffer.get(), static_cast<std::size_t>(n));
}

TEST(ParameterListTest, LookupsReadByKindInNameOrderAndAMissingNameJoinsANonEmptyList)
{
    ParameterList list;
    std::string name = "-", text = "-";
    int i = -1;
    bool b = false;
    EXPECT_FALSE(list.getParam("m", text) || list.getParam(0u, name, text));
    EXPECT_EQ(list.size(), 0u) << "a lookup on an empty list added an entry";

    list.addNumeric("x", 1);
    list.addString("x", "one"); // replaces the integer
    list.addFloat("b", 0.5f);
    list.addBoolean("B", true);
    EXPECT_FALSE(list.getParam("x", i) || list.getParam("b", b));
    EXPECT_EQ(i, -1);
    EXPECT_TRUE(list.getParam("B", b) && b);
    EXPECT_TRUE(list.getParam("m", text)); // adds m holding an empty value
    EXPECT_EQ(text, "INV");
    EXPECT_EQ(printed(list), "B = ON b = 0.5 m = INV x = one ");
    EXPECT_TRUE(list.getParam(3u, name, text));
    EXPECT_EQ(name + "=" + text, "x=one");
    EXPECT_FALSE(list.getParam(4u, name, text));
    EXPECT_EQ(wireOf(list), "04 42 00 42 01 62 00 46 00 00 00 3F 6D 00 4E 78 00 53 6F 6E 65 00");
}

TEST(ParameterListTest, WireExamplesRoundTripAndEveryCutOrShortRoomIsRefused)
{
    ParameterList example;
    example.addNumeric("x", 5);
    example.addBoolean("a", false);
    const std::pair<ParameterList, std::string> cases[] = {
        {ParameterList(), "00"}, {example, "02 61 00 42 00 78 00 49 05 00 00 00"}};
    for (const auto& [list, wire] : cases)
    {
        SCOPED_TRACE(wire);
        const std::size_t length = fromHex(wire).size();
        EXPECT_EQ(wireOf(list), wire);
        ParameterList decoded;
        ASSERT_EQ(decodeExact(decoded, wire, length), static_cast<int>(length));
        EXPECT_EQ(printed(decoded), printed(list));
        for (std::size_t cut = 0; cut < length; ++cut)
        {
            ParameterList partial;
            EXPECT_EQ(decodeExact(partial, wire, cut), 0) << "cut to " << cut;
            // Rooms from 7 on hold both names but not the last value.
            EXPECT_EQ(wireOf(list, cut), "refused") << "room " << cut;
        }
    }
}

TEST(ParameterListTest, DecodingMergesIntoExistingEntriesAndKeepsTheLaterOfDuplicates)
{
    const std::tuple<std::string, int, const char*> cases[] = {
        {"02 61 00 42 00 78 00 49 05 00 00 00", 12, "a = OFF b = 7 x = 5 "},
        {"02 61 00 49 01 00 00 00 61 00 49 02 00 00 00", 15, "a = 2 b = 7 "},
        {"02 61 00 42 01 78 00 49 05 00", 0, "a = ON b = 7 "}, // the first entry stays
        {"01 61 62", 0, "b = 7 "},                             // a name without its NUL
    };
    for (const auto& [wire, consumed, after] : cases)
    {
        ParameterList list;
        list.addNumeric("b", 7);
        EXPECT_EQ(decodeExact(list, wire, fromHex(wire).size()), consumed) << wire;
        EXPECT_EQ(printed(list), after) << wire;
    }
}

TEST(ParameterListTest, CarriesUpTo255EntriesAndRefusesWhatTheReaderWouldMisread)
{
    ParameterList list;
    for (int i = 0; i < 255; ++i)
    {
        list.addNumeric("p" + std::to_string(1000 + i), i);
    }
    const std::string wire = wireOf(list);
    ASSERT_EQ(fromHex(wire).size(), 1u + 255 * (6 + 5));
    EXPECT_EQ(wire.substr(0, 2), "FF");
    ParameterList decoded;
    EXPECT_EQ(decodeExact(decoded, wire, fromHex(wire).size()), 1 + 255 * (6 + 5));
    EXPECT_EQ(printed(decoded), printed(list));
    list.addNumeric("p9999", 0);
    EXPECT_EQ(wireOf(list), "refused") << "256 entries would wrap the count byte";
    ParameterList nulInName, nulInValue;
    nulInName.addNumeric(std::string("a\0b", 3), 1);
    nulInValue.addString("a", std::string("x\0y", 3));
    EXPECT_EQ(wireOf(nulInName) + wireOf(nulInValue), "refusedrefused");
}

} // namespace
