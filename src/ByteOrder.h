#pragma once

// Little-endian reads and writes at a byte offset: the only place where the
// wire's byte order is handled. Byte by byte, so they neither depend on the
// host's order or word size nor need aligned addresses.

#include <tavo/Types.h>

#include <cstdint>

namespace byteorder
{

inline void writeLE16(void* at, std::uint16_t value)
{
    uint8* bytes = static_cast<uint8*>(at);
    bytes[0] = static_cast<uint8>(value & 0xFFu);
    bytes[1] = static_cast<uint8>((value >> 8) & 0xFFu);
}

inline std::uint16_t readLE16(const void* at)
{
    const uint8* bytes = static_cast<const uint8*>(at);
    return static_cast<std::uint16_t>(bytes[0] | (bytes[1] << 8));
}

inline void writeLE32(void* at, std::uint32_t value)
{
    uint8* bytes = static_cast<uint8*>(at);
    bytes[0] = static_cast<uint8>(value & 0xFFu);
    bytes[1] = static_cast<uint8>((value >> 8) & 0xFFu);
    bytes[2] = static_cast<uint8>((value >> 16) & 0xFFu);
    bytes[3] = static_cast<uint8>((value >> 24) & 0xFFu);
}

inline std::uint32_t readLE32(const void* at)
{
    const uint8* bytes = static_cast<const uint8*>(at);
    return static_cast<std::uint32_t>(bytes[0]) | (static_cast<std::uint32_t>(bytes[1]) << 8) |
           (static_cast<std::uint32_t>(bytes[2]) << 16) |
           (static_cast<std::uint32_t>(bytes[3]) << 24);
}

} // namespace byteorder
