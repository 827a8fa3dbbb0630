#include <weft/EUDPPacket.h>

#include "ByteOrder.h"
#include "WeftLog.h"

#include <tavo/Assert.h>
#include <tavo/LogManager.h>

#include <cstring>
#include <ostream>

namespace
{

// Offsets within the header.
constexpr unsigned int VERSION_OFFSET = 0;
constexpr unsigned int COMMAND_OFFSET = 1;
constexpr unsigned int COMMAND_LETTERS = 3;
constexpr unsigned int ARG_OFFSET = 4;
constexpr unsigned int ARG_BYTES = 4;

} // namespace

const char* const EUDPCommand[EUDP_UNKNOWN] = {"NOP", "ACK", "NAK", "CON", "DIS",
                                               "CMD", "MOD", "MAK", "WIN", "WAK"};

EUDPPacket::EUDPPacket() : EUDPPacket(EUDP_NOP) {}

EUDPPacket::EUDPPacket(EEUDPCommand command) : m_length(EUDP_HEADER_SIZE)
{
    // Only the header is initialised: the payload area is written before use.
    m_buffer[VERSION_OFFSET] = EUDP_VERSION;
    setCommand(command);
    setArg(0);
}

EUDPPacket::EUDPPacket(const EUDPPacket& other) : m_length(other.m_length)
{
    std::memcpy(m_buffer, other.m_buffer, m_length);
}

EUDPPacket& EUDPPacket::operator=(const EUDPPacket& other)
{
    if (this != &other)
    {
        m_length = other.m_length;
        std::memcpy(m_buffer, other.m_buffer, m_length);
    }
    return *this;
}

EEUDPCommand EUDPPacket::getCommand() const
{
    for (int command = EUDP_NOP; command < EUDP_UNKNOWN; ++command)
    {
        if (std::memcmp(m_buffer + COMMAND_OFFSET, EUDPCommand[command], COMMAND_LETTERS) == 0)
        {
            return static_cast<EEUDPCommand>(command);
        }
    }
    return EUDP_UNKNOWN;
}

void EUDPPacket::setCommand(EEUDPCommand command)
{
    // Indexing the name table with anything else would read past it.
    TAVO_ASSERT(command >= EUDP_NOP && command < EUDP_UNKNOWN);
    std::memcpy(m_buffer + COMMAND_OFFSET, EUDPCommand[command], COMMAND_LETTERS);
}

void EUDPPacket::setData(const uint8* data, uint length)
{
    if (length > EUDP_MAX_PAYLOAD)
    {
        weftLog(tavo::LOG_LEVEL_ERROR)
            << "WEFT/EUDP: packet length (" << length << ") exceeds max length ("
            << EUDP_MAX_PAYLOAD << ")" << std::endl;
        return;
    }
    // A keep-alive passes no data at all; memcpy must not see a null pointer.
    if (length > 0)
    {
        std::memcpy(m_buffer + EUDP_HEADER_SIZE, data, length);
    }
    m_length = EUDP_HEADER_SIZE + length;
}

bool EUDPPacket::validatePacket(uint length) const
{
    // The receive never asks for more than the buffer holds; a larger count is
    // a caller's mistake that would let later copies overrun the buffer.
    TAVO_ASSERT(length <= EUDP_MAX_PACKET_SIZE);
    m_length = length;
    // With no byte received there is no version to read either.
    if (length < 1 || m_buffer[VERSION_OFFSET] != EUDP_VERSION)
    {
        weftLog(tavo::LOG_LEVEL_WARNING)
            << "WEFT/EUDP: packet validation failed: wrong version" << std::endl;
        return false;
    }
    if (length < EUDP_HEADER_SIZE)
    {
        weftLog(tavo::LOG_LEVEL_WARNING)
            << "WEFT/EUDP: packet validation failed: header too short" << std::endl;
        return false;
    }
    if (getCommand() == EUDP_UNKNOWN)
    {
        weftLog(tavo::LOG_LEVEL_WARNING)
            << "WEFT/EUDP: packet validation failed: unknown command" << std::endl;
        return false;
    }
    return true;
}

uint EUDPPacket::getArg() const
{
    return byteorder::readLE32(m_buffer + ARG_OFFSET);
}

void EUDPPacket::setArg(uint arg)
{
    byteorder::writeLE32(m_buffer + ARG_OFFSET, arg);
}

uint8 EUDPPacket::getArgByte(unsigned int index) const
{
    TAVO_ASSERT(index < ARG_BYTES);
    return m_buffer[ARG_OFFSET + index];
}

void EUDPPacket::setArgByte(unsigned int index, uint8 value)
{
    TAVO_ASSERT(index < ARG_BYTES);
    m_buffer[ARG_OFFSET + index] = value;
}
