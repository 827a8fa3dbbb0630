// The weft tool's value syntax, command-line splitting and printed text.
#include "ValueSyntax.h"

#include <gtest/gtest.h>

using namespace weftcli;

namespace
{

struct ValueCase
{
    const char* text;
    const char* type;  // typeName of the result
    const char* shown; // getAsString of the result
};

TEST(ValueSyntaxTest, TypedAndInferredValuesGetTheirKindAndTextForm)
{
    const ValueCase cases[] = {
        {"42", "int", "42"},
        {"i:-2147483648", "int", "-2147483648"},
        {"0.5", "float", "0.5"},
        {"-2.5E-3", "float", "-0.0025"},
        {"f:5", "float", "5"},
        {"on", "bool", "ON"},
        {"b:yes", "bool", "ON"},
        {"s:42", "string", "42"},
        {"", "string", ""},
        {"n:", "empty", "INV"},
        {"studio A", "string", "studio A"},
        {"inf", "string", "inf"},
        {"x:y", "string", "x:y"},
    };
    for (const ValueCase& c : cases)
    {
        ParameterValue value;
        std::string error;
        ASSERT_TRUE(parseValue(c.text, value, error)) << c.text << ": " << error;
        EXPECT_STREQ(typeName(value), c.type) << c.text;
        EXPECT_EQ(value.getAsString(), c.shown) << c.text;
    }
}

TEST(ValueSyntaxTest, ValuesThatDoNotFitTheirKindAreRefusedWithAReason)
{
    const std::pair<const char*, const char*> cases[] = {
        {"2147483648", "does not fit a 32-bit integer"},
        {"i:abc", "i: 'abc' is not a whole number"},
        {"f:abc", "f: 'abc' is not a number"},
        {"1e40", "out of range for a 32-bit float"},
        {"b:maybe", "is not on/off"},
        {"n:x", "n: stands for the empty value"},
    };
    for (const auto& [text, reason] : cases)
    {
        ParameterValue value(7);
        std::string error;
        EXPECT_FALSE(parseValue(text, value, error)) << text;
        EXPECT_NE(error.find(reason), std::string::npos) << text << ": " << error;
        EXPECT_STREQ(typeName(value), "int") << text << " changed the value";
    }
}

TEST(ValueSyntaxTest, CallParametersKeepTheirTypesAndRefuseWhatAListCannotHold)
{
    ParameterList list;
    std::string error;
    ASSERT_TRUE(parseParameters(
        {"loop=on", "clip=intro", "gain=f:0.5", "count=3", "eq=a=b", "count=4"}, list, error))
        << error;
    const auto entries = listEntries(list);
    ASSERT_EQ(entries.size(), 5u);
    const std::pair<const char*, const char*> expected[] = {{"clip", "string"},
                                                            {"count", "int"},
                                                            {"eq", "string"},
                                                            {"gain", "float"},
                                                            {"loop", "bool"}};
    for (std::size_t i = 0; i < entries.size(); ++i)
    {
        EXPECT_EQ(entries[i].first, expected[i].first);
        EXPECT_STREQ(typeName(entries[i].second), expected[i].second) << entries[i].first;
    }
    EXPECT_EQ(listText(list), R"(clip="intro" count=4 eq="a=b" gain=0.5 loop=ON)");

    for (const char* bad : {"novalue", "=5", "x=n:", "x=i:y"})
    {
        ParameterList other;
        EXPECT_FALSE(parseParameters({bad}, other, error)) << bad;
    }
    EXPECT_EQ(error, "parameter x: i: 'y' is not a whole number");
}

TEST(ValueSyntaxTest, CommandLinesSplitAtBlanksWithQuotesAndEscapes)
{
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"  update\tname  \"studio A\"  ", {"update", "name", "studio A"}},
        {R"(say "a \"quoted\" \\ word\n")", {"say", "a \"quoted\" \\ word\n"}},
        {"set x \"\"", {"set", "x", ""}},
        {"# a comment", {}},
        {"call f x=1 # not a comment here",
         {"call", "f", "x=1", "#", "not", "a", "comment", "here"}},
    };
    for (const auto& [line, words] : cases)
    {
        std::vector<std::string> split;
        std::string error;
        ASSERT_TRUE(splitWords(line, split, error)) << line << ": " << error;
        EXPECT_EQ(split, words) << line;
    }
    for (const char* bad : {"update \"open", "update 'open", "a \"b\\\""})
    {
        std::vector<std::string> split;
        std::string error;
        EXPECT_FALSE(splitWords(bad, split, error)) << bad;
        EXPECT_NE(error.find("unterminated"), std::string::npos) << error;
    }
}

TEST(ValueSyntaxTest, HostAndPortSplitWithTheGivenPortAsDefault)
{
    std::string host;
    unsigned short port = 7420;
    std::string error;
    ASSERT_TRUE(parseHostPort("studio", host, port, error));
    EXPECT_EQ(host + ":" + std::to_string(port), "studio:7420");
    ASSERT_TRUE(parseHostPort("127.0.0.1:65535", host, port, error));
    EXPECT_EQ(host + ":" + std::to_string(port), "127.0.0.1:65535");
    for (const char* bad : {":80", "", "h:0", "h:65536", "h:x", "h:", "h:80x"})
    {
        EXPECT_FALSE(parseHostPort(bad, host, port, error)) << bad;
    }
    EXPECT_TRUE(parsePort("0", true, port, error));
    EXPECT_EQ(port, 0);
    EXPECT_FALSE(parsePort("0", false, port, error));
    EXPECT_EQ(error, "'0' is not a port (1 to 65535)");
}

TEST(ValueSyntaxTest, TimesTakeAUnitOrSecondsAndSharesAPercentSign)
{
    const std::pair<const char*, long long> times[] = {{"0.5", 500000},
                                                       {"20ms", 20000},
                                                       {"500us", 500},
                                                       {"2min", 120000000},
                                                       {"86400", 86400000000}};
    for (const auto& [text, micros] : times)
    {
        std::chrono::microseconds time{0};
        std::string error;
        ASSERT_TRUE(parseDuration(text, false, time, error)) << text << ": " << error;
        EXPECT_EQ(time.count(), micros) << text;
    }
    for (const char* bad : {"", "0", "-1", "1h", "ms", "86401", "2 s"})
    {
        std::chrono::microseconds time{0};
        std::string error;
        EXPECT_FALSE(parseDuration(bad, false, time, error)) << bad;
        EXPECT_EQ(error.find("'" + std::string(bad) + "' is not a time"), 0u) << error;
    }
    std::chrono::microseconds zero{5};
    std::string error;
    EXPECT_TRUE(parseDuration("0ms", true, zero, error));
    EXPECT_EQ(zero.count(), 0);

    const std::pair<const char*, double> shares[] = {{"5%", 0.05}, {"0.5", 0.005}, {"100%", 1.0}};
    for (const auto& [text, rate] : shares)
    {
        double parsed = -1;
        ASSERT_TRUE(parsePercent(text, parsed, error)) << text;
        EXPECT_DOUBLE_EQ(parsed, rate) << text;
    }
    for (const char* bad : {"", "%", "-1%", "100.5%", "nan"})
    {
        double parsed = 0;
        EXPECT_FALSE(parsePercent(bad, parsed, error)) << bad;
    }
}

TEST(ValueSyntaxTest, PrintedTextKeepsOneEventOnOneLine)
{
    EXPECT_EQ(quoted("a\"b\\c\nd\x01"), R"("a\"b\\c\nd\x01")");
    EXPECT_EQ(valueText(ParameterValue("two\nlines \"q\"")), R"("two\nlines \"q\"")");
    EXPECT_EQ(valueText(ParameterValue(1000000.0f)), "1e+06");
}

} // namespace
