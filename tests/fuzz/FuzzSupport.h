#pragma once

// Shared by the fuzz targets: a failing check that prints the values, the
// fuzzer's bytes read in order, and the forms the library writes.

#include "support/HexBytes.h"

#include <weft/Constants.h>
#include <weft/Init.h>
#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <tavo/LogManager.h>

#include <cstdint>
#include <cstdlib>
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

} // namespace fuzz

// FuzzStart.cpp gives every target a default LLVMFuzzerInitialize.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
