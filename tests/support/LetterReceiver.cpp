#include "support/LetterReceiver.h"

#include "support/RawUdpSocket.h"

#include <poll.h>

#include <cstring>

namespace
{

constexpr std::int32_t RANGE = 65535;

int boundSocket()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in local = loopbackAddress(0);
    ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local));
    return fd;
}

std::uint32_t argOf(const eudpwire::Bytes& datagram)
{
    std::uint32_t arg = 0;
    for (int i = 3; i >= 0; --i)
    {
        arg = (arg << 8) | datagram[4 + static_cast<std::size_t>(i)];
    }
    return arg;
}

bool is(const eudpwire::Bytes& datagram, const char* command)
{
    return std::memcmp(datagram.data() + 1, command, 3) == 0;
}

} // namespace

LetterReceiver::LetterReceiver() : m_listening(boundSocket()), m_connection(boundSocket())
{
    m_listeningPort = boundPort(m_listening);
    m_thread = std::thread([this] { run(); });
}

LetterReceiver::~LetterReceiver()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_thread.join();
    ::close(m_listening);
    ::close(m_connection);
}

std::vector<eudpwire::Bytes> LetterReceiver::waitFor(std::size_t count,
                                                     std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_arrived.wait_for(lock, timeout, [&] { return m_payloads.size() >= count; });
    return m_payloads;
}

void LetterReceiver::run()
{
    pollfd sockets[2] = {{m_listening, POLLIN, 0}, {m_connection, POLLIN, 0}};
    eudpwire::Bytes buffer(2000);
    for (;;)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping)
            {
                return;
            }
        }
        if (::poll(sockets, 2, 20) <= 0)
        {
            continue;
        }
        for (int which = 0; which < 2; ++which)
        {
            if ((sockets[which].revents & POLLIN) == 0)
            {
                continue;
            }
            sockaddr_in source{};
            socklen_t length = sizeof(source);
            const ssize_t n = ::recvfrom(sockets[which].fd, buffer.data(), buffer.size(), 0,
                                         reinterpret_cast<sockaddr*>(&source), &length);
            if (n < 8 || buffer[0] != eudpwire::VERSION)
            {
                continue;
            }
            const eudpwire::Bytes datagram(buffer.begin(), buffer.begin() + n);
            if (which == 0)
            {
                // The first CON only: the connection answers from a port of its own.
                if (is(datagram, "CON") && m_peerPort == 0)
                {
                    m_peerPort = ntohs(source.sin_port);
                    m_expected = (static_cast<std::int32_t>(argOf(datagram)) + 1) % RANGE;
                    answer("ACK", argOf(datagram));
                }
                continue;
            }
            handle(datagram);
        }
    }
}

void LetterReceiver::handle(const eudpwire::Bytes& datagram)
{
    const std::uint32_t arg = argOf(datagram);
    if (is(datagram, "WIN"))
    {
        answer("WAK", arg);
    }
    else if (is(datagram, "MOD"))
    {
        // Every mode allowed; only the receive half matters to a receiver.
        const std::uint8_t send = static_cast<std::uint8_t>(arg);
        const std::uint8_t receive = static_cast<std::uint8_t>(arg >> 16);
        if (receive == 'R' || receive == 'T')
        {
            m_reliable = receive == 'R';
        }
        answer("MAK",
               eudpwire::modes(send, send == 'D' ? 'T' : send, receive, m_reliable ? 'R' : 'T'));
    }
    else if (is(datagram, "CMD"))
    {
        const std::int32_t seq = static_cast<std::int32_t>(arg) % RANGE;
        std::int32_t distance = seq - m_expected;
        distance += distance < -32767 ? RANGE : distance > 32767 ? -RANGE : 0;
        if (distance < 0)
        {
            answer("ACK", arg);
            return;
        }
        if (m_reliable && distance > 0)
        {
            answer("NAK", static_cast<std::uint32_t>(m_expected));
            return;
        }
        if (m_reliable)
        {
            answer("ACK", static_cast<std::uint32_t>(seq));
        }
        m_expected = (seq + 1) % RANGE;
        if (datagram.size() > 8)
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_payloads.emplace_back(datagram.begin() + 8, datagram.end());
            m_arrived.notify_all();
        }
        else if (!m_reliable)
        {
            answer("NOP", 0);
        }
    }
}

void LetterReceiver::answer(const char* command, std::uint32_t arg)
{
    const eudpwire::Bytes datagram = eudpwire::packet(command, arg);
    const sockaddr_in peer = loopbackAddress(m_peerPort);
    ::sendto(m_connection, datagram.data(), datagram.size(), 0,
             reinterpret_cast<const sockaddr*>(&peer), sizeof(peer));
}
