// The weft tool's value syntax, command-line splitting and printed text.
#include "ValueSyntax.h"

#include <gtest/gtest.h>

using namespace weftcli;

namespace
{

// A value taken (its type and text form) or refused (nullptr and the reason).
TEST(ValueSyntaxTest, ValuesGetTheirKindAndTextFormOrAreRefusedWithAReason)
{
    const std::tuple<const char*, const char*, const char*> cases[] = {
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
        {"2147483648", nullptr, "'2147483648' does not fit a 32-bit integer (use f: or s:)"},
        {"i:abc", nullptr, "i: 'abc' is not a whole number"},
        {"f:abc", nullptr, "f: 'abc' is not a number"},
        {"1e40", nullptr, "'1e40' is out of range for a 32-bit float"},
        {"b:maybe", nullptr, "b: 'maybe' is not on/off/true/false/yes/no/1/0"},
        {"n:x", nullptr, "n: stands for the empty value and takes no text"},
    };
    for (const auto& [text, type, shown] : cases)
    {
        ParameterValue value(7);
        std::string error;
        EXPECT_EQ(parseValue(text, value, error), type != nullptr) << text << ": " << error;
        EXPECT_EQ(type != nullptr ? value.getAsString() : error, shown) << text;
        // A refused value leaves the one given unchanged.
        EXPECT_STREQ(typeName(value), type != nullptr ? type : "int") << text;
    }
}

TEST(ValueSyntaxTest, CallParametersKeepTheirTypesAndRefuseWhatAListCannotHold)
{
    ParameterList list;
    std::string error;
    ASSERT_TRUE(parseParameters(
        {"loop=on", "clip=intro", "gain=f:0.5", "count=3", "eq=a=b", "count=4"}, list, error))
        << error;
    std::string types;
    for (const auto& [name, value] : listEntries(list))
    {
        types += name + ":" + typeName(value) + " ";
    }
    EXPECT_EQ(types, "clip:string count:int eq:string gain:float loop:bool ");
    EXPECT_EQ(listText(list), R"(clip="intro" count=4 eq="a=b" gain=0.5 loop=ON)");

    for (const char* bad : {"novalue", "=5", "x=n:", "x=i:y"})
    {
        ParameterList other;
        EXPECT_FALSE(parseParameters({bad}, other, error)) << bad;
    }
    EXPECT_EQ(error, "parameter x: i: 'y' is not a whole number");
}

// The words of a line, or the error that refuses it.
TEST(ValueSyntaxTest, CommandLinesSplitAtBlanksWithQuotesAndEscapes)
{
    const std::tuple<const char*, bool, std::vector<std::string>> cases[] = {
        {"  update\tname  \"studio A\"  ", true, {"update", "name", "studio A"}},
        {R"(say "a \"quoted\" \\ word\n")", true, {"say", "a \"quoted\" \\ word\n"}},
        {"set x \"\"", true, {"set", "x", ""}},
        {"# a comment", true, {}},
        {"call f x=1 # not a comment here",
         true,
         {"call", "f", "x=1", "#", "not", "a", "comment", "here"}},
        {"update \"open", false, {"unterminated \" quote"}},
        {"update 'open", false, {"unterminated ' quote"}},
        {"a \"b\\\"", false, {"unterminated \" quote"}},
    };
    for (const auto& [line, ok, words] : cases)
    {
        std::vector<std::string> split;
        std::string error;
        EXPECT_EQ(splitWords(line, split, error), ok) << line << ": " << error;
        EXPECT_EQ(ok ? split : std::vector<std::string>{error}, words) << line;
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

// Microseconds or shares; -1 for a text refused, which leaves the value as it was.
TEST(ValueSyntaxTest, TimesTakeAUnitOrSecondsAndSharesAPercentSign)
{
    const std::pair<const char*, long long> times[] = {{"0.5", 500000},
                                                       {"20ms", 20000},
                                                       {"500us", 500},
                                                       {"2min", 120000000},
                                                       {"86400", 86400000000},
                                                       {"", -1},
                                                       {"0", -1},
                                                       {"-1", -1},
                                                       {"1h", -1},
                                                       {"ms", -1},
                                                       {"86401", -1},
                                                       {"2 s", -1}};
    for (const auto& [text, micros] : times)
    {
        std::chrono::microseconds time{-1};
        std::string error;
        EXPECT_EQ(parseDuration(text, false, time, error), micros >= 0) << text << ": " << error;
        EXPECT_EQ(time.count(), micros) << text;
        EXPECT_EQ(error.empty() ? 0 : error.find("'" + std::string(text) + "' is not a time"), 0u)
            << error;
    }
    std::chrono::microseconds zero{5};
    std::string error;
    EXPECT_TRUE(parseDuration("0ms", true, zero, error));
    EXPECT_EQ(zero.count(), 0);

    const std::pair<const char*, double> shares[] = {{"5%", 0.05},   {"0.5", 0.005}, {"100%", 1.0},
                                                     {"", -1},       {"%", -1},      {"-1%", -1},
                                                     {"100.5%", -1}, {"nan", -1}};
    for (const auto& [text, rate] : shares)
    {
        double parsed = -1;
        EXPECT_EQ(parsePercent(text, parsed, error), rate >= 0) << text;
        EXPECT_DOUBLE_EQ(parsed, rate) << text;
    }
}

TEST(ValueSyntaxTest, PrintedTextKeepsOneEventOnOneLine)
{
    EXPECT_EQ(quoted("a\"b\\c\nd\x01"), R"("a\"b\\c\nd\x01")");
    EXPECT_EQ(valueText(ParameterValue("two\nlines \"q\"")), R"("two\nlines \"q\"")");
    EXPECT_EQ(valueText(ParameterValue(1000000.0f)), "1e+06");
}

} // namespace
