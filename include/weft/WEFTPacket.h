#pragma once

#include <weft/Constants.h>
#include <weft/Export.h>

#include <tavo/Types.h>

#include <string>

class ParameterValue;
class ParameterList;

// Command byte of a WEFT message: an ASCII letter.
enum EWEFTCommand : int
{
    WEFT_CMD_FID = 70,          // 'F' function call: name, parameter list
    WEFT_CMD_SUBSCRIBE = 83,    // 'S' subscribe: item name
    WEFT_CMD_TRIGGER = 84,      // 'T' trigger: name, parameter value
    WEFT_CMD_UPDATE_STATE = 85, // 'U' state update: name, parameter value
    WEFT_CMD_UNSUBSCRIBE = 88,  // 'X' unsubscribe: item name
};

// One WEFT message in a fixed buffer: a 4-byte header (version, command,
// little-endian payload length) and the payload items back to back. Built item
// by item on the sending side, read item by item on the receiving side.
class WEFT_EXPORT WEFTPacket
{
public:
    WEFTPacket();
    explicit WEFTPacket(EWEFTCommand command);

    bool appendString(const std::string& s);
    // Raw bytes; never fills the last free byte of the packet.
    bool appendData(const char* data, unsigned int size);
    bool appendParamValue(const ParameterValue& value);
    bool appendParamList(const ParameterList& list);

    // Readers advance the read position; a failed read logs and yields an
    // empty string or the object as the decoder left it.
    std::string getString() const;
    void getParameterValue(ParameterValue& value) const;
    void getParameterList(ParameterList& list) const;

    // Checks a message of `size` bytes just received into the buffer, and
    // makes `size` the end for the readers.
    bool validatePacket(unsigned int size) const;

    // The message bytes, header first: sent from, and received into, directly.
    uint8* getBuffer() { return m_buffer; }
    const uint8* getBuffer() const { return m_buffer; }
    // Bytes in use, header included.
    unsigned int getLength() const { return m_length; }
    uint8 getVersion() const { return m_buffer[0]; }
    uint8 getCommand() const { return m_buffer[1]; }
    // The header's payload length field.
    uint16 getPayloadLength() const;
    unsigned int getReadPos() const { return m_readPos; }
    void setReadPos(unsigned int position) const { m_readPos = position; }

private:
    void setPayloadLength();

    uint8 m_buffer[WEFT_MAX_PACKET_SIZE];
    // Write position; validatePacket sets it to the received size.
    mutable unsigned int m_length;
    mutable unsigned int m_readPos;
};
