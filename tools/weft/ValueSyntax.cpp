#include "ValueSyntax.h"

#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <vector>

namespace weftcli
{

namespace
{

std::string lower(const std::string& text)
{
    std::string result = text;
    for (char& c : result)
    {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Optional sign, then digits only.
bool looksInteger(const std::string& text)
{
    std::size_t i = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
    if (i == text.size())
    {
        return false;
    }
    for (; i < text.size(); ++i)
    {
        if (!isDigit(text[i]))
        {
            return false;
        }
    }
    return true;
}

// Optional sign, digits with a decimal point and/or an exponent; at least one
// digit before the exponent.
bool looksDecimal(const std::string& text)
{
    std::size_t i = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
    int digits = 0;
    bool point = false;
    for (; i < text.size() && (isDigit(text[i]) || (text[i] == '.' && !point)); ++i)
    {
        point = point || text[i] == '.';
        digits += isDigit(text[i]) ? 1 : 0;
    }
    if (digits == 0)
    {
        return false;
    }
    bool exponent = false;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E'))
    {
        exponent = true;
        ++i;
        if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        {
            ++i;
        }
        const std::size_t start = i;
        while (i < text.size() && isDigit(text[i]))
        {
            ++i;
        }
        if (i == start)
        {
            return false;
        }
    }
    return i == text.size() && (point || exponent);
}

// from_chars takes no plus sign; the sign is ours to strip.
std::string withoutPlus(const std::string& text)
{
    return (!text.empty() && text[0] == '+') ? text.substr(1) : text;
}

bool parseInt(const std::string& text, int& value, std::string& error)
{
    if (!looksInteger(text))
    {
        error = "'" + text + "' is not a whole number";
        return false;
    }
    const std::string digits = withoutPlus(text);
    long long wide = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), wide);
    if (result.ec != std::errc() || wide < INT_MIN || wide > INT_MAX)
    {
        error = "'" + text + "' does not fit a 32-bit integer (use f: or s:)";
        return false;
    }
    value = static_cast<int>(wide);
    return true;
}

bool parseFloat(const std::string& text, float& value, std::string& error)
{
    const std::string digits = withoutPlus(text);
    const char* end = digits.data() + digits.size();
    float parsed = 0.0f;
    const auto result = std::from_chars(digits.data(), end, parsed);
    if (digits.empty() || (!digits.empty() && digits[0] == '+') || result.ptr != end ||
        (result.ec != std::errc() && result.ec != std::errc::result_out_of_range))
    {
        error = "'" + text + "' is not a number";
        return false;
    }
    if (result.ec == std::errc::result_out_of_range)
    {
        error = "'" + text + "' is out of range for a 32-bit float";
        return false;
    }
    value = parsed;
    return true;
}

bool parseBool(const std::string& text, bool& value)
{
    const std::string word = lower(text);
    if (word == "on" || word == "true" || word == "yes" || word == "1")
    {
        value = true;
        return true;
    }
    if (word == "off" || word == "false" || word == "no" || word == "0")
    {
        value = false;
        return true;
    }
    return false;
}

bool isInferredBool(const std::string& text)
{
    const std::string word = lower(text);
    return word == "on" || word == "off" || word == "true" || word == "false";
}

// Escapes quotes (when asked), backslashes and control characters.
std::string escaped(const std::string& text, bool quotes)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text)
    {
        const unsigned char byte = static_cast<unsigned char>(c);
        switch (c)
        {
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\\':
            out += quotes ? "\\\\" : "\\";
            break;
        case '"':
            out += quotes ? "\\\"" : "\"";
            break;
        default:
            if (byte < 0x20 || byte == 0x7f)
            {
                char hex[8];
                std::snprintf(hex, sizeof(hex), "\\x%02x", byte);
                out += hex;
            }
            else
            {
                out += c;
            }
        }
    }
    return out;
}

} // namespace

bool parseValue(const std::string& text, ParameterValue& value, std::string& error)
{
    if (text.size() >= 2 && text[1] == ':')
    {
        const std::string rest = text.substr(2);
        switch (text[0])
        {
        case 'i':
        {
            int number = 0;
            if (!parseInt(rest, number, error))
            {
                error = "i: " + error;
                return false;
            }
            value = ParameterValue(number);
            return true;
        }
        case 'f':
        {
            float number = 0.0f;
            if (!parseFloat(rest, number, error))
            {
                error = "f: " + error;
                return false;
            }
            value = ParameterValue(number);
            return true;
        }
        case 'b':
        {
            bool flag = false;
            if (!parseBool(rest, flag))
            {
                error = "b: '" + rest + "' is not on/off/true/false/yes/no/1/0";
                return false;
            }
            value = ParameterValue(flag);
            return true;
        }
        case 's':
            value = ParameterValue(rest);
            return true;
        case 'n':
            if (!rest.empty())
            {
                error = "n: stands for the empty value and takes no text";
                return false;
            }
            value = ParameterValue();
            return true;
        default:
            break;
        }
    }
    if (looksInteger(text))
    {
        int number = 0;
        if (!parseInt(text, number, error))
        {
            return false;
        }
        value = ParameterValue(number);
        return true;
    }
    if (looksDecimal(text))
    {
        float number = 0.0f;
        if (!parseFloat(text, number, error))
        {
            return false;
        }
        value = ParameterValue(number);
        return true;
    }
    if (isInferredBool(text))
    {
        bool flag = false;
        parseBool(text, flag);
        value = ParameterValue(flag);
        return true;
    }
    value = ParameterValue(text);
    return true;
}

bool parseParameters(const std::vector<std::string>& words, ParameterList& list, std::string& error)
{
    for (const std::string& word : words)
    {
        const std::size_t equals = word.find('=');
        if (equals == std::string::npos || equals == 0)
        {
            error = "call parameter '" + word + "' is not NAME=VALUE";
            return false;
        }
        const std::string name = word.substr(0, equals);
        ParameterValue value;
        if (!parseValue(word.substr(equals + 1), value, error))
        {
            error = "parameter " + name + ": " + error;
            return false;
        }
        int number = 0;
        float real = 0.0f;
        bool flag = false;
        if (value.getIntValue(number))
        {
            list.addNumeric(name, number);
        }
        else if (value.getFloatValue(real))
        {
            list.addFloat(name, real);
        }
        else if (value.getBooleanValue(flag))
        {
            list.addBoolean(name, flag);
        }
        else if (value.getType() == PARAM_TYPE_STRING)
        {
            list.addString(name, value.getAsString());
        }
        else
        {
            error = "parameter " + name + ": a call parameter cannot be the empty value";
            return false;
        }
    }
    return true;
}

bool splitWords(const std::string& line, std::vector<std::string>& words, std::string& error)
{
    words.clear();
    std::string word;
    bool inWord = false;
    std::size_t i = 0;
    while (i < line.size())
    {
        const char c = line[i];
        if (std::isspace(static_cast<unsigned char>(c)))
        {
            if (inWord)
            {
                words.push_back(word);
                word.clear();
                inWord = false;
            }
            ++i;
            continue;
        }
        if (c == '#' && !inWord && words.empty())
        {
            return true;
        }
        inWord = true;
        if (c == '\'')
        {
            const std::size_t close = line.find('\'', i + 1);
            if (close == std::string::npos)
            {
                error = "unterminated ' quote";
                return false;
            }
            word += line.substr(i + 1, close - i - 1);
            i = close + 1;
            continue;
        }
        if (c == '"')
        {
            ++i;
            for (;;)
            {
                if (i >= line.size())
                {
                    error = "unterminated \" quote";
                    return false;
                }
                const char q = line[i++];
                if (q == '"')
                {
                    break;
                }
                if (q == '\\' && i < line.size())
                {
                    const char e = line[i++];
                    word += e == 'n' ? '\n' : e == 't' ? '\t' : e;
                    continue;
                }
                word += q;
            }
            continue;
        }
        if (c == '\\' && i + 1 < line.size())
        {
            word += line[i + 1];
            i += 2;
            continue;
        }
        word += c;
        ++i;
    }
    if (inWord)
    {
        words.push_back(word);
    }
    return true;
}

bool splitHostPort(const std::string& text, std::string& host, std::string& portText, bool& hasPort,
                   std::string& error)
{
    std::size_t colon = text.rfind(':');
    if (!text.empty() && text[0] == '[')
    {
        const std::size_t close = text.find(']');
        if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':'))
        {
            error = "'" + text + "' is not [ADDRESS] or [ADDRESS]:PORT";
            return false;
        }
        host = text.substr(1, close - 1);
        colon = close + 1 < text.size() ? close + 1 : std::string::npos;
    }
    else if (colon != std::string::npos && text.find(':') != colon)
    {
        // Two colons or more: an IPv6 address, without a port.
        host = text;
        colon = std::string::npos;
    }
    else
    {
        host = text.substr(0, colon);
    }
    if (host.empty())
    {
        error = "'" + text + "' names no host (write HOST or HOST:PORT)";
        return false;
    }
    hasPort = colon != std::string::npos;
    portText = hasPort ? text.substr(colon + 1) : std::string();
    return true;
}

bool parseHostPort(const std::string& text, std::string& host, unsigned short& port,
                   std::string& error)
{
    std::string portText;
    bool hasPort = false;
    return splitHostPort(text, host, portText, hasPort, error) &&
           (!hasPort || parsePort(portText, false, port, error));
}

std::string joinHostPort(const std::string& host, unsigned short port)
{
    const bool ipv6 = host.find(':') != std::string::npos;
    return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool parsePort(const std::string& text, bool allowZero, unsigned short& port, std::string& error)
{
    unsigned int number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size() ||
        number < (allowZero ? 0u : 1u) || number > 65535)
    {
        error = "'" + text + "' is not a port (" + (allowZero ? "0" : "1") + " to 65535)";
        return false;
    }
    port = static_cast<unsigned short>(number);
    return true;
}

bool parseDuration(const std::string& text, bool allowZero, std::chrono::microseconds& duration,
                   std::string& error)
{
    static const std::pair<const char*, double> UNITS[] = {
        {"us", 1e-6}, {"ms", 1e-3}, {"s", 1.0}, {"min", 60.0}, {"", 1.0}};
    double number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string unit(result.ptr, text.data() + text.size());
    for (const auto& [name, seconds] : UNITS)
    {
        // A day is far beyond any time-out or delay anyone means.
        const double total = number * seconds;
        if (result.ec == std::errc() && unit == name && std::isfinite(total) && total >= 0 &&
            total <= 86400 && (allowZero || total > 0) && text[0] != '-')
        {
            duration = std::chrono::microseconds(std::llround(total * 1e6));
            return true;
        }
    }
    error = "'" + text + "' is not a time" + (allowZero ? "" : " above 0") +
            " (such as 2, 0.5s, 20ms or 500us)";
    return false;
}

bool parsePercent(const std::string& text, double& rate, std::string& error)
{
    const std::string digits =
        !text.empty() && text.back() == '%' ? text.substr(0, text.size() - 1) : text;
    double number = -1;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (digits.empty() || result.ec != std::errc() || result.ptr != digits.data() + digits.size() ||
        !(number >= 0 && number <= 100))
    {
        error = "'" + text + "' is not a percentage (0% to 100%)";
        return false;
    }
    rate = number / 100;
    return true;
}

std::vector<std::pair<std::string, ParameterValue>> listEntries(const ParameterList& list)
{
    std::vector<std::pair<std::string, ParameterValue>> entries;
    // The list offers its types only through its binary form: read that back
    // entry by entry.
    std::vector<char> buffer(65536);
    const int size = list.getBinary(buffer.data(), static_cast<int>(buffer.size()));
    if (size > 0)
    {
        const unsigned int count = static_cast<unsigned char>(buffer[0]);
        int position = 1;
        for (unsigned int i = 0; i < count; ++i)
        {
            std::string name(buffer.data() + position);
            position += static_cast<int>(name.size()) + 1;
            ParameterValue value;
            const int used = value.createFromBinary(buffer.data() + position, size - position);
            if (used == 0)
            {
                break;
            }
            position += used;
            entries.emplace_back(name, value);
        }
        if (entries.size() == count)
        {
            return entries;
        }
        entries.clear();
    }
    // A list too large for its binary form: text only.
    for (unsigned int i = 0; i < list.size(); ++i)
    {
        std::string name;
        std::string text;
        list.getParam(i, name, text);
        entries.emplace_back(name, ParameterValue(text));
    }
    return entries;
}

const char* typeName(const ParameterValue& value)
{
    switch (value.getType())
    {
    case PARAM_TYPE_INT:
        return "int";
    case PARAM_TYPE_FLOAT:
        return "float";
    case PARAM_TYPE_BOOL:
        return "bool";
    case PARAM_TYPE_STRING:
        return "string";
    case PARAM_TYPE_NONE:
        return "empty";
    }
    return "unknown";
}

std::string valueText(const ParameterValue& value)
{
    return value.getType() == PARAM_TYPE_STRING ? quoted(value.getAsString())
                                                : escaped(value.getAsString(), false);
}

std::string listText(const ParameterList& list)
{
    std::string text;
    for (const auto& [name, value] : listEntries(list))
    {
        if (!text.empty())
        {
            text += ' ';
        }
        text += escaped(name, false) + "=" + valueText(value);
    }
    return text;
}

std::string quoted(const std::string& text)
{
    return "\"" + escaped(text, true) + "\"";
}

} // namespace weftcli
