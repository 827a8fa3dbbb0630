#include "TcpRelay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace
{

// Bytes read per call.
constexpr std::size_t READ_SIZE = 65536;
// Bytes one direction may hold back (delayed, or waiting for a slow
// reader) before the relay stops reading its source: the source then feels
// the slow reader, as it would without the relay.
constexpr std::size_t MAX_QUEUED = 1024 * 1024;
constexpr int LISTEN_BACKLOG = 16;

std::size_t index(RelayDirection direction)
{
    return direction == RelayDirection::ClientToServer ? 0 : 1;
}

void setNoDelay(int fd)
{
    // Weft messages are small and each is meant to leave at once.
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

} // namespace

TcpRelay::TcpRelay(TcpRelayOptions options) : m_options(std::move(options))
{
    if (open())
    {
        m_thread = std::thread([this] { run(); });
    }
}

TcpRelay::~TcpRelay()
{
    stop();
}

bool TcpRelay::open()
{
    const int fd = makeRelaySocket(SOCK_STREAM, m_options.listen, m_options.dualStack);
    if (fd < 0 || ::listen(fd, LISTEN_BACKLOG) != 0 ||
        ::pipe2(m_wakePipe, O_NONBLOCK | O_CLOEXEC) != 0)
    {
        m_error = "cannot listen on TCP " + m_options.listen.text() + ": " + std::strerror(errno);
        if (fd >= 0)
        {
            ::close(fd);
        }
        return false;
    }
    m_port = RelayEndpoint::boundPort(fd);
    m_socket = fd;
    return true;
}

uint64_t TcpRelay::getBytes(RelayDirection direction) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytes[index(direction)];
}

void TcpRelay::stop()
{
    std::lock_guard<std::mutex> stopLock(m_stopMutex);
    if (!m_thread.joinable())
    {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    const char wake = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wakePipe[1], &wake, 1);
    m_thread.join();
    for (auto& entry : m_connections)
    {
        ::close(entry.second->clientFd);
        ::close(entry.second->serverFd);
    }
    m_connections.clear();
    ::close(m_socket);
    ::close(m_wakePipe[0]);
    ::close(m_wakePipe[1]);
}

void TcpRelay::emit(const TcpRelayEvent& event)
{
    if (m_options.onEvent)
    {
        m_options.onEvent(event);
    }
}

void TcpRelay::run()
{
    std::vector<pollfd> fds;
    std::vector<Connection*> owners;
    for (;;)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping)
            {
                return;
            }
        }
        fds.clear();
        owners.clear();
        fds.push_back({m_wakePipe[0], POLLIN, 0});
        fds.push_back({m_socket, POLLIN, 0});
        std::optional<Clock::time_point> wake;
        for (auto& entry : m_connections)
        {
            Connection& connection = *entry.second;
            Flow& up = connection.flows[0];
            Flow& down = connection.flows[1];
            // A source is read while its direction has room; a destination is
            // watched when its buffer was full, or while connecting.
            const auto events = [](const Flow& in, const Flow& out)
            {
                return static_cast<short>((!in.readEnded && in.queued < MAX_QUEUED ? POLLIN : 0) |
                                          (out.blocked ? POLLOUT : 0));
            };
            // A socket with nothing to watch is left out, so that the hang-up
            // of a side that has said all it will does not wake the loop.
            const auto watch = [&](int fd, short wanted) {
                fds.push_back({wanted != 0 ? fd : -1, wanted, 0});
            };
            watch(connection.clientFd, events(up, down));
            watch(connection.serverFd,
                  connection.connecting ? static_cast<short>(POLLOUT) : events(down, up));
            owners.push_back(&connection);
            for (const Flow& flow : connection.flows)
            {
                if (!connection.connecting && !flow.chunks.empty() && !flow.blocked &&
                    (!wake || flow.chunks.front().due < *wake))
                {
                    wake = flow.chunks.front().due;
                }
            }
        }
        int timeoutMs = -1;
        if (wake)
        {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(*wake - Clock::now()).count();
            timeoutMs = static_cast<int>(std::max<long long>(0, left));
        }
        if (::poll(fds.data(), fds.size(), timeoutMs) < 0)
        {
            continue; // a signal: look again
        }
        if (fds[0].revents != 0)
        {
            char drained[16];
            while (::read(m_wakePipe[0], drained, sizeof(drained)) > 0)
            {
            }
        }
        if (fds[1].revents != 0)
        {
            acceptAll();
        }
        const auto now = Clock::now();
        for (std::size_t i = 0; i < owners.size(); ++i)
        {
            std::string reason;
            if (!service(*owners[i], fds[2 + 2 * i].revents, fds[3 + 2 * i].revents, now, reason))
            {
                close(*owners[i], reason);
            }
        }
    }
}

void TcpRelay::acceptAll()
{
    for (;;)
    {
        sockaddr_storage peer{};
        socklen_t length = sizeof(peer);
        const int client = ::accept4(m_socket, reinterpret_cast<sockaddr*>(&peer), &length,
                                     SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client < 0)
        {
            return; // none left, or out of descriptors: the next wake-up tries again
        }
        auto connection = std::make_unique<Connection>();
        connection->id = ++m_lastId;
        connection->client = RelayEndpoint::from(peer).value_or(RelayEndpoint());
        connection->clientFd = client;
        setNoDelay(client);
        TcpRelayEvent opened;
        opened.kind = TcpRelayEvent::OPENED;
        opened.connection = connection->id;
        opened.client = connection->client;
        emit(opened);

        const int family = m_options.target.family();
        const int server = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_storage target{};
        const socklen_t targetLength = m_options.target.toSocketAddress(family, target);
        connection->serverFd = server;
        if (server < 0 ||
            (::connect(server, reinterpret_cast<const sockaddr*>(&target), targetLength) != 0 &&
             errno != EINPROGRESS))
        {
            close(*connection,
                  std::string("cannot connect to the target: ") + std::strerror(errno));
            continue;
        }
        setNoDelay(server);
        m_connections.emplace(connection->id, std::move(connection));
    }
}

bool TcpRelay::service(Connection& connection, short clientEvents, short serverEvents,
                       Clock::time_point now, std::string& reason)
{
    if (connection.connecting && serverEvents != 0)
    {
        int error = 0;
        socklen_t length = sizeof(error);
        ::getsockopt(connection.serverFd, SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0)
        {
            reason = std::string("cannot connect to the target: ") + std::strerror(error);
            return false;
        }
        connection.connecting = false;
        serverEvents = 0;
    }
    const auto readable = [](short events) { return (events & (POLLIN | POLLHUP | POLLERR)) != 0; };
    if ((readable(clientEvents) && !readInto(connection, RelayDirection::ClientToServer, reason)) ||
        (readable(serverEvents) && !readInto(connection, RelayDirection::ServerToClient, reason)))
    {
        return false;
    }
    if (!connection.connecting &&
        (!flush(connection, RelayDirection::ClientToServer, now, reason) ||
         !flush(connection, RelayDirection::ServerToClient, now, reason)))
    {
        return false;
    }
    // Over once both ends were passed on.
    return !(connection.flows[0].writeEnded && connection.flows[1].writeEnded);
}

bool TcpRelay::readInto(Connection& connection, RelayDirection direction, std::string& reason)
{
    Flow& flow = connection.flows[index(direction)];
    if (flow.readEnded)
    {
        return true;
    }
    const int from =
        direction == RelayDirection::ClientToServer ? connection.clientFd : connection.serverFd;
    std::vector<uint8_t> bytes(READ_SIZE);
    const ssize_t n = ::recv(from, bytes.data(), bytes.size(), 0);
    if (n < 0)
    {
        if (errno == EAGAIN || errno == EINTR)
        {
            return true;
        }
        reason = std::string(direction == RelayDirection::ClientToServer ? "client" : "server") +
                 ": " + std::strerror(errno);
        return false;
    }
    bytes.resize(static_cast<std::size_t>(n));
    if (n > 0)
    {
        TcpRelayEvent data;
        data.connection = connection.id;
        data.client = connection.client;
        data.direction = direction;
        data.data = bytes.data();
        data.size = bytes.size();
        emit(data);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bytes[index(direction)] += static_cast<uint64_t>(n);
    }
    flow.readEnded = n == 0;
    flow.queued += bytes.size();
    flow.chunks.push_back(Chunk{Clock::now() + m_options.delay, std::move(bytes)});
    return true;
}

bool TcpRelay::flush(Connection& connection, RelayDirection direction, Clock::time_point now,
                     std::string& reason)
{
    Flow& flow = connection.flows[index(direction)];
    const int to =
        direction == RelayDirection::ClientToServer ? connection.serverFd : connection.clientFd;
    flow.blocked = false;
    while (!flow.chunks.empty() && flow.chunks.front().due <= now)
    {
        Chunk& chunk = flow.chunks.front();
        if (chunk.bytes.empty())
        {
            ::shutdown(to, SHUT_WR);
            flow.writeEnded = true;
            flow.chunks.pop_front();
            continue;
        }
        const ssize_t n = ::send(to, chunk.bytes.data() + chunk.written,
                                 chunk.bytes.size() - chunk.written, MSG_NOSIGNAL);
        if (n < 0)
        {
            if (errno == EAGAIN || errno == EINTR)
            {
                flow.blocked = true;
                return true;
            }
            reason =
                std::string(direction == RelayDirection::ClientToServer ? "server" : "client") +
                ": " + std::strerror(errno);
            return false;
        }
        chunk.written += static_cast<std::size_t>(n);
        if (chunk.written == chunk.bytes.size())
        {
            flow.queued -= chunk.bytes.size();
            flow.chunks.pop_front();
        }
    }
    return true;
}

void TcpRelay::close(Connection& connection, const std::string& reason)
{
    TcpRelayEvent closed;
    closed.kind = TcpRelayEvent::CLOSED;
    closed.connection = connection.id;
    closed.client = connection.client;
    closed.reason = reason;
    emit(closed);
    ::close(connection.clientFd);
    if (connection.serverFd >= 0)
    {
        ::close(connection.serverFd);
    }
    m_connections.erase(connection.id);
}
