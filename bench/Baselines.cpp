// Plain sockets doing the same work as weft with nothing in between: blocking
// calls, one thread per side, the same two-byte length framing over TCP. They
// show what this machine's loopback allows.
#include "Bench.h"

#include "support/RawUdpSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace bench
{

namespace
{

constexpr auto IDLE_LIMIT = std::chrono::milliseconds(300);

void setNoDelay(int fd)
{
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

int tcpListener(int backlog)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(fd, backlog) != 0)
    {
        if (fd >= 0)
        {
            ::close(fd);
        }
        return -1;
    }
    return fd;
}

// A connected pair of TCP sockets with no-delay on both: {client, server}.
bool tcpPair(int listener, int& client, int& server)
{
    client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(boundPort(listener));
    if (client < 0 ||
        ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    {
        if (client >= 0)
        {
            ::close(client);
        }
        return false;
    }
    server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (server < 0)
    {
        ::close(client);
        return false;
    }
    setNoDelay(client);
    setNoDelay(server);
    return true;
}

// Two UDP sockets on loopback, each connected to the other.
bool udpPair(int& a, int& b)
{
    a = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    b = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in any = loopbackAddress(0);
    if (a < 0 || b < 0 || ::bind(a, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0 ||
        ::bind(b, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0)
    {
        return false;
    }
    const sockaddr_in toA = loopbackAddress(boundPort(a));
    const sockaddr_in toB = loopbackAddress(boundPort(b));
    return ::connect(a, reinterpret_cast<const sockaddr*>(&toB), sizeof(toB)) == 0 &&
           ::connect(b, reinterpret_cast<const sockaddr*>(&toA), sizeof(toA)) == 0;
}

bool readFully(int fd, uint8_t* buffer, std::size_t size)
{
    std::size_t done = 0;
    while (done < size)
    {
        const ssize_t n = ::recv(fd, buffer + done, size - done, 0);
        if (n <= 0)
        {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool writeFully(int fd, const uint8_t* buffer, std::size_t size)
{
    std::size_t done = 0;
    while (done < size)
    {
        const ssize_t n = ::send(fd, buffer + done, size - done, MSG_NOSIGNAL);
        if (n <= 0)
        {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// A framed message: the two-byte little-endian length, then the body.
std::vector<uint8_t> framed(int size)
{
    std::vector<uint8_t> message(static_cast<std::size_t>(size) + 2, 'x');
    message[0] = static_cast<uint8_t>(size & 0xFF);
    message[1] = static_cast<uint8_t>((size >> 8) & 0xFF);
    return message;
}

// Reads one framed message; its body length, or -1 at the end of the stream.
int readFramed(int fd, uint8_t* buffer)
{
    uint8_t prefix[2];
    if (!readFully(fd, prefix, 2))
    {
        return -1;
    }
    const int length = prefix[0] | (prefix[1] << 8);
    return readFully(fd, buffer, static_cast<std::size_t>(length)) ? length : -1;
}

RunResult failed(const std::string& why)
{
    return RunResult{{}, false, why};
}

void closeAll(std::initializer_list<int> fds)
{
    for (const int fd : fds)
    {
        if (fd >= 0)
        {
            ::close(fd);
        }
    }
}

} // namespace

RunResult tcpPingPong(int rounds, int warmup, int messageSize)
{
    const int listener = tcpListener(1);
    int client = -1;
    int server = -1;
    if (listener < 0 || !tcpPair(listener, client, server))
    {
        closeAll({listener});
        return failed("TCP pair could not be set up");
    }
    std::thread echo(
        [server]
        {
            uint8_t buffer[65536 + 2];
            for (;;)
            {
                const int length = readFramed(server, buffer + 2);
                if (length < 0)
                {
                    return;
                }
                buffer[0] = static_cast<uint8_t>(length & 0xFF);
                buffer[1] = static_cast<uint8_t>((length >> 8) & 0xFF);
                if (!writeFully(server, buffer, static_cast<std::size_t>(length) + 2))
                {
                    return;
                }
            }
        });
    const std::vector<uint8_t> message = framed(messageSize);
    std::vector<uint8_t> answer(message.size());
    const auto roundTrip = [&](int, Clock::time_point& answered)
    {
        if (!writeFully(client, message.data(), message.size()) ||
            readFramed(client, answer.data()) != messageSize)
        {
            return std::string("TCP ping-pong broke off");
        }
        answered = Clock::now();
        return std::string();
    };
    const RunResult result = timeRoundTrips(rounds, warmup, roundTrip);
    ::shutdown(client, SHUT_RDWR);
    echo.join();
    closeAll({client, server, listener});
    return result;
}

RunResult udpPingPong(int rounds, int warmup, int messageSize)
{
    int client = -1;
    int server = -1;
    if (!udpPair(client, server))
    {
        closeAll({client, server});
        return failed("UDP pair could not be set up");
    }
    std::thread echo(
        [server]
        {
            uint8_t buffer[65536];
            for (;;)
            {
                const ssize_t n = ::recv(server, buffer, sizeof(buffer), 0);
                if (n <= 0 || ::send(server, buffer, static_cast<std::size_t>(n), 0) < 0)
                {
                    return;
                }
            }
        });
    std::vector<uint8_t> message(static_cast<std::size_t>(messageSize), 'x');
    std::vector<uint8_t> answer(message.size());
    const auto roundTrip = [&](int, Clock::time_point& answered)
    {
        // Loopback loses nothing at one datagram in flight.
        if (::send(client, message.data(), message.size(), 0) < 0 ||
            ::recv(client, answer.data(), answer.size(), 0) != messageSize)
        {
            return std::string("UDP ping-pong broke off");
        }
        answered = Clock::now();
        return std::string();
    };
    const RunResult result = timeRoundTrips(rounds, warmup, roundTrip);
    // Wakes the echo thread's receive.
    ::shutdown(server, SHUT_RDWR);
    echo.join();
    closeAll({client, server});
    return result;
}

RunResult tcpBlast(int messages, int messageSize)
{
    const int listener = tcpListener(1);
    int client = -1;
    int server = -1;
    if (listener < 0 || !tcpPair(listener, client, server))
    {
        closeAll({listener});
        return failed("TCP pair could not be set up");
    }
    std::atomic<int> received{0};
    Clock::time_point last;
    std::thread reader(
        [&, client]
        {
            std::vector<uint8_t> buffer(65536);
            while (received.load() < messages && readFramed(client, buffer.data()) >= 0)
            {
                last = Clock::now();
                received.fetch_add(1);
            }
        });
    const std::vector<uint8_t> message = framed(messageSize);
    const double cpuBefore = processCpuUs();
    const double switchesBefore = contextSwitches();
    const Clock::time_point start = Clock::now();
    RunResult result;
    for (int i = 0; i < messages; ++i)
    {
        if (!writeFully(server, message.data(), message.size()))
        {
            result = failed("TCP blaster broke off");
            break;
        }
    }
    ::shutdown(server, SHUT_WR);
    reader.join();
    const double cpuUs = processCpuUs() - cpuBefore;
    const double switches = contextSwitches() - switchesBefore;
    closeAll({client, server, listener});
    const int count = received.load();
    const double seconds = elapsedUs(start, last) / 1e6;
    result.figures = pushFigures(messages, count, messageSize, seconds, cpuUs, switches);
    return result;
}

RunResult udpBlast(int messages, int messageSize)
{
    int sender = -1;
    int receiver = -1;
    if (!udpPair(sender, receiver))
    {
        closeAll({sender, receiver});
        return failed("UDP pair could not be set up");
    }
    std::atomic<int> received{0};
    std::atomic<Clock::rep> last{0};
    std::thread reader(
        [&, receiver]
        {
            std::vector<uint8_t> buffer(65536);
            while (received.load() < messages &&
                   ::recv(receiver, buffer.data(), buffer.size(), 0) > 0)
            {
                last = Clock::now().time_since_epoch().count();
                received.fetch_add(1);
            }
        });
    const std::vector<uint8_t> message(static_cast<std::size_t>(messageSize), 'x');
    const double cpuBefore = processCpuUs();
    const double switchesBefore = contextSwitches();
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < messages; ++i)
    {
        ::send(sender, message.data(), message.size(), 0);
    }
    // What has not arrived once the receiver has been idle a while is lost.
    int seen = -1;
    Clock::time_point progress = Clock::now();
    while (received.load() < messages)
    {
        if (received.load() != seen)
        {
            seen = received.load();
            progress = Clock::now();
        }
        else if (Clock::now() - progress > IDLE_LIMIT)
        {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ::shutdown(receiver, SHUT_RDWR);
    reader.join();
    const double cpuUs = processCpuUs() - cpuBefore;
    const double switches = contextSwitches() - switchesBefore;
    closeAll({sender, receiver});
    const int count = received.load();
    const double seconds = elapsedUs(start, Clock::time_point(Clock::duration(last.load()))) / 1e6;
    RunResult result;
    result.figures = pushFigures(messages, count, messageSize, seconds, cpuUs, switches);
    return result;
}

RunResult plainTcpScale(int connections)
{
    const long rssBefore = residentKb();
    const long threadsBefore = threadCount();
    const int listener = tcpListener(connections);
    if (listener < 0)
    {
        return failed("TCP listener could not be set up");
    }
    std::vector<int> clients;
    std::vector<int> servers;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < connections; ++i)
    {
        int client = -1;
        int server = -1;
        if (!tcpPair(listener, client, server))
        {
            break;
        }
        clients.push_back(client);
        servers.push_back(server);
    }
    const double connectMs = elapsedUs(start, Clock::now()) / 1e3;
    const long rssAfter = residentKb();
    const long threadsAfter = threadCount();
    const std::vector<uint8_t> message = framed(LATENCY_MESSAGE_SIZE);
    const Clock::time_point sendStart = Clock::now();
    int delivered = 0;
    for (std::size_t i = 0; i < servers.size(); ++i)
    {
        uint8_t buffer[LATENCY_MESSAGE_SIZE];
        if (writeFully(servers[i], message.data(), message.size()) &&
            readFramed(clients[i], buffer) == LATENCY_MESSAGE_SIZE)
        {
            ++delivered;
        }
    }
    const double deliverMs = elapsedUs(sendStart, Clock::now()) / 1e3;
    for (std::size_t i = 0; i < servers.size(); ++i)
    {
        closeAll({clients[i], servers[i]});
    }
    closeAll({listener});
    RunResult result;
    result.figures =
        scaleFigures(connections, static_cast<double>(clients.size()), connectMs,
                     rssAfter - rssBefore, threadsAfter - threadsBefore, delivered, deliverMs);
    requireDelivered(result, delivered, connections);
    return result;
}

RunResult plainUdpScale(int connections)
{
    const long rssBefore = residentKb();
    const long threadsBefore = threadCount();
    std::vector<std::pair<int, int>> pairs;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < connections; ++i)
    {
        int a = -1;
        int b = -1;
        if (!udpPair(a, b))
        {
            closeAll({a, b});
            break;
        }
        pairs.emplace_back(a, b);
    }
    const double connectMs = elapsedUs(start, Clock::now()) / 1e3;
    const long rssAfter = residentKb();
    const long threadsAfter = threadCount();
    const std::vector<uint8_t> message(LATENCY_MESSAGE_SIZE, 'x');
    const Clock::time_point sendStart = Clock::now();
    int delivered = 0;
    for (const auto& [a, b] : pairs)
    {
        uint8_t buffer[LATENCY_MESSAGE_SIZE];
        if (::send(a, message.data(), message.size(), 0) == LATENCY_MESSAGE_SIZE &&
            ::recv(b, buffer, sizeof(buffer), 0) == LATENCY_MESSAGE_SIZE)
        {
            ++delivered;
        }
    }
    const double deliverMs = elapsedUs(sendStart, Clock::now()) / 1e3;
    for (const auto& [a, b] : pairs)
    {
        closeAll({a, b});
    }
    RunResult result;
    result.figures =
        scaleFigures(connections, static_cast<double>(pairs.size()), connectMs,
                     rssAfter - rssBefore, threadsAfter - threadsBefore, delivered, deliverMs);
    requireDelivered(result, delivered, connections);
    return result;
}

} // namespace bench
