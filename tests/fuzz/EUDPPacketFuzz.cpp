// Takes the fuzzer's bytes as one received EUDP datagram: validation, the
// command and the fields must agree with the bytes, and copies must hold
// their own bytes. Then builds a packet from the same bytes (command,
// argument, payload) and receives it again.

#include "FuzzSupport.h"

#include "support/EudpWire.h"

using fuzz::eudp::commandOf;
using fuzz::eudp::le32;
using fuzz::eudp::NAMES;

namespace
{

Bytes bytesOf(const EUDPPacket& packet)
{
    return Bytes(packet.getBuffer(), packet.getBuffer() + packet.getLength());
}

// A datagram of `size` bytes received into a fresh packet.
void checkReceived(const uint8* data, std::size_t size, LogCapture& log)
{
    EUDPPacket packet;
    std::memcpy(packet.getBuffer(), data, size);
    const uint length = static_cast<uint>(size);

    std::vector<std::string> wanted;
    const char* reason = size < 1 || data[0] != EUDP_VERSION   ? "wrong version"
                         : size < EUDP_HEADER_SIZE             ? "header too short"
                         : commandOf(data + 1) == EUDP_UNKNOWN ? "unknown command"
                                                               : nullptr;
    if (reason != nullptr)
    {
        wanted.push_back(std::string("3 WEFT/EUDP: packet validation failed: ") + reason);
    }
    const bool valid = packet.validatePacket(length);
    const std::vector<std::string> lines = fuzz::take(log);
    FUZZ_CHECK(valid == wanted.empty() && lines == wanted && packet.getLength() == length,
               "validation said " + fuzz::str(valid) + " with length " +
                   fuzz::str(packet.getLength()) + " and logged" + fuzz::join(lines) +
                   "\n  wanted" + fuzz::join(wanted) + "\n  for " + fuzz::hex(data, size));
    FUZZ_CHECK(size < 4 || packet.getCommand() == commandOf(data + 1),
               "command " + fuzz::str(packet.getCommand()) + " for " + fuzz::hex(data, size));
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

// A packet built from the bytes (command, argument, payload), and received.
void checkBuilt(fuzz::Input input, LogCapture& log)
{
    const EEUDPCommand command = static_cast<EEUDPCommand>(input.u8() % EUDP_UNKNOWN);
    const std::uint32_t arg = input.u32();
    const Bytes payload = input.rest();

    EUDPPacket packet(command);
    packet.setArg(arg);
    packet.setData(payload.data(), static_cast<uint>(payload.size()));
    const bool fits = payload.size() <= EUDP_MAX_PAYLOAD;
    const std::vector<std::string> lines = fuzz::take(log);
    FUZZ_CHECK(lines == (fits ? std::vector<std::string>()
                              : std::vector<std::string>{"2 WEFT/EUDP: packet length (" +
                                                         fuzz::str(payload.size()) +
                                                         ") exceeds max length (1492)"}),
               "setting a payload of " + fuzz::str(payload.size()) + " bytes logged" +
                   fuzz::join(lines));

    const Bytes expected = eudpwire::packet(NAMES[command], arg, fits ? payload : Bytes());
    const Bytes sent = bytesOf(packet);
    FUZZ_CHECK(sent == expected, "built " + fuzz::hex(sent) + "\n  wanted " + fuzz::hex(expected));

    EUDPPacket received;
    std::memcpy(received.getBuffer(), sent.data(), sent.size());
    FUZZ_CHECK(received.validatePacket(static_cast<uint>(sent.size())) &&
                   received.getCommand() == command && received.getArg() == arg &&
                   bytesOf(received) == sent,
               "a built " + std::string(NAMES[command]) + " did not read back: " + fuzz::hex(sent));
    FUZZ_CHECK(fuzz::take(log).empty(), "a valid packet logged");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    LogCapture log;
    // A receive never asks for more than the largest packet; a longer
    // datagram arrives cut to that.
    checkReceived(data, std::min<std::size_t>(size, EUDP_MAX_PACKET_SIZE), log);
    checkBuilt(fuzz::Input(data, size), log);
    return 0;
}
