// Takes the fuzzer's bytes as one received EUDP datagram: validation, the
// command and the fields must agree with the bytes, and copies must hold
// their own bytes. Then builds a packet from the same bytes (command, argument,
// payload) and receives it again.

#include "FuzzSupport.h"

#include <weft/EUDPPacket.h>

#include <memory>

using fuzz::Bytes;

namespace
{

const char* const NAMES[] = {"NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK"};
const int COMMANDS = 10;

// The command the three letters name, or EUDP_UNKNOWN.
int commandOf(const uint8* letters)
{
    for (int command = 0; command < COMMANDS; ++command)
    {
        if (std::memcmp(letters, NAMES[command], 3) == 0)
        {
            return command;
        }
    }
    return EUDP_UNKNOWN;
}

std::uint32_t le32(const uint8* bytes)
{
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

Bytes bytesOf(const EUDPPacket& packet)
{
    return Bytes(packet.getBuffer(), packet.getBuffer() + packet.getLength());
}

// Checks a datagram of `size` bytes received into a fresh packet.
void checkReceived(const uint8* data, std::size_t size, fuzz::LogLines& log)
{
    EUDPPacket packet;
    std::memcpy(packet.getBuffer(), data, size);
    const uint length = static_cast<uint>(size);

    std::string reason;
    if (size < 1 || data[0] != EUDP_VERSION)
    {
        reason = "wrong version";
    }
    else if (size < EUDP_HEADER_SIZE)
    {
        reason = "header too short";
    }
    else if (commandOf(data + 1) == EUDP_UNKNOWN)
    {
        reason = "unknown command";
    }
    const bool valid = packet.validatePacket(length);
    const std::vector<std::string> lines = log.take();
    const std::vector<std::string> wanted =
        reason.empty()
            ? std::vector<std::string>()
            : std::vector<std::string>{"3 WEFT/EUDP: packet validation failed: " + reason};
    FUZZ_CHECK(valid == reason.empty() && lines == wanted && packet.getLength() == length,
               "validation said " + fuzz::str(valid) + " with length " +
                   fuzz::str(packet.getLength()) + " and logged" + fuzz::join(lines) +
                   "\n  wanted" + fuzz::join(wanted) + "\n  for " + fuzz::hex(data, size));
    if (size >= 4)
    {
        FUZZ_CHECK(packet.getCommand() == commandOf(data + 1),
                   "command " + fuzz::str(packet.getCommand()) + " for " + fuzz::hex(data, 4));
    }
    if (!valid)
    {
        return;
    }
    FUZZ_CHECK(packet.getArg() == le32(data + 4) && packet.getPayloadLength() == size - 8 &&
                   std::memcmp(packet.getPayload(), data + 8, size - 8) == 0,
               "argument " + fuzz::str(packet.getArg()) + " and payload length " +
                   fuzz::str(packet.getPayloadLength()) + " for " + fuzz::hex(data, size));
    for (unsigned int i = 0; i < 4; ++i)
    {
        FUZZ_CHECK(packet.getArgByte(i) == data[4 + i],
                   "argument byte " + fuzz::str(i) + " is " + fuzz::str(packet.getArgByte(i)));
    }

    // A copy has bytes of its own.
    EUDPPacket copy(packet);
    FUZZ_CHECK(bytesOf(copy) == bytesOf(packet), "the copy holds " + fuzz::hex(bytesOf(copy)));
    copy.setArg(~packet.getArg());
    copy.setArgByte(0, static_cast<uint8>(~data[4]));
    FUZZ_CHECK(packet.getArg() == le32(data + 4), "changing the copy changed the original");
    // Assigned over a longer packet, only the assigned bytes count.
    EUDPPacket longer(EUDP_WAK);
    const Bytes filler(EUDP_MAX_PAYLOAD, 0xEE);
    longer.setData(filler.data(), static_cast<uint>(filler.size()));
    longer = packet;
    FUZZ_CHECK(bytesOf(longer) == bytesOf(packet), "assigned " + fuzz::hex(bytesOf(longer)));
    const EUDPPacket& same = longer;
    longer = same;
    FUZZ_CHECK(bytesOf(longer) == bytesOf(packet), "assigning to itself changed the packet");
}

// Builds a packet from the bytes (command, argument, payload) and receives
// what it sends.
void checkBuilt(fuzz::Input input, fuzz::LogLines& log)
{
    const EEUDPCommand command = static_cast<EEUDPCommand>(input.u8() % COMMANDS);
    const std::uint32_t arg = input.u32();
    const Bytes payload = input.rest();

    EUDPPacket packet(command);
    packet.setArg(arg);
    packet.setData(payload.data(), static_cast<uint>(payload.size()));
    const bool fits = payload.size() <= EUDP_MAX_PAYLOAD;
    const std::vector<std::string> lines = log.take();
    const std::vector<std::string> wanted =
        fits ? std::vector<std::string>()
             : std::vector<std::string>{"2 WEFT/EUDP: packet length (" +
                                        fuzz::str(static_cast<long long>(payload.size())) +
                                        ") exceeds max length (1492)"};
    FUZZ_CHECK(lines == wanted, "setting a payload of " +
                                    fuzz::str(static_cast<long long>(payload.size())) +
                                    " bytes logged" + fuzz::join(lines));

    Bytes expected{EUDP_VERSION};
    expected.insert(expected.end(), NAMES[command], NAMES[command] + 3);
    for (int shift = 0; shift < 32; shift += 8)
    {
        expected.push_back(static_cast<uint8>(arg >> shift));
    }
    if (fits)
    {
        expected.insert(expected.end(), payload.begin(), payload.end());
    }
    const Bytes sent = bytesOf(packet);
    FUZZ_CHECK(sent == expected, "built " + fuzz::hex(sent) + "\n  wanted " + fuzz::hex(expected));

    EUDPPacket received;
    std::memcpy(received.getBuffer(), sent.data(), sent.size());
    FUZZ_CHECK(received.validatePacket(static_cast<uint>(sent.size())) &&
                   received.getCommand() == command && received.getArg() == arg &&
                   bytesOf(received) == sent,
               "a built " + std::string(NAMES[command]) + " did not read back: " + fuzz::hex(sent));
    FUZZ_CHECK(log.take().empty(), "a valid packet logged");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    fuzz::LogLines log;
    // A receive never asks for more than the largest packet; a longer
    // datagram arrives cut to that.
    checkReceived(data, std::min<std::size_t>(size, EUDP_MAX_PACKET_SIZE), log);
    checkBuilt(fuzz::Input(data, size), log);
    return 0;
}
