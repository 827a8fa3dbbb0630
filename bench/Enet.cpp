// ENet as the reliable-UDP library a user might otherwise pick: the same
// round trips and pushes over its reliable and unreliable (sequenced)
// channels, with default settings. Left out when ENet was not found at build
// time.
#include "Bench.h"

#ifdef WEFT_BENCH_HAVE_ENET

#include <enet/enet.h>

#include <atomic>
#include <thread>
#include <vector>

namespace bench
{

namespace
{

constexpr enet_uint32 CONNECT_LIMIT_MS = 5000;
constexpr auto REALTIME_IDLE_LIMIT = std::chrono::milliseconds(300);
constexpr auto RELIABLE_IDLE_LIMIT = std::chrono::milliseconds(2000);

bool initialise()
{
    static const bool ok = enet_initialize() == 0;
    return ok;
}

// A host on a free loopback port, or a client host with no port of its own.
ENetHost* createHost(bool server)
{
    ENetAddress address{};
    enet_address_set_host(&address, "127.0.0.1");
    address.port = 0;
    return enet_host_create(server ? &address : nullptr, 1, 1, 0, 0);
}

uint16_t portOf(ENetHost* host)
{
    ENetAddress address{};
    enet_socket_get_address(host->socket, &address);
    return address.port;
}

// Connects `client` to `port` and waits for the connection; the server's
// host is serviced on a thread of its own meanwhile.
ENetPeer* connectClient(ENetHost* client, uint16_t port)
{
    ENetAddress address{};
    enet_address_set_host(&address, "127.0.0.1");
    address.port = port;
    ENetPeer* peer = enet_host_connect(client, &address, 1, 0);
    if (peer == nullptr)
    {
        return nullptr;
    }
    ENetEvent event;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(CONNECT_LIMIT_MS);
    while (Clock::now() < deadline)
    {
        if (enet_host_service(client, &event, 10) > 0 && event.type == ENET_EVENT_TYPE_CONNECT)
        {
            return peer;
        }
    }
    return nullptr;
}

enet_uint32 flagsFor(bool reliable)
{
    // Unreliable packets on a channel are sequenced: late ones are dropped,
    // as in EUDP's real-time mode.
    return reliable ? ENET_PACKET_FLAG_RELIABLE : 0;
}

} // namespace

bool enetAvailable()
{
    return initialise();
}

RunResult enetPingPong(bool reliable, int rounds, int warmup, int messageSize)
{
    ENetHost* server = createHost(true);
    ENetHost* client = createHost(false);
    if (server == nullptr || client == nullptr)
    {
        return RunResult{{}, false, "ENet hosts could not be created"};
    }
    const uint16_t port = portOf(server);
    std::atomic<bool> stop{false};
    std::thread echo(
        [&]
        {
            ENetEvent event;
            while (!stop.load())
            {
                if (enet_host_service(server, &event, 5) <= 0)
                {
                    continue;
                }
                if (event.type == ENET_EVENT_TYPE_RECEIVE)
                {
                    ENetPacket* answer = enet_packet_create(
                        event.packet->data, event.packet->dataLength, flagsFor(reliable));
                    enet_peer_send(event.peer, 0, answer);
                    enet_host_flush(server);
                    enet_packet_destroy(event.packet);
                }
            }
        });
    ENetPeer* peer = connectClient(client, port);
    const std::vector<uint8_t> message(static_cast<std::size_t>(messageSize), 'x');
    const auto roundTrip = [&](int, Clock::time_point& answered)
    {
        enet_peer_send(peer, 0,
                       enet_packet_create(message.data(), message.size(), flagsFor(reliable)));
        enet_host_flush(client);
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
        ENetEvent event;
        while (Clock::now() < deadline)
        {
            if (enet_host_service(client, &event, 100) > 0 && event.type == ENET_EVENT_TYPE_RECEIVE)
            {
                answered = Clock::now();
                enet_packet_destroy(event.packet);
                return std::string();
            }
        }
        return std::string("ENet answer missing");
    };
    const RunResult result = peer == nullptr ? RunResult{{}, false, "ENet connect failed"}
                                             : timeRoundTrips(rounds, warmup, roundTrip);
    stop = true;
    echo.join();
    enet_host_destroy(client);
    enet_host_destroy(server);
    return result;
}

RunResult enetBlast(bool reliable, int messages, int messageSize)
{
    RunResult result;
    ENetHost* server = createHost(true);
    ENetHost* client = createHost(false);
    if (server == nullptr || client == nullptr)
    {
        return RunResult{{}, false, "ENet hosts could not be created"};
    }
    const uint16_t port = portOf(server);
    std::atomic<bool> stop{false};
    std::atomic<int> received{0};
    std::atomic<Clock::rep> last{0};
    std::atomic<Clock::rep> start{0};
    // The server pushes as soon as the client is there, and keeps serving
    // (repeats, acknowledgements) until the receiver is done.
    std::thread pusher(
        [&]
        {
            ENetEvent event;
            ENetPeer* target = nullptr;
            while (!stop.load() && target == nullptr)
            {
                if (enet_host_service(server, &event, 5) > 0 &&
                    event.type == ENET_EVENT_TYPE_CONNECT)
                {
                    target = event.peer;
                }
            }
            const std::vector<uint8_t> message(static_cast<std::size_t>(messageSize), 'x');
            start = Clock::now().time_since_epoch().count();
            for (int i = 0; target != nullptr && i < messages && !stop.load(); ++i)
            {
                enet_peer_send(
                    target, 0,
                    enet_packet_create(message.data(), message.size(), flagsFor(reliable)));
                // Sends what the window allows and takes in acknowledgements.
                while (enet_host_service(server, &event, 0) > 0)
                {
                }
            }
            while (!stop.load())
            {
                enet_host_service(server, &event, 1);
            }
        });
    ENetPeer* peer = connectClient(client, port);
    const double cpuBefore = processCpuUs();
    const double switchesBefore = contextSwitches();
    if (peer != nullptr)
    {
        const auto idleLimit = reliable ? RELIABLE_IDLE_LIMIT : REALTIME_IDLE_LIMIT;
        Clock::time_point progress = Clock::now();
        ENetEvent event;
        while (received.load() < messages && Clock::now() - progress < idleLimit)
        {
            if (enet_host_service(client, &event, 1) > 0 && event.type == ENET_EVENT_TYPE_RECEIVE)
            {
                last = Clock::now().time_since_epoch().count();
                progress = Clock::now();
                received.fetch_add(1);
                enet_packet_destroy(event.packet);
            }
        }
    }
    else
    {
        result = RunResult{{}, false, "ENet connect failed"};
    }
    const double cpuUs = processCpuUs() - cpuBefore;
    const double switches = contextSwitches() - switchesBefore;
    stop = true;
    pusher.join();
    enet_host_destroy(client);
    enet_host_destroy(server);
    const int count = received.load();
    const double seconds = elapsedUs(Clock::time_point(Clock::duration(start.load())),
                                     Clock::time_point(Clock::duration(last.load()))) /
                           1e6;
    result.figures = pushFigures(messages, count, messageSize, seconds, cpuUs, switches);
    if (result.ok && reliable && count != messages)
    {
        result.ok = false;
        result.failure = "ENet delivered " + std::to_string(count) + " of " +
                         std::to_string(messages) + " reliable messages";
    }
    return result;
}

} // namespace bench

#else

namespace bench
{

bool enetAvailable()
{
    return false;
}

RunResult enetPingPong(bool, int, int, int)
{
    return RunResult{{}, false, "ENet not built in"};
}

RunResult enetBlast(bool, int, int)
{
    return RunResult{{}, false, "ENet not built in"};
}

} // namespace bench

#endif
