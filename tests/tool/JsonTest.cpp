// The weft tool's JSON text.
#include "Json.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <charconv>
#include <limits>

using namespace weftcli;

namespace
{

TEST(JsonTest, JsonStringsEscapeControlsAndReplaceInvalidUtf8)
{
    const std::pair<std::string, std::string> cases[] = {
        {"a\"b\\c\n\r\t\b\f", R"("a\"b\\c\n\r\t\b\f")"},
        {std::string("\x01\x1f\x7f", 3), "\"\\u0001\\u001f\x7f\""},
        {std::string("nul\0in", 6), R"("nul\u0000in")"},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
         "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
        {"\xff", R"("\ufffd")"},
        {"\xc0\xaf", R"("\ufffd\ufffd")"},
        {"\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},
        {"\xf4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},
        {"\xe2\x82", R"("\ufffd\ufffd")"},
    };
    for (const auto& [text, json] : cases)
    {
        EXPECT_EQ(jsonString(text), json) << text;
    }
}

TEST(JsonTest, JsonFloatsAreShortestRoundTripsAndAlwaysLookLikeFloats)
{
    EXPECT_EQ(jsonFloat(1.0f) + jsonFloat(0.1f) + jsonFloat(1000000.0f) + jsonFloat(-0.0f),
              "1.00.11e+06-0.0");
    EXPECT_EQ(jsonFloat(std::numeric_limits<float>::infinity()) +
                  jsonFloat(std::numeric_limits<float>::quiet_NaN()),
              "nullnull");
    for (const float value :
         {FLT_MIN, FLT_MAX, -FLT_MAX, FLT_TRUE_MIN, 16777217.0f, 3.14159265f, 1e-7f, 123456.789f})
    {
        const std::string text = jsonFloat(value);
        float back = 0.0f;
        const auto result = std::from_chars(text.data(), text.data() + text.size(), back);
        EXPECT_EQ(result.ptr, text.data() + text.size()) << text;
        EXPECT_EQ(back, value) << text;
    }
}

TEST(JsonTest, JsonEventsCarryValuesWithTheirJsonTypes)
{
    EXPECT_EQ(jsonValue(ParameterValue(-17)) + jsonValue(ParameterValue(false)) +
                  jsonValue(ParameterValue("on")) + jsonValue(ParameterValue()),
              "-17false\"on\"null");

    ParameterList list;
    list.addString("clip", "a\"b");
    list.addFloat("gain", 2.0f);
    list.addBoolean("loop", true);
    EXPECT_EQ(jsonList(list), R"({"clip":"a\"b","gain":2.0,"loop":true})");
    EXPECT_EQ(jsonList(ParameterList()), "{}");

    const std::string event = JsonObject()
                                  .addString("event", "update")
                                  .addString("name", "lev\nel")
                                  .addTypedValue(ParameterValue(0.5f))
                                  .addInt("clients", 2)
                                  .addBool("broadcast", false)
                                  .addRaw("params", jsonList(list))
                                  .str();
    EXPECT_EQ(event,
              R"({"event":"update","name":"lev\nel","type":"float","value":0.5,)"
              R"("clients":2,"broadcast":false,"params":{"clip":"a\"b","gain":2.0,"loop":true}})");
}

} // namespace
