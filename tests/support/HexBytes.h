#pragma once

#include <tavo/Types.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

typedef std::vector<uint8> Bytes;

// "01 53 03 00" to bytes and back, so that wire assertions print readable
// differences.
inline Bytes fromHex(const std::string& text)
{
    Bytes bytes;
    std::istringstream in(text);
    unsigned int byte = 0;
    while (in >> std::hex >> byte)
    {
        bytes.push_back(static_cast<uint8>(byte));
    }
    return bytes;
}

inline std::string toHex(const void* data, std::size_t size)
{
    const uint8* bytes = static_cast<const uint8*>(data);
    std::string text;
    char digits[4];
    for (std::size_t i = 0; i < size; ++i)
    {
        std::snprintf(digits, sizeof(digits), i == 0 ? "%02X" : " %02X", bytes[i]);
        text += digits;
    }
    return text;
}

inline std::string toHex(const Bytes& bytes)
{
    return toHex(bytes.data(), bytes.size());
}
