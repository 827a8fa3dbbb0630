#pragma once

#include <tavo/Types.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

typedef std::vector<uint8> Bytes;

// "01 53 03 00" to bytes and back, so that wire assertions print readable diffs.
inline Bytes fromHex(const std::string& text)
{
    Bytes bytes;
    std::istringstream in(text);
    for (unsigned int byte = 0; in >> std::hex >> byte;)
    {
        bytes.push_back(static_cast<uint8>(byte));
    }
    return bytes;
}

inline std::string toHex(const void* data, std::size_t size)
{
    std::string text;
    char digits[4];
    for (std::size_t i = 0; i < size; ++i)
    {
        std::snprintf(digits, sizeof(digits), " %02X", static_cast<const uint8*>(data)[i]);
        text += digits;
    }
    return text.empty() ? text : text.substr(1);
}

// Decodes the first `size` bytes from a heap block of exactly that size, so
// that AddressSanitizer reports any read at or past the end.
template <class Decoded>
int decodeExact(Decoded& target, const std::string& hex, std::size_t size)
{
    const Bytes bytes = fromHex(hex);
    std::unique_ptr<char[]> exact(new char[size]);
    std::copy_n(bytes.begin(), size, exact.get());
    return target.createFromBinary(exact.get(), static_cast<int>(size));
}
