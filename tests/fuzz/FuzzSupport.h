#pragma once

// Shared by the fuzz targets: failing with the values that differed, reading
// the fuzzer's bytes, a reference reader of the parameter forms written from
// the format alone (so that a target compares the library against something
// other than itself), comparing values, and quieting or capturing the log.

#include <weft/Init.h>
#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <tavo/LogManager.h>
#include <tavo/Types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fuzz
{

typedef std::vector<uint8> Bytes;

// Bytes as hex; a long run shows its first 64 bytes and its length.
inline std::string hex(const uint8* data, std::size_t size)
{
    constexpr std::size_t SHOWN = 64;
    std::string text;
    char digits[4];
    for (std::size_t i = 0; i < std::min(size, SHOWN); ++i)
    {
        std::snprintf(digits, sizeof(digits), i == 0 ? "%02X" : " %02X", data[i]);
        text += digits;
    }
    if (size > SHOWN)
    {
        text += " ... (" + std::to_string(size) + " bytes)";
    }
    return text;
}

inline std::string hex(const Bytes& bytes)
{
    return hex(bytes.data(), bytes.size());
}

[[noreturn]] inline void fail(const char* file, int line, const char* condition,
                              const std::string& detail)
{
    std::fprintf(stderr, "%s:%d: check failed: %s\n  %s\n", file, line, condition, detail.c_str());
    std::fflush(stderr);
    std::abort();
}

} // namespace fuzz

// Stops the run (a crash to the fuzzer) with the condition and the values
// that `detail` describes; `detail` is only built when the check fails.
#define FUZZ_CHECK(cond, detail)                                                                   \
    ((cond) ? static_cast<void>(0) : ::fuzz::fail(__FILE__, __LINE__, #cond, (detail)))

namespace fuzz
{

inline std::string str(long long value)
{
    return std::to_string(value);
}

// Takes the fuzzer's bytes front to back; past the end every read yields zeros.
class Input
{
public:
    Input(const uint8* data, std::size_t size) : m_data(data), m_size(size), m_position(0) {}

    std::size_t remaining() const { return m_size - m_position; }

    uint8 u8() { return m_position < m_size ? m_data[m_position++] : 0; }

    std::uint16_t u16()
    {
        const std::uint16_t low = u8();
        return static_cast<std::uint16_t>(low | (u8() << 8));
    }

    std::uint32_t u32()
    {
        const std::uint32_t low = u16();
        return low | (static_cast<std::uint32_t>(u16()) << 16);
    }

    Bytes take(std::size_t count)
    {
        count = std::min(count, remaining());
        Bytes bytes(m_data + m_position, m_data + m_position + count);
        m_position += count;
        return bytes;
    }

    Bytes rest() { return take(remaining()); }

    // Chunks framed by a little-endian 16-bit length, each cut to what is
    // left and to `limit`.
    std::vector<Bytes> chunks(std::size_t limit)
    {
        std::vector<Bytes> result;
        while (remaining() >= 2)
        {
            const std::size_t length = u16();
            result.push_back(take(std::min(length, limit)));
        }
        return result;
    }

private:
    const uint8* m_data;
    std::size_t m_size;
    std::size_t m_position;
};

// ---- reference reader of the parameter forms ----
namespace reference
{

// One value form at `data`: its canonical bytes (a boolean's byte as 0 or 1,
// since any other byte reads as true) and the count consumed; nothing when
// the form is cut short.
inline std::optional<Bytes> value(const uint8* data, std::size_t size, std::size_t& consumed)
{
    if (size == 0)
    {
        return std::nullopt;
    }
    switch (data[0])
    {
    case 'I':
    case 'F':
        if (size < 5)
        {
            return std::nullopt;
        }
        consumed = 5;
        return Bytes(data, data + 5);
    case 'B':
        if (size < 2)
        {
            return std::nullopt;
        }
        consumed = 2;
        return Bytes{'B', static_cast<uint8>(data[1] != 0 ? 1 : 0)};
    case 'S':
        for (std::size_t i = 1; i < size; ++i)
        {
            if (data[i] == 0)
            {
                consumed = i + 1;
                return Bytes(data, data + i + 1);
            }
        }
        return std::nullopt;
    default:
        consumed = 1;
        return Bytes{data[0]};
    }
}

// Entries by name (bytewise order, as the library keeps them), each with its
// value's canonical bytes.
typedef std::map<std::string, Bytes> Entries;

// Merges one list form into `entries`, a later name replacing an earlier
// one; the count consumed, or 0 when the form is cut short (the entries read
// before stay).
inline std::size_t list(const uint8* data, std::size_t size, Entries& entries)
{
    if (size == 0)
    {
        return 0;
    }
    std::size_t position = 1;
    for (unsigned int i = 0; i < data[0]; ++i)
    {
        const void* end = std::memchr(data + position, 0, size - position);
        if (end == nullptr)
        {
            return 0;
        }
        const std::size_t nameEnd = static_cast<std::size_t>(static_cast<const uint8*>(end) - data);
        std::size_t consumed = 0;
        const std::optional<Bytes> form = value(data + nameEnd + 1, size - nameEnd - 1, consumed);
        if (!form)
        {
            return 0;
        }
        entries[std::string(reinterpret_cast<const char*>(data + position), nameEnd - position)] =
            *form;
        position = nameEnd + 1 + consumed;
    }
    return position;
}

// The canonical list form of `entries`: what the library writes for them.
inline Bytes encode(const Entries& entries)
{
    Bytes bytes{static_cast<uint8>(entries.size())};
    for (const auto& [name, form] : entries)
    {
        bytes.insert(bytes.end(), name.begin(), name.end());
        bytes.push_back(0);
        bytes.insert(bytes.end(), form.begin(), form.end());
    }
    return bytes;
}

} // namespace reference

// ---- values and lists ----

// Room for any form a target meets: larger than any input it is given. One
// block, reused, since clearing a fresh one for every form costs more than
// the decoding under test.
inline uint8* formRoom(std::size_t& size)
{
    static std::vector<uint8> room(1u << 20);
    size = room.size();
    return room.data();
}

// The value form the library writes, or empty when it refuses.
inline Bytes valueForm(const ParameterValue& value)
{
    std::size_t size = 0;
    uint8* room = formRoom(size);
    const int written = value.getBinaryValue(reinterpret_cast<char*>(room), static_cast<int>(size));
    return Bytes(room, room + std::max(written, 0));
}

inline Bytes listForm(const ParameterList& list)
{
    std::size_t size = 0;
    uint8* room = formRoom(size);
    const int written = list.getBinary(reinterpret_cast<char*>(room), static_cast<int>(size));
    return Bytes(room, room + std::max(written, 0));
}

inline std::uint32_t floatBits(float value)
{
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
}

inline std::string describe(const ParameterValue& value)
{
    float number = 0.0f;
    std::string text = "type " + str(value.getType()) + " text \"" + value.getAsString() + "\"";
    if (value.getFloatValue(number))
    {
        text += " bits " + str(floatBits(number));
    }
    return text;
}

// Same type and the same data, read through the typed getters; floats bit
// for bit, so that a NaN equals itself.
inline bool sameValue(const ParameterValue& a, const ParameterValue& b)
{
    if (a.getType() != b.getType())
    {
        return false;
    }
    int integerA = 0, integerB = 0;
    bool booleanA = false, booleanB = false;
    float floatA = 0.0f, floatB = 0.0f;
    switch (a.getType())
    {
    case PARAM_TYPE_INT:
        return a.getIntValue(integerA) && b.getIntValue(integerB) && integerA == integerB;
    case PARAM_TYPE_BOOL:
        return a.getBooleanValue(booleanA) && b.getBooleanValue(booleanB) && booleanA == booleanB;
    case PARAM_TYPE_FLOAT:
        return a.getFloatValue(floatA) && b.getFloatValue(floatB) &&
               floatBits(floatA) == floatBits(floatB);
    case PARAM_TYPE_STRING:
        return a.getAsString() == b.getAsString();
    default:
        return true;
    }
}

// Every entry's name and text, in order: what a list shows without its
// binary form.
inline std::string describe(const ParameterList& list)
{
    std::string text = str(static_cast<long long>(list.size())) + " entries:";
    std::string name, value;
    for (unsigned int i = 0; list.getParam(i, name, value); ++i)
    {
        text += " [" + name + "]=[" + value + "]";
    }
    return text;
}

// ---- the library and its log ----

// Starts the library once for the process, with the log switched off: the
// fuzzer feeds mostly bad bytes, and each would cost a formatted line.
inline void startQuietly()
{
    weftInit();
    tavo::LogManager::getInstance()->setMaxLevel(tavo::LOG_LEVEL_OFF);
}

// Collects every log line while it exists; for targets that check the lines
// a decoder writes. Single-threaded use only.
class LogLines
{
public:
    LogLines()
    {
        tavo::LogManager* manager = tavo::LogManager::getInstance();
        manager->setMaxLevel(tavo::LOG_LEVEL_TRACE);
        manager->setSink([this](const std::string&, int level, const std::string& text)
                         { m_lines.push_back(str(level) + " " + text); });
    }

    ~LogLines()
    {
        tavo::LogManager::getInstance()->setSink(tavo::LogSink());
        tavo::LogManager::getInstance()->setMaxLevel(tavo::LOG_LEVEL_OFF);
    }

    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    // The lines since the last call, each as "level text".
    std::vector<std::string> take()
    {
        std::vector<std::string> lines;
        lines.swap(m_lines);
        return lines;
    }

private:
    std::vector<std::string> m_lines;
};

inline std::string join(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
    {
        text += "\n    " + line;
    }
    return text.empty() ? " (none)" : text;
}

} // namespace fuzz

// FuzzStart.cpp gives every target a default LLVMFuzzerInitialize.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
