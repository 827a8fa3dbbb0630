// Plays a peer on a plain UDP socket: connects to a listening EUDP transport,
// then writes the fuzzer's datagrams to the accepted transport's port. The
// transport must neither crash nor stall: each batch is followed by a window
// request whose answer proves the batch was handled. After a DIS it reports
// its end; otherwise it is still open and stores a data packet sent with the
// number it expects. What it answers is the receive window's tests' business.
//
// Input: one byte of flags (bit 0: the transport receives reliably, bit 1: it
// sends reliably, bits 2-3: how many messages it sends meanwhile), the CON's
// 32-bit argument, then datagrams, each behind a little-endian 16-bit length.

#include "FuzzSupport.h"

#include "support/EUDPTransportTestPeer.h"
#include "support/EudpWire.h"
#include "support/RawUdpSocket.h"
#include "support/Waiting.h"

#include <weft/EUDPTransport.h>

#include <algorithm>
#include <cerrno>
#include <memory>

typedef EUDPTransportTestPeer Peer;

namespace
{

// Datagrams between two fences; few enough that the socket buffers never
// overflow, so no datagram is lost on the way.
constexpr std::size_t BATCH = 16;
// A datagram may be longer than a packet; the receive cuts it.
constexpr std::size_t LONGEST_DATAGRAM = EUDP_MAX_PACKET_SIZE + 100;
constexpr std::chrono::milliseconds WAIT(5000);

using eudpwire::argOf, eudpwire::is;

class RawPeer : public RawUdpSocket
{
public:
    RawPeer()
    {
        FUZZ_CHECK(isBound(), "no UDP socket for the peer: errno " + std::to_string(errno));
        // Room for the up to 999 packets one NAK may bring back, so that the
        // fence's answer is not dropped behind them.
        const int room = 8 << 20;
        if (::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) != 0)
        {
            ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
        }
    }

    // True once `wanted` came from `port` within WAIT; all else is passed
    // over. (A datagram the peer failed to send shows as an answer missing.)
    bool awaitFrom(uint16 port, const Bytes& wanted)
    {
        const auto deadline = std::chrono::steady_clock::now() + WAIT;
        while (std::chrono::steady_clock::now() < deadline)
        {
            // The fuzzer's watchdog is a periodic signal: it cuts a wait short.
            const Datagram datagram = receive(50);
            if (datagram.from == port && datagram.bytes == wanted)
            {
                return true;
            }
        }
        return false;
    }
};

EUDPTransport* g_pListener = nullptr;
RawPeer* g_pPeer = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startQuietly();
    g_pListener = new EUDPTransport();
    FUZZ_CHECK(g_pListener->listen(tavo::HostAddress("127.0.0.1"), 0),
               "the listening transport did not bind");
    g_pPeer = new RawPeer();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const uint8 flags = static_cast<uint8>(input.number(1));
    const std::uint32_t conArg = input.number(4);
    std::vector<Bytes> sent = input.chunks(LONGEST_DATAGRAM);
    sent.insert(sent.begin(),
                eudpwire::packet("MOD", eudpwire::modes((flags & 2) != 0 ? 'R' : 'D', 'D',
                                                        (flags & 1) != 0 ? 'R' : 'D', 'D')));

    g_pPeer->drain();
    g_pPeer->send(g_pListener->getLocalPort(), eudpwire::packet("CON", conArg));
    std::unique_ptr<EUDPTransport> transport(static_cast<EUDPTransport*>(g_pListener->accept()));
    FUZZ_CHECK(transport != nullptr, "no transport accepted");
    const uint16 port = transport->getLocalPort();
    // Data of its own, so that the peer's ACKs and NAKs meet a send ring that
    // holds something.
    for (int i = 0; i < ((flags >> 2) & 3); ++i)
    {
        transport->sendData(reinterpret_cast<const uint8*>("out"), 3);
    }

    bool disconnected = false;
    std::uint32_t fence = EUDP_RING_CAPACITY;
    for (std::size_t first = 0; first < sent.size() && !disconnected; first += BATCH)
    {
        const std::size_t end = std::min(first + BATCH, sent.size());
        for (std::size_t i = first; i < end && !disconnected; ++i)
        {
            g_pPeer->send(port, sent[i]);
            disconnected = is(sent[i], "DIS");
        }
        // A window request the batch itself does not make, so that its answer
        // is the fence's own.
        while (std::any_of(sent.begin() + static_cast<std::ptrdiff_t>(first),
                           sent.begin() + static_cast<std::ptrdiff_t>(end),
                           [&](const Bytes& datagram)
                           { return is(datagram, "WIN") && argOf(datagram) == fence; }))
        {
            ++fence;
        }
        if (!disconnected)
        {
            g_pPeer->send(port, eudpwire::packet("WIN", fence));
            FUZZ_CHECK(g_pPeer->awaitFrom(port, eudpwire::packet("WAK", fence)),
                       "no answer to the window request after datagram " + std::to_string(end));
        }
    }

    uint8 buffer[WEFT_MAX_PACKET_SIZE];
    if (disconnected)
    {
        // What it stored comes out, then the end, which later reads report too.
        FUZZ_CHECK(eventually([&] { return Peer::closed(*transport); }, WAIT),
                   "the transport did not close after a DIS");
        int read = 1;
        for (int n = 0; n <= static_cast<int>(EUDP_RING_CAPACITY) && read != 0; ++n)
        {
            read = transport->receiveData(buffer, sizeof(buffer));
        }
        FUZZ_CHECK(read == 0 && transport->receiveData(buffer, sizeof(buffer)) == 0,
                   "the closed transport did not report its end");
        return 0;
    }

    FUZZ_CHECK(!Peer::closed(*transport), "the transport closed without a DIS");
    for (uint n = Peer::stored(*transport); n > 0; --n)
    {
        FUZZ_CHECK(transport->receiveData(buffer, sizeof(buffer)) > 0, "a stored payload was lost");
    }
    // Still connected: the packet it expects is stored, and read first.
    const std::string probe = "probe";
    g_pPeer->send(
        port,
        eudpwire::packet("CMD", static_cast<std::uint32_t>(Peer::expectedSeq(*transport)), probe));
    FUZZ_CHECK(eventually([&] { return Peer::stored(*transport) > 0; }, WAIT),
               "the packet with the number expected was not stored");
    const int n = transport->receiveData(buffer, sizeof(buffer));
    FUZZ_CHECK(std::string(buffer, buffer + std::max(n, 0)) == probe,
               "read " + std::to_string(n) + " bytes instead of the packet expected");
    return 0;
}
