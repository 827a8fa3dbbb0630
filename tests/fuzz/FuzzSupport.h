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

// Long runs show their first 64 bytes and their length.
inline std::string hex(const Bytes& bytes)
{
    return bytes.size() <= 64
               ? toHex(bytes.data(), bytes.size())
               : toHex(bytes.data(), 64) + " ... (" + std::to_string(bytes.size()) + " bytes)";
}

[[noreturn]] inline void fail(const char* file, int line, const char* condition,
                              const std::string& detail)
{
    std::fprintf(stderr, "%s:%d: check failed: %s\n  %s\n", file, line, condition, detail.c_str());
    std::fflush(stderr);
    std::abort();
}

// Past the end every read yields zeros.
class Input
{
public:
    Input(const uint8* data, std::size_t size) : m_next(data), m_end(data + size) {}

    // A little-endian number of `bytes` bytes.
    std::uint32_t number(int bytes)
    {
        std::uint32_t value = 0;
        for (int i = 0; i < bytes; ++i)
        {
            value |= static_cast<std::uint32_t>(m_next < m_end ? *m_next++ : 0) << (8 * i);
        }
        return value;
    }

    // Chunks behind a little-endian 16-bit length, each cut to `limit`.
    std::vector<Bytes> chunks(std::size_t limit)
    {
        std::vector<Bytes> result;
        while (m_end - m_next >= 2)
        {
            const std::size_t size =
                std::min<std::size_t>({number(2), limit, static_cast<std::size_t>(m_end - m_next)});
            result.emplace_back(m_next, m_next + size);
            m_next += size;
        }
        return result;
    }

private:
    const uint8* m_next;
    const uint8* m_end;
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
// each would cost a formatted line. Each target calls it from its
// LLVMFuzzerInitialize.
inline void startQuietly()
{
    weftInit();
    tavo::LogManager::getInstance()->setMaxLevel(tavo::LOG_LEVEL_OFF);
}

} // namespace fuzz

// A crash to the fuzzer; `detail` is only built when the check fails.
#define FUZZ_CHECK(cond, detail)                                                                   \
    ((cond) ? static_cast<void>(0) : ::fuzz::fail(__FILE__, __LINE__, #cond, (detail)))

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
