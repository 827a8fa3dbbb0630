#include "ImpairmentRelay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

// Larger than any UDP datagram, so nothing is ever cut.
constexpr std::size_t RECEIVE_BUFFER_SIZE = 65536;
// Datagrams read from one socket per wake-up, so a flood on one socket
// cannot starve the others or the queue.
constexpr int RECEIVE_BATCH = 64;

RelayOptions loopbackOptions(uint16_t targetPort, uint32_t seed)
{
    RelayOptions options;
    options.target.port = targetPort;
    options.seed = seed;
    return options;
}

RelayEvent sessionEvent(RelayEvent::EKind kind, uint32_t session, const RelayEndpoint& client)
{
    RelayEvent event;
    event.kind = kind;
    event.session = session;
    event.client = client;
    return event;
}

} // namespace

ImpairmentRelay::ImpairmentRelay(uint16_t targetPort, uint32_t seed)
    : ImpairmentRelay(loopbackOptions(targetPort, seed))
{
    if (!isOpen())
    {
        std::fprintf(stderr, "impairment relay: %s\n", m_error.c_str());
        std::abort();
    }
}

ImpairmentRelay::ImpairmentRelay(RelayOptions options) : m_options(std::move(options))
{
    // Each direction draws from its own sequence, so traffic one way never
    // shifts the decisions made the other way.
    for (uint32_t direction = 0; direction < 2; ++direction)
    {
        std::seed_seq sequence{m_options.seed, direction};
        m_generator[direction].seed(sequence);
        m_impairment[direction] = m_options.impairment;
    }
    if (open())
    {
        m_thread = std::thread([this] { run(); });
    }
}

bool ImpairmentRelay::open()
{
    const int socket = makeRelaySocket(SOCK_DGRAM, m_options.listen, m_options.dualStack);
    if (socket < 0)
    {
        m_error = "cannot bind to UDP " + m_options.listen.text() + ": " + std::strerror(errno);
        return false;
    }
    if (::pipe2(m_wakePipe, O_NONBLOCK | O_CLOEXEC) != 0)
    {
        m_error = std::string("cannot make a pipe: ") + std::strerror(errno);
        ::close(socket);
        return false;
    }
    m_port = RelayEndpoint::boundPort(socket);
    m_socket = socket;
    return true;
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
        // Fails only on a signal (EINTR), or without memory for the set:
        // either way the next turn tries again.
        if (::ppoll(fds.data(), fds.size(), pTimeout, nullptr) < 0)
        {
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
        forgetIdleSessions(now);
    }
}

void ImpairmentRelay::receiveAll(int socket, Session* pSession, std::vector<uint8_t>& buffer)
{
    for (int i = 0; i < RECEIVE_BATCH; ++i)
    {
        sockaddr_storage source{};
        socklen_t sourceLength = sizeof(source);
        const ssize_t size = ::recvfrom(socket, buffer.data(), buffer.size(), 0,
                                        reinterpret_cast<sockaddr*>(&source), &sourceLength);
        if (size < 0)
        {
            return; // drained (or an ICMP error report, which carries nothing to relay)
        }
        const std::optional<RelayEndpoint> sender = RelayEndpoint::from(source);
        if (!sender)
        {
            continue;
        }
        std::vector<uint8_t> bytes(buffer.begin(), buffer.begin() + size);
        RelayDirection direction = RelayDirection::ServerToClient;
        if (pSession == nullptr)
        {
            direction = RelayDirection::ClientToServer;
            pSession = findOrCreateSession(*sender);
        }
        else
        {
            // An accepted transport answers from its own new port: follow it.
            pSession->serverPort = sender->port;
        }
        judge(direction, pSession, std::move(bytes));
        if (direction == RelayDirection::ClientToServer)
        {
            pSession = nullptr;
        }
    }
}

ImpairmentRelay::Session* ImpairmentRelay::findOrCreateSession(const RelayEndpoint& client)
{
    const RelayEndpoint& key = client;
    const auto found = m_sessions.find(key);
    if (found != m_sessions.end())
    {
        return found->second.get();
    }
    // Out of sockets (a relay that meets many clients): this datagram is
    // dropped, and the next one from the client tries again.
    const int socket = makeRelaySocket(SOCK_DGRAM, RelayEndpoint::any(m_options.target.family()));
    if (socket < 0)
    {
        return nullptr;
    }
    auto pSession = std::make_unique<Session>();
    pSession->socket = socket;
    pSession->id = ++m_lastSessionId;
    pSession->client = client;
    Session* pCreated = m_sessions.emplace(key, std::move(pSession)).first->second.get();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessionCount = m_sessions.size();
    }
    if (m_options.onEvent)
    {
        m_options.onEvent(sessionEvent(RelayEvent::SESSION_OPENED, pCreated->id, client));
    }
    return pCreated;
}

void ImpairmentRelay::forgetIdleSessions(Clock::time_point now)
{
    if (m_options.idleTimeout.count() <= 0 || now < m_nextIdleCheck)
    {
        return;
    }
    // A few looks per time-out are enough.
    m_nextIdleCheck = now + m_options.idleTimeout / 4;
    for (auto it = m_sessions.begin(); it != m_sessions.end();)
    {
        Session* pSession = it->second.get();
        const auto inUse = [&](const Datagram& datagram) { return datagram.pSession == pSession; };
        const bool queued =
            std::any_of(m_queue.begin(), m_queue.end(),
                        [&](const auto& entry) { return inUse(entry.second); }) ||
            std::any_of(std::begin(m_held), std::end(m_held),
                        [&](const auto& held) { return held && inUse(held->datagram); });
        if (queued || now - pSession->lastSeen < m_options.idleTimeout)
        {
            ++it;
            continue;
        }
        if (m_options.onEvent)
        {
            m_options.onEvent(
                sessionEvent(RelayEvent::SESSION_CLOSED, pSession->id, pSession->client));
        }
        ::close(pSession->socket);
        it = m_sessions.erase(it);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessionCount = m_sessions.size();
    }
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
    RelayEvent event;
    event.direction = direction;
    // The watcher sees the bytes as they arrived, after the decision.
    const std::vector<uint8_t> seen = m_options.onEvent ? bytes : std::vector<uint8_t>();
    if (pSession != nullptr)
    {
        pSession->lastSeen = Clock::now();
        event.session = pSession->id;
        event.client = pSession->client;
    }
    decide(direction, pSession, std::move(bytes), event);
    if (m_options.onEvent)
    {
        event.data = seen.data();
        event.size = seen.size();
        m_options.onEvent(event);
    }
}

void ImpairmentRelay::decide(RelayDirection direction, Session* pSession,
                             std::vector<uint8_t> bytes, RelayEvent& event)
{
    const std::size_t i = index(direction);
    std::mt19937& generator = m_generator[i];
    std::lock_guard<std::mutex> lock(m_mutex);
    RelayCounts& counts = m_counts[i];
    const Impairment& impairment = m_impairment[i];
    ++counts.received;
    if (pSession == nullptr || isBlocked(direction) || roll(generator, impairment.dropRate))
    {
        ++counts.dropped;
        event.dropped = true;
        return;
    }

    const bool isCon = direction == RelayDirection::ClientToServer && bytes.size() >= 4 &&
                       std::memcmp(bytes.data() + 1, "CON", 3) == 0;
    Datagram datagram{direction,    pSession,
                      isCon,        roll(generator, impairment.duplicateRate),
                      Clock::now(), std::move(bytes)};
    event.duplicated = datagram.duplicate;
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
        event.delay = extra;
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
        event.held = true;
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
    if (m_options.idleTimeout.count() > 0 && !m_sessions.empty())
    {
        wake = wake ? std::min(*wake, m_nextIdleCheck) : m_nextIdleCheck;
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
    RelayEndpoint to = session.client;
    int family = m_options.listen.family();
    if (datagram.direction == RelayDirection::ClientToServer)
    {
        socket = session.socket;
        const bool toListener = datagram.isCon || session.serverPort == 0;
        to = m_options.target;
        to.port = toListener ? m_options.target.port : session.serverPort;
        family = m_options.target.family();
    }
    sockaddr_storage destination{};
    const socklen_t destinationLength = to.toSocketAddress(family, destination);

    std::lock_guard<std::mutex> lock(m_mutex);
    RelayCounts& counts = m_counts[index(datagram.direction)];
    const auto sendOnce = [&]
    {
        return ::sendto(socket, datagram.bytes.data(), datagram.bytes.size(), 0,
                        reinterpret_cast<const sockaddr*>(&destination),
                        destinationLength) == static_cast<ssize_t>(datagram.bytes.size());
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
