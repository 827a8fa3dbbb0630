#pragma once

#include <weft/Constants.h>
#include <weft/Export.h>

#include <tavo/Types.h>

// EUDP commands; on the wire each travels as its three-letter name.
enum EEUDPCommand : int
{
    EUDP_NOP = 0,      // keep-alive answer, a sign of life
    EUDP_ACK = 1,      // acknowledges a CON or a data packet
    EUDP_NAK = 2,      // a gap: asks again from the number in arg
    EUDP_CON = 3,      // connection request
    EUDP_DIS = 4,      // disconnection
    EUDP_CMD = 5,      // data packet
    EUDP_MOD = 6,      // mode request
    EUDP_MAK = 7,      // mode answer
    EUDP_WIN = 8,      // window request
    EUDP_WAK = 9,      // window answer
    EUDP_UNKNOWN = 10, // letters that name no command; never sent
};

// Wire names of the commands, indexed by EEUDPCommand.
WEFT_EXPORT extern const char* const EUDPCommand[EUDP_UNKNOWN];

// One EUDP datagram: version, three command letters, a little-endian 32-bit
// argument, and up to 1492 payload bytes, held in the object itself so that
// packets are copied by value into preallocated rings.
class WEFT_EXPORT EUDPPacket
{
public:
    // Version 1, command NOP, argument 0, no payload.
    EUDPPacket();
    explicit EUDPPacket(EEUDPCommand command);
    // Copies only the bytes in use.
    EUDPPacket(const EUDPPacket& other);
    EUDPPacket& operator=(const EUDPPacket& other);

    EEUDPCommand getCommand() const;
    void setCommand(EEUDPCommand command);
    // Copies the payload; a payload over 1492 bytes is refused with a log
    // line and the packet stays as it was.
    void setData(const uint8* data, uint length);
    // Checks a datagram of `length` bytes just received into the buffer, and
    // records `length` as the packet's length either way.
    bool validatePacket(uint length) const;

    uint8 getVersion() const { return m_buffer[0]; }
    uint getArg() const;
    void setArg(uint arg);
    // Byte `index` (0 to 3) of the argument in datagram order: the mode letters
    // of MOD and MAK.
    uint8 getArgByte(unsigned int index) const;
    void setArgByte(unsigned int index, uint8 value);

    // The whole datagram, header first.
    uint8* getBuffer() { return m_buffer; }
    const uint8* getBuffer() const { return m_buffer; }
    // Header and payload bytes.
    uint getLength() const { return m_length; }
    const uint8* getPayload() const { return m_buffer + EUDP_HEADER_SIZE; }
    uint getPayloadLength() const { return m_length - EUDP_HEADER_SIZE; }

private:
    uint8 m_buffer[EUDP_MAX_PACKET_SIZE];
    // Writable by validatePacket, which records the received size.
    mutable uint m_length;
};
