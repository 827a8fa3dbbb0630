#include "support/ImpairmentRelay.h"

#include <tavo/Assert.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace
{

// Larger than any UDP datagram, so nothing is ever cut.
constexpr std::size_t RECEIVE_BUFFER_SIZE = 65536;
// Datagrams read from one socket per wake-up, so a flood on one socket
// cannot starve the others or the queue.
constexpr int RECEIVE_BATCH = 64;

sockaddr_in makeAddress(uint32_t address, uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

int makeUdpSocket(uint32_t address)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    TAVO_ASSERT_TEXT(fd >= 0, "relay socket");
    const sockaddr_in local = makeAddress(address, 0);
    TAVO_ASSERT_TEXT(::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0,
                     "relay bind");
    return fd;
}

} // namespace

ImpairmentRelay::ImpairmentRelay(uint16_t targetPort, uint32_t seed) : m_targetPort(targetPort)
{
    // Each direction draws from its own sequence, so traffic one way never
    // shifts the decisions made the other way.
    for (uint32_t direction = 0; direction < 2; ++direction)
    {
        std::seed_seq sequence{seed, direction};
        m_generator[direction].seed(sequence);
    }

    m_socket = makeUdpSocket(INADDR_LOOPBACK);
    sockaddr_in bound{};
    socklen_t boundLength = sizeof(bound);
    TAVO_ASSERT_TEXT(::getsockname(m_socket, reinterpret_cast<sockaddr*>(&bound), &boundLength) ==
                         0,
                     "relay getsockname");
    m_port = ntohs(bound.sin_port);
    TAVO_ASSERT_TEXT(::pipe2(m_wakePipe, O_NONBLOCK | O_CLOEXEC) == 0, "relay wake pipe");

    m_thread = std::thread([this] { run(); });
}

ImpairmentRelay::~ImpairmentRelay()
{
    stop();
}

void ImpairmentRelay::setImpairment(RelayDirection direction, const Impairment& impairment)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_impairment[index(direction)] = impairment;
}

void ImpairmentRelay::setImpairment(const Impairment& both)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_impairment[0] = both;
    m_impairment[1] = both;
}

void ImpairmentRelay::setSilent(bool silent)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_silent = silent;
}

RelayCounts ImpairmentRelay::getCounts(RelayDirection direction) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_counts[index(direction)];
}

std::size_t ImpairmentRelay::getSessionCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sessionCount;
}

void ImpairmentRelay::stop()
{
    std::lock_guard<std::mutex> lock(m_stopMutex);
    if (!m_thread.joinable())
    {
        return;
    }
    m_stopping = true;
    const char wake = 1;
    // The pipe is never full while the thread runs, and a failed write only
    // leaves the flag, which the thread checks after every wake-up anyway.
    [[maybe_unused]] const ssize_t written = ::write(m_wakePipe[1], &wake, 1);
    m_thread.join();

    for (auto& entry : m_sessions)
    {
        ::close(entry.second->socket);
    }
    m_queue.clear();
    m_held[0].reset();
    m_held[1].reset();
    m_sessions.clear();
    ::close(m_socket);
    ::close(m_wakePipe[0]);
    ::close(m_wakePipe[1]);
}

void ImpairmentRelay::run()
{
    std::vector<uint8_t> buffer(RECEIVE_BUFFER_SIZE);
    std::vector<pollfd> fds;
    std::vector<Session*> owners;
    while (!m_stopping)
    {
        fds.clear();
        owners.clear();
        fds.push_back({m_wakePipe[0], POLLIN, 0});
        fds.push_back({m_socket, POLLIN, 0});
        for (auto& entry : m_sessions)
        {
            fds.push_back({entry.second->socket, POLLIN, 0});
            owners.push_back(entry.second.get());
        }

        timespec timeout{};
        timespec* pTimeout = nullptr;
        if (const auto wake = nextWake())
        {
            const auto wait = std::max(*wake - Clock::now(), Clock::duration::zero());
            const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(wait);
            timeout.tv_sec = static_cast<time_t>(nanoseconds.count() / 1000000000);
            timeout.tv_nsec = static_cast<long>(nanoseconds.count() % 1000000000);
            pTimeout = &timeout;
        }
        if (::ppoll(fds.data(), fds.size(), pTimeout, nullptr) < 0)
        {
            TAVO_ASSERT_TEXT(errno == EINTR, "relay poll");
            continue;
        }
        if (fds[0].revents != 0)
        {
            char drained[16];
            while (::read(m_wakePipe[0], drained, sizeof(drained)) > 0)
            {
            }
        }
        if (m_stopping)
        {
            break;
        }
        if (fds[1].revents != 0)
        {
            receiveAll(m_socket, nullptr, buffer);
        }
        for (std::size_t i = 0; i < owners.size(); ++i)
        {
            if (fds[i + 2].revents != 0)
            {
                receiveAll(owners[i]->socket, owners[i], buffer);
            }
        }
        const auto now = Clock::now();
        releaseExpiredHolds(now);
        sendDue(now);
    }
}

void ImpairmentRelay::receiveAll(int socket, Session* pSession, std::vector<uint8_t>& buffer)
{
    for (int i = 0; i < RECEIVE_BATCH; ++i)
    {
        sockaddr_in source{};
        socklen_t sourceLength = sizeof(source);
        const ssize_t size = ::recvfrom(socket, buffer.data(), buffer.size(), 0,
                                        reinterpret_cast<sockaddr*>(&source), &sourceLength);
        if (size < 0)
        {
            return; // drained (or an ICMP error report, which carries nothing to relay)
        }
        std::vector<uint8_t> bytes(buffer.begin(), buffer.begin() + size);
        const uint16_t sourcePort = ntohs(source.sin_port);
        if (pSession == nullptr)
        {
            judge(RelayDirection::ClientToServer,
                  findOrCreateSession(ntohl(source.sin_addr.s_addr), sourcePort), std::move(bytes));
        }
        else
        {
            // An accepted transport answers from its own new port: follow it.
            pSession->serverPort = sourcePort;
            judge(RelayDirection::ServerToClient, pSession, std::move(bytes));
        }
    }
}

ImpairmentRelay::Session* ImpairmentRelay::findOrCreateSession(uint32_t address, uint16_t port)
{
    auto& pSession = m_sessions[{address, port}];
    if (!pSession)
    {
        pSession = std::make_unique<Session>();
        pSession->socket = makeUdpSocket(INADDR_ANY);
        pSession->clientAddress = address;
        pSession->clientPort = port;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessionCount = m_sessions.size();
    }
    return pSession.get();
}

bool ImpairmentRelay::roll(std::mt19937& generator, double rate)
{
    // The ends are exact and draw nothing.
    if (rate <= 0)
    {
        return false;
    }
    if (rate >= 1)
    {
        return true;
    }
    return std::uniform_real_distribution<double>(0.0, 1.0)(generator) < rate;
}

bool ImpairmentRelay::isBlocked(RelayDirection direction) const
{
    return m_silent || m_impairment[index(direction)].blackhole;
}

void ImpairmentRelay::judge(RelayDirection direction, Session* pSession, std::vector<uint8_t> bytes)
{
    const std::size_t i = index(direction);
    std::mt19937& generator = m_generator[i];
    std::lock_guard<std::mutex> lock(m_mutex);
    RelayCounts& counts = m_counts[i];
    const Impairment& impairment = m_impairment[i];
    ++counts.received;
    if (isBlocked(direction) || roll(generator, impairment.dropRate))
    {
        ++counts.dropped;
        return;
    }

    const bool isCon = direction == RelayDirection::ClientToServer && bytes.size() >= 4 &&
                       std::memcmp(bytes.data() + 1, "CON", 3) == 0;
    Datagram datagram{direction,    pSession,
                      isCon,        roll(generator, impairment.duplicateRate),
                      Clock::now(), std::move(bytes)};
    auto extra = std::max(impairment.delay, std::chrono::microseconds::zero());
    if (impairment.jitter.count() > 0)
    {
        extra += std::chrono::microseconds(
            std::uniform_int_distribution<int64_t>(0, impairment.jitter.count())(generator));
    }
    if (extra.count() > 0)
    {
        ++counts.delayed;
        datagram.due += extra;
    }

    if (m_held[i])
    {
        Datagram held = std::move(m_held[i]->datagram);
        m_held[i].reset();
        held.due = std::max(held.due, datagram.due);
        schedule(std::move(datagram));
        schedule(std::move(held)); // same time or later, and queued after: it goes second
        return;
    }
    if (roll(generator, impairment.reorderRate))
    {
        ++counts.reordered;
        const auto deadline = datagram.due + impairment.reorderHold;
        m_held[i] = Held{std::move(datagram), deadline};
        return;
    }
    schedule(std::move(datagram));
}

void ImpairmentRelay::schedule(Datagram datagram)
{
    const auto due = datagram.due;
    m_queue.emplace(std::make_pair(due, m_queueOrder++), std::move(datagram));
}

void ImpairmentRelay::releaseExpiredHolds(Clock::time_point now)
{
    for (auto& held : m_held)
    {
        if (held && held->deadline <= now)
        {
            Datagram datagram = std::move(held->datagram);
            datagram.due = held->deadline;
            held.reset();
            schedule(std::move(datagram));
        }
    }
}

std::optional<ImpairmentRelay::Clock::time_point> ImpairmentRelay::nextWake() const
{
    std::optional<Clock::time_point> wake;
    if (!m_queue.empty())
    {
        wake = m_queue.begin()->first.first;
    }
    for (const auto& held : m_held)
    {
        if (held && (!wake || held->deadline < *wake))
        {
            wake = held->deadline;
        }
    }
    return wake;
}

void ImpairmentRelay::sendDue(Clock::time_point now)
{
    while (!m_queue.empty() && m_queue.begin()->first.first <= now)
    {
        auto node = m_queue.extract(m_queue.begin());
        send(node.mapped());
    }
}

void ImpairmentRelay::send(const Datagram& datagram)
{
    const Session& session = *datagram.pSession;
    int socket = m_socket;
    sockaddr_in destination = makeAddress(session.clientAddress, session.clientPort);
    if (datagram.direction == RelayDirection::ClientToServer)
    {
        socket = session.socket;
        const bool toListener = datagram.isCon || session.serverPort == 0;
        destination = makeAddress(INADDR_LOOPBACK, toListener ? m_targetPort : session.serverPort);
    }

    std::lock_guard<std::mutex> lock(m_mutex);
    RelayCounts& counts = m_counts[index(datagram.direction)];
    const auto sendOnce = [&]
    {
        return ::sendto(socket, datagram.bytes.data(), datagram.bytes.size(), 0,
                        reinterpret_cast<const sockaddr*>(&destination),
                        sizeof(destination)) == static_cast<ssize_t>(datagram.bytes.size());
    };
    // Silence applies to what is already on its way, too.
    if (isBlocked(datagram.direction) || !sendOnce())
    {
        ++counts.dropped;
        return;
    }
    ++counts.forwarded;
    if (datagram.duplicate && sendOnce())
    {
        ++counts.duplicated;
    }
}
