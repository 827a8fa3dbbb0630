#include "Json.h"

#include "ValueSyntax.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace weftcli
{

namespace
{

// The length of the valid UTF-8 sequence starting at `i`, or 0.
std::size_t utf8Length(const std::string& text, std::size_t i)
{
    const auto byte = [&](std::size_t at)
    { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u; };
    const unsigned int lead = byte(i);
    const auto continuation = [&](std::size_t at) { return (byte(at) & 0xC0u) == 0x80u; };
    if (lead >= 0xC2 && lead <= 0xDF)
    {
        return continuation(i + 1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF)
    {
        // No overlong forms (E0 80..9F) and no surrogates (ED A0..BF).
        const unsigned int second = byte(i + 1);
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F))
        {
            return 0;
        }
        return continuation(i + 1) && continuation(i + 2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4)
    {
        // Nothing overlong (F0 80..8F) and nothing past U+10FFFF (F4 90..).
        const unsigned int second = byte(i + 1);
        if ((lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
        {
            return 0;
        }
        return continuation(i + 1) && continuation(i + 2) && continuation(i + 3) ? 4 : 0;
    }
    return 0;
}

} // namespace

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    std::size_t i = 0;
    while (i < text.size())
    {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80)
        {
            const std::size_t length = utf8Length(text, i);
            if (length == 0)
            {
                out += "\\ufffd";
                ++i;
            }
            else
            {
                out.append(text, i, length);
                i += length;
            }
            continue;
        }
        switch (c)
        {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\f':
            out += "\\f";
            break;
        default:
            if (c < 0x20)
            {
                char hex[8];
                std::snprintf(hex, sizeof(hex), "\\u%04x", c);
                out += hex;
            }
            else
            {
                out += static_cast<char>(c);
            }
        }
        ++i;
    }
    return out + "\"";
}

std::string jsonFloat(float value)
{
    if (!std::isfinite(value))
    {
        return "null";
    }
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    std::string text(buffer, result.ptr);
    if (text.find_first_of(".e") == std::string::npos)
    {
        text += ".0";
    }
    return text;
}

std::string jsonValue(const ParameterValue& value)
{
    int number = 0;
    float real = 0.0f;
    bool flag = false;
    if (value.getIntValue(number))
    {
        return std::to_string(number);
    }
    if (value.getFloatValue(real))
    {
        return jsonFloat(real);
    }
    if (value.getBooleanValue(flag))
    {
        return flag ? "true" : "false";
    }
    if (value.getType() == PARAM_TYPE_STRING)
    {
        return jsonString(value.getAsString());
    }
    return "null";
}

std::string jsonList(const ParameterList& list)
{
    JsonObject object;
    for (const auto& [name, value] : listEntries(list))
    {
        object.addRaw(name, jsonValue(value));
    }
    return object.str();
}

JsonObject& JsonObject::addString(const std::string& key, const std::string& text)
{
    return addRaw(key, jsonString(text));
}

JsonObject& JsonObject::addInt(const std::string& key, long long number)
{
    return addRaw(key, std::to_string(number));
}

JsonObject& JsonObject::addBool(const std::string& key, bool flag)
{
    return addRaw(key, flag ? "true" : "false");
}

JsonObject& JsonObject::addTypedValue(const ParameterValue& value)
{
    addString("type", typeName(value));
    return addRaw("value", jsonValue(value));
}

JsonObject& JsonObject::addFields(const JsonObject& other)
{
    if (!other.m_fields.empty())
    {
        m_fields += (m_fields.empty() ? "" : ",") + other.m_fields;
    }
    return *this;
}

JsonObject& JsonObject::addRaw(const std::string& key, const std::string& json)
{
    if (!m_fields.empty())
    {
        m_fields += ",";
    }
    m_fields += jsonString(key) + ":" + json;
    return *this;
}

} // namespace weftcli
