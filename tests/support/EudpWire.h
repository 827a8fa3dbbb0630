#pragma once

// EUDP datagrams built and read byte by byte from the wire format, without
// the library's packet class, so that tests and fuzz targets playing a raw peer
// check the library against something other than itself.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace eudpwire
{

typedef std::vector<std::uint8_t> Bytes;

// The first byte of every datagram.
constexpr std::uint8_t VERSION = 1;

// The version, three command letters, the argument in little-endian order,
// then the payload.
inline Bytes packet(const char* command, std::uint32_t arg, const Bytes& payload = Bytes())
{
    Bytes bytes{VERSION, static_cast<std::uint8_t>(command[0]),
                static_cast<std::uint8_t>(command[1]), static_cast<std::uint8_t>(command[2])};
    for (int shift = 0; shift < 32; shift += 8)
    {
        bytes.push_back(static_cast<std::uint8_t>(arg >> shift));
    }
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

inline Bytes packet(const char* command, std::uint32_t arg, const std::string& payload)
{
    return packet(command, arg, Bytes(payload.begin(), payload.end()));
}

// Four mode letters as the argument of a MOD or MAK, the first one first on
// the wire.
inline std::uint32_t modes(std::uint8_t first, std::uint8_t second, std::uint8_t third,
                           std::uint8_t fourth)
{
    return static_cast<std::uint32_t>(first) | static_cast<std::uint32_t>(second) << 8 |
           static_cast<std::uint32_t>(third) << 16 | static_cast<std::uint32_t>(fourth) << 24;
}

inline std::uint32_t modes(const char (&letters)[5])
{
    return modes(static_cast<std::uint8_t>(letters[0]), static_cast<std::uint8_t>(letters[1]),
                 static_cast<std::uint8_t>(letters[2]), static_cast<std::uint8_t>(letters[3]));
}

// Whether `datagram` has a header with these command letters.
inline bool is(const Bytes& datagram, const char* command)
{
    return datagram.size() >= 8 && datagram[0] == VERSION &&
           std::equal(command, command + 3, datagram.begin() + 1);
}

// The argument of a datagram that has a header.
inline std::uint32_t argOf(const Bytes& datagram)
{
    return datagram[4] | datagram[5] << 8 | datagram[6] << 16 |
           static_cast<std::uint32_t>(datagram[7]) << 24;
}

} // namespace eudpwire
