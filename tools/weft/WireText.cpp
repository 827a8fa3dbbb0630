#include "WireText.h"

#include "ValueSyntax.h"

#include <weft/Constants.h>
#include <weft/WEFTPacket.h>

#include <algorithm>
#include <cstring>

namespace weftcli
{

namespace
{

const char* verbOf(uint8_t command)
{
    switch (command)
    {
    case WEFT_CMD_SUBSCRIBE:
        return "subscribe";
    case WEFT_CMD_UNSUBSCRIBE:
        return "unsubscribe";
    case WEFT_CMD_TRIGGER:
        return "trigger";
    case WEFT_CMD_UPDATE_STATE:
        return "update";
    case WEFT_CMD_FID:
        return "call";
    default:
        return nullptr;
    }
}

DecodedMessage problem(const std::string& what)
{
    return DecodedMessage{what, "", JsonObject()};
}

} // namespace

DecodedMessage decodeMessage(const uint8_t* data, std::size_t size)
{
    // The header is checked here, so that the packet's own check below never
    // has to log: a malformed message is this tool's finding, not an error.
    if (size > WEFT_MAX_PACKET_SIZE)
    {
        return problem(std::to_string(size) + " bytes, more than a message may have (" +
                       std::to_string(WEFT_MAX_PACKET_SIZE) + ")");
    }
    if (size < WEFT_HEADER_SIZE || data[0] != WEFT_VERSION)
    {
        return problem(size < WEFT_HEADER_SIZE ? "shorter than a header" : "wrong version");
    }
    if (static_cast<std::size_t>(data[2] | (data[3] << 8)) + WEFT_HEADER_SIZE != size)
    {
        return problem("the header's length disagrees with the message");
    }
    const char* verb = verbOf(data[1]);
    if (verb == nullptr)
    {
        return problem("unknown command " + std::to_string(data[1]));
    }
    WEFTPacket packet;
    std::memcpy(packet.getBuffer(), data, size);
    packet.validatePacket(static_cast<unsigned int>(size));
    const uint8_t* payload = data + WEFT_HEADER_SIZE;
    if (std::find(payload, data + size, 0) == data + size)
    {
        return problem("unterminated name");
    }
    const std::string name = packet.getString();

    DecodedMessage decoded;
    decoded.text = std::string(verb) + " " + quoted(name);
    decoded.json.addString("event", verb).addString("name", name);
    char* rest = reinterpret_cast<char*>(packet.getBuffer()) + packet.getReadPos();
    const int left = static_cast<int>(size - packet.getReadPos());
    if (data[1] == WEFT_CMD_TRIGGER || data[1] == WEFT_CMD_UPDATE_STATE)
    {
        ParameterValue value;
        if (value.createFromBinary(rest, left) == 0)
        {
            return problem("truncated value");
        }
        decoded.text += " " + valueText(value);
        decoded.json.addTypedValue(value);
    }
    else if (data[1] == WEFT_CMD_FID)
    {
        ParameterList list;
        if (list.createFromBinary(rest, left) == 0)
        {
            return problem("truncated parameter list");
        }
        const std::string params = listText(list);
        decoded.text += params.empty() ? "" : " " + params;
        decoded.json.addRaw("params", jsonList(list));
    }
    return decoded;
}

void StreamFramer::add(const uint8_t* data, std::size_t size)
{
    m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(m_start));
    m_start = 0;
    m_pending.insert(m_pending.end(), data, data + size);
}

bool StreamFramer::next(std::vector<uint8_t>& message)
{
    const std::size_t have = m_pending.size() - m_start;
    if (have < TCP_LENGTH_PREFIX_SIZE)
    {
        return false;
    }
    const std::size_t length = m_pending[m_start] | (m_pending[m_start + 1] << 8);
    if (have < TCP_LENGTH_PREFIX_SIZE + length)
    {
        return false;
    }
    const auto begin = m_pending.begin() + static_cast<std::ptrdiff_t>(m_start) + 2;
    message.assign(begin, begin + static_cast<std::ptrdiff_t>(length));
    m_start += TCP_LENGTH_PREFIX_SIZE + length;
    return true;
}

} // namespace weftcli
