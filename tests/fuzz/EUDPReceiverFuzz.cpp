// Plays a peer on a plain UDP socket: connects to a listening EUDP transport,
// then writes the fuzzer's datagrams to the accepted transport's port. Every
// answer the transport sends back (ACK, NAK, NOP, MAK, WAK) and every payload
// it stores is compared with what the datagrams call for; afterwards a data
// packet sent with the number the transport expects still arrives, or, when
// the datagrams held a DIS, the transport hands out what it stored and
// reports its end.
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

#include <poll.h>

#include <cerrno>
#include <map>
#include <memory>
#include <utility>

using fuzz::eudp::commandOf;
typedef EUDPTransportTestPeer Peer;

namespace
{

// Datagrams between two fences; few enough that the socket buffers never
// overflow, so no datagram is lost on the way.
constexpr std::size_t BATCH = 16;
// A datagram may be longer than a packet; the receive cuts it.
constexpr std::size_t LONGEST_DATAGRAM = EUDP_MAX_PACKET_SIZE + 100;
// How long the peer waits for an answer, or for a state, before it gives up.
constexpr std::chrono::milliseconds WAIT(5000);

std::uint32_t argOf(const Bytes& datagram)
{
    return fuzz::eudp::le32(datagram.data() + 4);
}

Bytes packet(int command, std::uint32_t arg, const Bytes& payload = Bytes())
{
    return eudpwire::packet(fuzz::eudp::NAMES[command], arg, payload);
}

std::string describe(const Bytes& datagram)
{
    if (datagram.size() < 8)
    {
        return fuzz::hex(datagram);
    }
    return std::string(datagram.begin() + 1, datagram.begin() + 4) + " " +
           fuzz::str(argOf(datagram)) +
           (datagram.size() > 8 ? " + " + fuzz::str(datagram.size() - 8) + " bytes" : "");
}

// One answer the transport owes. In-order data is acknowledged once for all
// that arrived together, so such an ACK may be left out when another
// follows it; a NAK for the number it NAKed last may be left out too (once
// per burst). Which datagrams arrive together depends on timing.
struct Answer
{
    enum EKind
    {
        FIRM,       // always sent, in this place
        CUMULATIVE, // an in-order ACK: may give way to the next cumulative one
        REPEAT_NAK  // a NAK of the number NAKed last
    };
    Bytes bytes;
    EKind kind;
};

// What the accepted transport does with each datagram, worked out from the
// datagrams alone: its answers, what it stores, its modes and the number it
// expects next.
class Receiver
{
public:
    Receiver(std::uint32_t conArg)
        // The number after the CON's: the 32-bit argument as a signed number.
        : m_expected(static_cast<int>(
              (static_cast<std::int64_t>(static_cast<std::int32_t>(conArg)) + 1) % EUDP_SEQ_RANGE))
    {
    }

    int m_expected;
    EConnMode m_receiveMode = CONN_MODE_REALTIME;
    EConnMode m_sendMode = CONN_MODE_REALTIME;
    std::vector<Bytes> m_stored;
    bool m_closed = false;

    // One datagram as it reaches the transport; answers go to `answers`.
    void feed(const Bytes& datagram, std::vector<Answer>& answers)
    {
        // An empty datagram never arrives; an invalid one is dropped.
        if (m_closed || datagram.size() < EUDP_HEADER_SIZE || datagram[0] != EUDP_VERSION ||
            commandOf(datagram.data() + 1) == EUDP_UNKNOWN)
        {
            return;
        }
        const std::uint32_t arg = argOf(datagram);
        switch (commandOf(datagram.data() + 1))
        {
        case EUDP_DIS:
            m_closed = true;
            break;
        case EUDP_CMD:
            data(arg, Bytes(datagram.begin() + EUDP_HEADER_SIZE, datagram.end()), answers);
            break;
        case EUDP_MOD:
            mode(arg, answers);
            break;
        case EUDP_WIN:
            answers.push_back({packet(EUDP_WAK, arg), Answer::FIRM});
            break;
        default:
            // NOP, ACK, NAK, MAK, WAK and a CON are answered with nothing.
            break;
        }
    }

private:
    void data(std::uint32_t arg, const Bytes& payload, std::vector<Answer>& answers)
    {
        // The argument as a signed number, reduced with the signed remainder,
        // and its cyclic distance from the number expected.
        const int seq = static_cast<std::int32_t>(arg) % EUDP_SEQ_RANGE;
        const int distance = distanceFrom(seq, m_expected);
        const bool reliable = m_receiveMode == CONN_MODE_RELIABLE;
        if (distance < 0)
        {
            answers.push_back({packet(EUDP_ACK, arg), Answer::FIRM});
            if (reliable)
            {
                // Followed by one for everything taken.
                acknowledgeTaken(answers);
            }
            return;
        }
        if (m_stored.size() == EUDP_RING_CAPACITY - 1)
        {
            return;
        }
        if (reliable)
        {
            if (distance > 0)
            {
                hold(seq, arg, payload, distance);
                answers.push_back({packet(EUDP_NAK, static_cast<std::uint32_t>(m_expected)),
                                   m_lastNak == m_expected ? Answer::REPEAT_NAK : Answer::FIRM});
                m_lastNak = m_expected;
                return;
            }
            take(payload);
            // What was held after the gap follows on, while there is room.
            for (auto held = m_held.find(m_expected % HELD_SLOTS);
                 held != m_held.end() && m_stored.size() < EUDP_RING_CAPACITY - 1 &&
                 held->second.first == static_cast<std::uint32_t>(m_expected);
                 held = m_held.find(m_expected % HELD_SLOTS))
            {
                const Bytes next = held->second.second;
                m_held.erase(held);
                take(next);
            }
            acknowledgeTaken(answers);
            return;
        }
        m_held.clear();
        m_expected = (seq + 1) % EUDP_SEQ_RANGE;
        if (!payload.empty())
        {
            m_stored.push_back(payload);
        }
        else if (m_receiveMode == CONN_MODE_REALTIME)
        {
            answers.push_back({packet(EUDP_NOP, 0), Answer::FIRM});
        }
    }

    static int distanceFrom(int seq, int expected)
    {
        int distance = seq - expected;
        if (distance < -EUDP_SEQ_HALF)
        {
            distance += EUDP_SEQ_RANGE;
        }
        else if (distance > EUDP_SEQ_HALF)
        {
            distance -= EUDP_SEQ_RANGE;
        }
        return distance;
    }

    void take(const Bytes& payload)
    {
        m_expected = (m_expected + 1) % EUDP_SEQ_RANGE;
        if (!payload.empty())
        {
            m_stored.push_back(payload);
        }
    }

    // The last number taken, within the range.
    void acknowledgeTaken(std::vector<Answer>& answers)
    {
        const int last = (m_expected + EUDP_SEQ_RANGE - 1) % EUDP_SEQ_RANGE;
        answers.push_back({packet(EUDP_ACK, static_cast<std::uint32_t>(last)), Answer::CUMULATIVE});
    }

    // A packet after a gap waits in the slot of its number, if it is a real
    // number within reach and the slot is free; it is taken only if its
    // argument is exactly the number expected by then.
    void hold(int seq, std::uint32_t arg, const Bytes& payload, int distance)
    {
        if (seq < 0 || distance >= static_cast<int>(HELD_SLOTS))
        {
            return;
        }
        m_held.emplace(seq % HELD_SLOTS, std::make_pair(arg, payload));
    }

    static constexpr int HELD_SLOTS = static_cast<int>(EUDP_REORDER_SLOTS);
    // Slot -> the argument and payload held there.
    std::map<int, std::pair<std::uint32_t, Bytes>> m_held;
    // The number of the last NAK (-2: none since a burst could have ended).
    int m_lastNak = -2;
    // Every mode is allowed: a letter T or R sets it, D keeps it, any other
    // refuses the request from there on, without an answer.
    static bool pick(uint8 letter, EConnMode& mode)
    {
        if (letter == CONN_MODE_REALTIME || letter == CONN_MODE_RELIABLE)
        {
            mode = static_cast<EConnMode>(letter);
            return true;
        }
        return letter == CONN_MODE_DONT_CARE;
    }

    void mode(std::uint32_t arg, std::vector<Answer>& answers)
    {
        const uint8 send = static_cast<uint8>(arg);
        const uint8 receive = static_cast<uint8>(arg >> 16);
        if (!pick(send, m_sendMode) || !pick(receive, m_receiveMode))
        {
            return;
        }
        answers.push_back(
            {packet(EUDP_MAK, eudpwire::modes(send, static_cast<uint8>(m_sendMode), receive,
                                              static_cast<uint8>(m_receiveMode))),
             Answer::FIRM});
    }
};

// The peer: a plain UDP socket on loopback.
class RawPeer : public RawUdpSocket
{
public:
    RawPeer()
    {
        FUZZ_CHECK(isBound(), "no UDP socket for the peer: errno " + fuzz::str(errno));
        // Room for the up to 999 empty packets one NAK may bring: a datagram
        // the kernel drops for want of room is no answer the transport left
        // out. (Root may raise the limit; others get what the system allows.)
        const int room = 8 << 20;
        if (::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) != 0)
        {
            ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
        }
    }

    void send(uint16 port, const Bytes& datagram)
    {
        ssize_t sent;
        do
        {
            sent = RawUdpSocket::send(port, datagram);
        } while (sent < 0 && errno == EINTR);
        FUZZ_CHECK(sent == static_cast<ssize_t>(datagram.size()),
                   "sending " + describe(datagram) + " failed: errno " + fuzz::str(errno));
    }

    // The next datagram from `port` that is not a data packet (the
    // transport's own data and keep-alives are of no interest here); empty
    // when none comes in time.
    Bytes answerFrom(uint16 port)
    {
        const auto deadline = std::chrono::steady_clock::now() + WAIT;
        for (;;)
        {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd wait{m_fd, POLLIN, 0};
            const int ready =
                left.count() > 0 ? ::poll(&wait, 1, static_cast<int>(left.count())) : 0;
            // The fuzzer's watchdog is a periodic signal: it cuts a wait short.
            if (ready < 0 && errno == EINTR)
            {
                continue;
            }
            if (ready != 1)
            {
                return Bytes();
            }
            Bytes datagram(2000);
            sockaddr_in source{};
            socklen_t length = sizeof(source);
            const ssize_t n = ::recvfrom(m_fd, datagram.data(), datagram.size(), 0,
                                         reinterpret_cast<sockaddr*>(&source), &length);
            if (n < 0)
            {
                continue;
            }
            datagram.resize(static_cast<std::size_t>(n));
            if (ntohs(source.sin_port) == port &&
                !(datagram.size() >= 8 && commandOf(datagram.data() + 1) == EUDP_CMD))
            {
                return datagram;
            }
        }
    }

    // Forgets whatever earlier transports sent.
    void drain()
    {
        uint8 scrap[2000];
        while (::recv(m_fd, scrap, sizeof(scrap), MSG_DONTWAIT) >= 0 || errno == EINTR)
        {
        }
    }
};

// Set up once per process: the listening transport, the peer and the log.
EUDPTransport* g_pListener = nullptr;
RawPeer* g_pPeer = nullptr;
LogCapture* g_pLog = nullptr;

// What the library logged lately, to go with a failed check.
std::string recent(uint16 = 0)
{
    std::vector<std::string> lines = fuzz::take(*g_pLog);
    lines.erase(lines.begin(), lines.end() - std::min<std::ptrdiff_t>(
                                                 24, static_cast<std::ptrdiff_t>(lines.size())));
    return "\n  the library logged lately:" + fuzz::join(lines);
}

// The transport's next answer, read ahead by one.
Bytes g_peeked;

Bytes peekAnswer(uint16 port)
{
    if (g_peeked.empty())
    {
        g_peeked = g_pPeer->answerFrom(port);
    }
    return g_peeked;
}

// The answers from `port` (the transport's, which it no longer reports once
// closed) up to the last one wanted. One that may be left out is passed
// over when the next answer is another; a cumulative ACK only when a later
// one follows before anything firm.
void expectAnswers(EUDPTransport& transport, uint16 port, const std::vector<Answer>& wanted,
                   std::size_t& checked)
{
    for (; checked < wanted.size(); ++checked)
    {
        const Answer& want = wanted[checked];
        const bool next = checked + 1 < wanted.size();
        const bool optional =
            want.kind == Answer::REPEAT_NAK ||
            (want.kind == Answer::CUMULATIVE && next && wanted[checked + 1].kind != Answer::FIRM);
        const Bytes answer = peekAnswer(port);
        if (answer == want.bytes)
        {
            g_peeked.clear();
            continue;
        }
        FUZZ_CHECK(optional, "answer " + fuzz::str(checked) + " was " +
                                 (answer.empty() ? std::string("missing") : describe(answer)) +
                                 ", wanted " + describe(want.bytes) +
                                 (Peer::closed(transport) ? " (closed)" : "") + recent(port));
    }
}

void expectStored(EUDPTransport& transport, const std::vector<Bytes>& stored)
{
    uint8 buffer[WEFT_MAX_PACKET_SIZE];
    for (std::size_t i = 0; i < stored.size(); ++i)
    {
        const int n = transport.receiveData(buffer, sizeof(buffer));
        const Bytes payload(buffer, buffer + std::max(n, 0));
        FUZZ_CHECK(payload == stored[i], "payload " + fuzz::str(i) + " was " + fuzz::hex(payload) +
                                             "\n  wanted " + fuzz::hex(stored[i]));
    }
}

// Where the transport stands, as text that shows a difference.
std::string state(int expected, std::size_t stored, EConnMode receive, EConnMode send)
{
    return "expecting " + fuzz::str(expected) + " holding " + fuzz::str(stored) + " in modes " +
           fuzz::str(receive) + "/" + fuzz::str(send);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startQuietly();
    g_pListener = new EUDPTransport();
    FUZZ_CHECK(g_pListener->listen(tavo::HostAddress("127.0.0.1"), 0),
               "the listening transport did not bind");
    g_pPeer = new RawPeer();
    g_pLog = new LogCapture();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const uint8 flags = input.u8();
    const std::uint32_t conArg = input.u32();
    const std::vector<Bytes> datagrams = input.chunks(LONGEST_DATAGRAM);

    // Connect: a CON to the listener, answered from the new transport's port.
    g_pLog->clear();
    g_pPeer->drain();
    g_pPeer->send(g_pListener->getLocalPort(), packet(EUDP_CON, conArg));
    std::unique_ptr<EUDPTransport> transport(static_cast<EUDPTransport*>(g_pListener->accept()));
    FUZZ_CHECK(transport != nullptr, "no transport accepted");
    const uint16 port = transport->getLocalPort();
    g_peeked.clear();
    std::vector<Answer> answers{{packet(EUDP_ACK, conArg), Answer::FIRM}};
    std::size_t checked = 0;
    expectAnswers(*transport, port, answers, checked);

    Receiver model(conArg);
    // The modes the run asks for, through a mode request of the peer.
    const uint8 receive = (flags & 1) != 0 ? CONN_MODE_RELIABLE : CONN_MODE_DONT_CARE;
    const uint8 send = (flags & 2) != 0 ? CONN_MODE_RELIABLE : CONN_MODE_DONT_CARE;
    std::vector<Bytes> sent{packet(EUDP_MOD, eudpwire::modes(send, 'D', receive, 'D'))};
    // Data of the transport's own, so that the peer's ACKs and NAKs meet a
    // send ring that holds something.
    for (int i = 0; i < ((flags >> 2) & 3); ++i)
    {
        const uint8 message[] = {'o', 'u', 't', static_cast<uint8>('0' + i)};
        transport->sendData(message, sizeof(message));
    }

    // The datagrams, each batch followed by a window request as a fence:
    // once its answer is back, everything before it has been handled.
    sent.insert(sent.end(), datagrams.begin(), datagrams.end());
    for (std::size_t first = 0; first < sent.size() && !model.m_closed; first += BATCH)
    {
        for (std::size_t i = first; i < std::min(first + BATCH, sent.size()) && !model.m_closed;
             ++i)
        {
            g_pPeer->send(port, sent[i]);
            // The socket hands out at most one packet's worth.
            model.feed(Bytes(sent[i].begin(),
                             sent[i].begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(
                                                   sent[i].size(), EUDP_MAX_PACKET_SIZE))),
                       answers);
        }
        if (!model.m_closed)
        {
            const Bytes fence = packet(EUDP_WIN, EUDP_DEFAULT_WINDOW);
            g_pPeer->send(port, fence);
            model.feed(fence, answers);
        }
        expectAnswers(*transport, port, answers, checked);
    }

    uint8 buffer[WEFT_MAX_PACKET_SIZE];
    if (model.m_closed)
    {
        // A DIS closes the transport: what it stored comes out, then the end,
        // which every later read reports too.
        FUZZ_CHECK(eventually([&] { return Peer::closed(*transport); }, WAIT),
                   "the transport did not close after a DIS" + recent());
        expectStored(*transport, model.m_stored);
        for (int read = 1; read <= 2; ++read)
        {
            const int end = transport->receiveData(buffer, sizeof(buffer));
            FUZZ_CHECK(end == 0, "read " + fuzz::str(read) +
                                     " after the stored payloads of the "
                                     "closed transport gave " +
                                     fuzz::str(end));
        }
        return 0;
    }

    FUZZ_CHECK(!Peer::closed(*transport), "the transport closed without a DIS" + recent());
    const std::string actual = state(Peer::expectedSeq(*transport), Peer::stored(*transport),
                                     Peer::receiveMode(*transport), Peer::sendMode(*transport));
    const std::string wanted =
        state(model.m_expected, model.m_stored.size(), model.m_receiveMode, model.m_sendMode);
    FUZZ_CHECK(actual == wanted, "the transport is " + actual + ", wanted " + wanted + recent());
    expectStored(*transport, model.m_stored);
    model.m_stored.clear();

    // The connection still works: a data packet with the number expected
    // arrives (and is acknowledged in reliable mode).
    const Bytes datagram = packet(EUDP_CMD, static_cast<std::uint32_t>(model.m_expected),
                                  Bytes{'p', 'r', 'o', 'b', 'e'});
    g_pPeer->send(port, datagram);
    model.feed(datagram, answers);
    expectAnswers(*transport, port, answers, checked);
    FUZZ_CHECK(eventually([&] { return Peer::stored(*transport) == model.m_stored.size(); }, WAIT),
               "the packet sent after the datagrams was not stored" + recent());
    expectStored(*transport, model.m_stored);
    return 0;
}
