#include <weft/WEFTPacket.h>

#include "ByteOrder.h"
#include "WeftLog.h"

#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>

#include <tavo/Assert.h>
#include <tavo/LogManager.h>

#include <cstdint>
#include <cstring>
#include <ostream>

namespace
{

// Header fields, as byte offsets into the message.
constexpr unsigned int VERSION_OFFSET = 0;
constexpr unsigned int COMMAND_OFFSET = 1;
constexpr unsigned int LENGTH_OFFSET = 2;

// The output is fetched at each line: a packet has no life of its own to keep
// a pointer in, and the log manager may be replaced between weftInit calls.
void logTooLong(std::uint64_t needed, unsigned int room)
{
    weftLog(tavo::LOG_LEVEL_ERROR) << "WEFT: WEFT packet length (" << needed
                                   << ") exceeds max length (" << room << ")" << std::endl;
}

} // namespace

WEFTPacket::WEFTPacket() : m_length(WEFT_HEADER_SIZE), m_readPos(WEFT_HEADER_SIZE)
{
    // Only the header is set: the payload is written before it is ever read.
    m_buffer[VERSION_OFFSET] = WEFT_VERSION;
    m_buffer[COMMAND_OFFSET] = 0;
    byteorder::writeLE16(m_buffer + LENGTH_OFFSET, 0);
}

WEFTPacket::WEFTPacket(EWEFTCommand command) : WEFTPacket()
{
    m_buffer[COMMAND_OFFSET] = static_cast<uint8>(command);
}

uint16 WEFTPacket::getPayloadLength() const
{
    return byteorder::readLE16(m_buffer + LENGTH_OFFSET);
}

void WEFTPacket::setPayloadLength()
{
    TAVO_ASSERT(m_length >= WEFT_HEADER_SIZE && m_length <= WEFT_MAX_PACKET_SIZE);
    byteorder::writeLE16(m_buffer + LENGTH_OFFSET,
                         static_cast<std::uint16_t>(m_length - WEFT_HEADER_SIZE));
}

bool WEFTPacket::appendString(const std::string& s)
{
    const std::uint64_t needed = static_cast<std::uint64_t>(s.size()) + 1;
    const unsigned int room = WEFT_MAX_PACKET_SIZE - m_length;
    if (needed > room)
    {
        logTooLong(needed, room);
        return false;
    }
    std::memcpy(m_buffer + m_length, s.data(), s.size());
    m_buffer[m_length + s.size()] = 0;
    m_length += static_cast<unsigned int>(needed);
    setPayloadLength();
    return true;
}

bool WEFTPacket::appendData(const char* data, unsigned int size)
{
    TAVO_ASSERT(data != nullptr || size == 0);
    // One byte more than is written, as a string of the same bytes would need;
    // counted in 64 bits so that the largest size cannot wrap to a fit.
    const std::uint64_t needed = static_cast<std::uint64_t>(size) + 1;
    const unsigned int room = WEFT_MAX_PACKET_SIZE - m_length;
    if (needed > room)
    {
        logTooLong(needed, room);
        return false;
    }
    if (size > 0)
    {
        std::memcpy(m_buffer + m_length, data, size);
    }
    m_length += size;
    setPayloadLength();
    return true;
}

bool WEFTPacket::appendParamValue(const ParameterValue& value)
{
    const int written = value.getBinaryValue(reinterpret_cast<char*>(m_buffer + m_length),
                                             static_cast<int>(WEFT_MAX_PACKET_SIZE - m_length));
    m_length += static_cast<unsigned int>(written);
    setPayloadLength();
    return written != 0;
}

bool WEFTPacket::appendParamList(const ParameterList& list)
{
    const int written = list.getBinary(reinterpret_cast<char*>(m_buffer + m_length),
                                       static_cast<int>(WEFT_MAX_PACKET_SIZE - m_length));
    m_length += static_cast<unsigned int>(written);
    setPayloadLength();
    return written != 0;
}

std::string WEFTPacket::getString() const
{
    if (m_readPos < m_length)
    {
        const uint8* start = m_buffer + m_readPos;
        const void* end = std::memchr(start, 0, m_length - m_readPos);
        if (end != nullptr)
        {
            const std::size_t length =
                static_cast<std::size_t>(static_cast<const uint8*>(end) - start);
            m_readPos += static_cast<unsigned int>(length) + 1;
            return std::string(reinterpret_cast<const char*>(start), length);
        }
    }
    weftLog(tavo::LOG_LEVEL_ERROR) << "WEFT: unterminated string in packet" << std::endl;
    return std::string();
}

// The decoders take a mutable pointer but only read; the cast keeps the
// readers const as the connection expects.
void WEFTPacket::getParameterValue(ParameterValue& value) const
{
    const unsigned int start = m_readPos < m_length ? m_readPos : m_length;
    const int consumed =
        value.createFromBinary(reinterpret_cast<char*>(const_cast<uint8*>(m_buffer + start)),
                               static_cast<int>(m_length - start));
    m_readPos += static_cast<unsigned int>(consumed);
    if (consumed == 0)
    {
        weftLog(tavo::LOG_LEVEL_ERROR) << "WEFT: failed to parse parameter value" << std::endl;
    }
}

void WEFTPacket::getParameterList(ParameterList& list) const
{
    const unsigned int start = m_readPos < m_length ? m_readPos : m_length;
    const int consumed =
        list.createFromBinary(reinterpret_cast<char*>(const_cast<uint8*>(m_buffer + start)),
                              static_cast<int>(m_length - start));
    m_readPos += static_cast<unsigned int>(consumed);
    if (consumed == 0)
    {
        weftLog(tavo::LOG_LEVEL_ERROR) << "WEFT: failed to parse parameter list" << std::endl;
    }
}

bool WEFTPacket::validatePacket(unsigned int size) const
{
    // The bytes were received into this buffer, so more than it holds is a
    // caller's fault, not the peer's.
    TAVO_ASSERT(size <= WEFT_MAX_PACKET_SIZE);
    m_length = size;
    if (m_buffer[VERSION_OFFSET] != WEFT_VERSION)
    {
        weftLog(tavo::LOG_LEVEL_WARNING)
            << "WEFT: packet validation failed: wrong version" << std::endl;
        return false;
    }
    if (size < WEFT_HEADER_SIZE)
    {
        weftLog(tavo::LOG_LEVEL_WARNING)
            << "WEFT: packet validation failed: header too short" << std::endl;
        return false;
    }
    if (size == getPayloadLength() + WEFT_HEADER_SIZE)
    {
        return true;
    }
    weftLog(tavo::LOG_LEVEL_WARNING)
        << "WEFT: packet validation failed: wrong packet size" << std::endl;
    return false;
}
