#pragma once

// Shared by the fuzz targets: a failing check that prints the values, the
// fuzzer's bytes read in order, and a reference reader of the parameter forms
// written from the format alone, so that a target compares the library with
// something other than itself.

#include "support/HexBytes.h"
#include "support/LogCapture.h"

#include <weft/EUDPPacket.h>
#include <weft/Init.h>
#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <tavo/LogManager.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <type_traits>

namespace fuzz
{

template <class Number>
std::string str(Number value)
{
    return std::to_string(static_cast<long long>(value));
}

// Long runs show their first 64 bytes and their length.
inline std::string hex(const uint8* data, std::size_t size)
{
    return size <= 64 ? toHex(data, size) : toHex(data, 64) + " ... (" + str(size) + " bytes)";
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

// A crash to the fuzzer; `detail` is only built when the check fails.
#define FUZZ_CHECK(cond, detail)                                                                   \
    ((cond) ? static_cast<void>(0) : ::fuzz::fail(__FILE__, __LINE__, #cond, (detail)))

namespace fuzz
{

// Past the end every read yields zeros.
class Input
{
public:
    Input(const uint8* data, std::size_t size) : m_data(data), m_size(size) {}

    std::size_t remaining() const { return m_size - m_position; }
    uint8 u8() { return m_position < m_size ? m_data[m_position++] : 0; }
    std::uint16_t u16()
    {
        const std::uint16_t low = u8();
        return static_cast<std::uint16_t>(low | u8() << 8);
    }
    std::uint32_t u32()
    {
        const std::uint32_t low = u16();
        return low | static_cast<std::uint32_t>(u16()) << 16;
    }

    Bytes take(std::size_t count)
    {
        count = std::min(count, remaining());
        m_position += count;
        return Bytes(m_data + m_position - count, m_data + m_position);
    }

    // Chunks behind a little-endian 16-bit length, each cut to `limit`.
    std::vector<Bytes> chunks(std::size_t limit)
    {
        std::vector<Bytes> result;
        while (remaining() >= 2)
        {
            result.push_back(take(std::min<std::size_t>(u16(), limit)));
        }
        return result;
    }

private:
    const uint8* m_data;
    std::size_t m_size;
    std::size_t m_position = 0;
};

namespace reference
{

// One value form: its canonical bytes (a boolean's byte as 0 or 1, as any
// other byte reads as true) and the count consumed; nothing when cut short.
inline std::optional<Bytes> value(const uint8* data, std::size_t size, std::size_t& consumed)
{
    const uint8 tag = size > 0 ? data[0] : 0;
    const std::size_t fixed = tag == 'I' || tag == 'F' ? 5 : tag == 'B' ? 2 : 1;
    if (size == 0 || size < fixed)
    {
        return std::nullopt;
    }
    if (tag == 'S')
    {
        const void* nul = std::memchr(data + 1, 0, size - 1);
        if (nul == nullptr)
        {
            return std::nullopt;
        }
        consumed = static_cast<std::size_t>(static_cast<const uint8*>(nul) - data) + 1;
        return Bytes(data, data + consumed);
    }
    consumed = fixed;
    return tag == 'B' ? Bytes{'B', static_cast<uint8>(data[1] != 0)} : Bytes(data, data + fixed);
}

// By name in bytewise order, as the library keeps them.
typedef std::map<std::string, Bytes> Entries;

// Merges one list form into `entries`, a later name replacing an earlier one;
// the count consumed, or 0 when cut short (the entries read before stay).
inline std::size_t list(const uint8* data, std::size_t size, Entries& entries)
{
    std::size_t position = 1;
    for (unsigned int i = 0; size > 0 && i < data[0]; ++i)
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
        entries[std::string(data + position, data + nameEnd)] = *form;
        position = nameEnd + 1 + consumed;
    }
    return size > 0 ? position : 0;
}

// What the library writes for `entries`.
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

namespace eudp
{

const char* const NAMES[] = {"NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK"};

// The command three letters name, or EUDP_UNKNOWN.
inline int commandOf(const uint8* letters)
{
    int command = 0;
    while (command < EUDP_UNKNOWN && std::memcmp(letters, NAMES[command], 3) != 0)
    {
        ++command;
    }
    return command;
}

inline std::uint32_t le32(const uint8* bytes)
{
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

} // namespace eudp

// The form the library writes, empty when it refuses. One block larger than
// any input, reused: clearing a fresh one per form costs more than the code
// under test.
template <class Item>
Bytes formOf(const Item& item)
{
    static std::vector<char> room(1u << 20);
    int written = 0;
    if constexpr (std::is_same_v<Item, ParameterList>)
    {
        written = item.getBinary(room.data(), static_cast<int>(room.size()));
    }
    else
    {
        written = item.getBinaryValue(room.data(), static_cast<int>(room.size()));
    }
    return Bytes(room.begin(), room.begin() + std::max(written, 0));
}

// The library once per process, its log off: most fuzzed bytes are bad and
// each would cost a formatted line.
inline void startQuietly()
{
    weftInit();
    tavo::LogManager::getInstance()->setMaxLevel(tavo::LOG_LEVEL_OFF);
}

// The lines captured since the last call, each as "level text".
inline std::vector<std::string> take(LogCapture& log)
{
    std::vector<std::string> lines;
    for (const LogCapture::Line& line : log.lines())
    {
        lines.push_back(str(line.level) + " " + line.text);
    }
    log.clear();
    return lines;
}

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
