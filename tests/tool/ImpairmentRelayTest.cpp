#include "ImpairmentRelay.h"
#include "support/RawUdpSocket.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
constexpr auto WAIT = 5000ms;
constexpr auto C2S = RelayDirection::ClientToServer;

struct Datagram
{
    std::string bytes;
    uint16_t from = 0;
};

// A plain UDP socket on 127.0.0.1 playing a client or a server.
struct Peer : RawUdpSocket
{
    Peer() { EXPECT_TRUE(isBound()); }

    void send(uint16_t to, const std::string& bytes)
    {
        EXPECT_EQ(RawUdpSocket::send(to, bytes), static_cast<ssize_t>(bytes.size()));
    }

    // The next datagram within `timeout` (0: only one already waiting), or
    // an empty one.
    Datagram receive(std::chrono::milliseconds timeout = WAIT)
    {
        pollfd entry{m_fd, POLLIN, 0};
        char buffer[2048];
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        if (::poll(&entry, 1, static_cast<int>(timeout.count())) != 1)
        {
            return {};
        }
        const ssize_t size = ::recvfrom(m_fd, buffer, sizeof(buffer), 0,
                                        reinterpret_cast<sockaddr*>(&from), &length);
        return {std::string(buffer, static_cast<std::size_t>(std::max<ssize_t>(size, 0))),
                ntohs(from.sin_port)};
    }
};

std::vector<int> numbers(int first, int count)
{
    std::vector<int> result(static_cast<std::size_t>(count));
    std::iota(result.begin(), result.end(), first);
    return result;
}

// A client and a server (listening on the port the relay targets) with the
// relay between them, and the numbers that reached the server, in order.
struct Path
{
    Peer client;
    Peer server;
    ImpairmentRelay relay;
    std::vector<int> arrived;

    explicit Path(uint32_t seed) : relay(server.port(), seed) {}

    // Sends numbered datagrams to the server, in batches that the socket
    // buffers hold.
    void pump(int first, int count)
    {
        const uint64_t before = relay.getCounts(C2S).received;
        for (int i = 1; i <= count; ++i)
        {
            client.send(relay.getPort(), std::to_string(first + i - 1));
            const uint64_t target = before + static_cast<uint64_t>(i);
            if (i % 16 == 0 || i == count)
            {
                ASSERT_TRUE(
                    eventually([&] { return relay.getCounts(C2S).received == target; }, WAIT));
                for (Datagram d = server.receive(0ms); !d.bytes.empty(); d = server.receive(0ms))
                {
                    arrived.push_back(std::stoi(d.bytes));
                }
            }
        }
    }

    // Waits until every datagram was judged and sent, and every copy arrived.
    void settle()
    {
        RelayCounts counts;
        ASSERT_TRUE(eventually(
            [&]
            {
                counts = relay.getCounts(C2S);
                return counts.forwarded + counts.dropped == counts.received;
            },
            WAIT));
        while (arrived.size() < counts.forwarded + counts.duplicated)
        {
            const Datagram d = server.receive();
            ASSERT_FALSE(d.bytes.empty()) << arrived.size() << " of " << counts.forwarded;
            arrived.push_back(std::stoi(d.bytes));
        }
    }
};

// One session per client; the server's answers come back from the relay's
// port, and once the server answers from a new port (an EUDP accept) the
// session follows it, while CONs still go to the listening port.
TEST(ImpairmentRelayTest, CarriesBytesUnchangedInOneSessionPerClientThatFollowsTheServersNewPort)
{
    Path path(1);
    Peer other;
    Peer accepted;
    const std::string con("\x01"
                          "CON\0\0\0\0\xff payload",
                          18);
    const std::string cmd("\x01"
                          "CMD\1\0\0\0",
                          8);
    path.client.send(path.relay.getPort(), cmd);
    path.client.send(path.relay.getPort(), con);
    other.send(path.relay.getPort(), "other");
    EXPECT_EQ(path.server.receive().bytes, cmd);
    const Datagram firstCon = path.server.receive();
    EXPECT_EQ(firstCon.bytes, con);
    const Datagram fromOther = path.server.receive();
    EXPECT_EQ(fromOther.bytes, "other");
    EXPECT_NE(fromOther.from, firstCon.from);
    EXPECT_EQ(path.relay.getSessionCount(), 2u);

    const std::string answer(1400, '\xab');
    path.server.send(fromOther.from, "to other");
    accepted.send(firstCon.from, answer);
    EXPECT_EQ(other.receive().bytes, "to other");
    const Datagram atClient = path.client.receive();
    EXPECT_EQ(atClient.bytes, answer);
    EXPECT_EQ(atClient.from, path.relay.getPort());
    path.client.send(path.relay.getPort(), cmd);
    EXPECT_EQ(accepted.receive().bytes, cmd);
    path.client.send(path.relay.getPort(), con);
    EXPECT_EQ(path.server.receive().bytes, con);
}

// Each way of dropping everything, then the same path with it switched off.
TEST(ImpairmentRelayTest, DropRateSilenceAndBlackholeDropEverythingUntilSwitchedOff)
{
    const std::pair<const char*, std::function<void(ImpairmentRelay&, bool)>> cases[] = {
        {"drop rate", [](ImpairmentRelay& relay, bool on)
         { relay.setImpairment(Impairment{.dropRate = on ? 1.0 : 0.0}); }},
        {"silence", [](ImpairmentRelay& relay, bool on) { relay.setSilent(on); }},
        {"blackhole", [](ImpairmentRelay& relay, bool on)
         { relay.setImpairment(C2S, Impairment{.blackhole = on}); }},
    };
    for (const auto& [name, set] : cases)
    {
        Path path(3);
        set(path.relay, true);
        path.pump(0, 50);
        path.settle();
        EXPECT_EQ(path.relay.getCounts(C2S).dropped, 50u) << name;
        EXPECT_TRUE(path.arrived.empty()) << name << ": " << path.arrived.size();
        set(path.relay, false);
        path.pump(50, 50);
        path.settle();
        EXPECT_EQ(path.arrived, numbers(50, 50)) << name;
    }
}

// Run twice to show that the same seed gives the same run.
TEST(ImpairmentRelayTest, DuplicatesAndReordersFollowTheirRatesRepeatably)
{
    std::vector<int> runs[2];
    for (auto& run : runs)
    {
        Path path(42);
        // A held datagram waits for the next one however slow the machine.
        path.relay.setImpairment(
            C2S, Impairment{.duplicateRate = 0.2, .reorderRate = 0.1, .reorderHold = 1h});
        path.pump(0, 1000);
        path.relay.setImpairment(C2S, Impairment{});
        path.pump(1000, 1); // releases one still held
        path.settle();

        const RelayCounts counts = path.relay.getCounts(C2S);
        EXPECT_EQ(counts.forwarded, 1001u);
        EXPECT_NEAR(static_cast<double>(counts.duplicated), 200, 50);
        EXPECT_NEAR(static_cast<double>(counts.reordered), 1000 * 0.1 / 1.1, 35);
        uint64_t steps = 0; // each held datagram arrives just after a higher one
        for (std::size_t i = 1; i < path.arrived.size(); ++i)
        {
            steps += path.arrived[i] < path.arrived[i - 1] ? 1 : 0;
        }
        EXPECT_EQ(steps, counts.reordered);
        run = path.arrived;
    }
    EXPECT_EQ(runs[0], runs[1]);
}

TEST(ImpairmentRelayTest, DelayKeepsOrderAHeldDatagramLeavesAloneAndStopDiscardsTheQueue)
{
    Path path(4);
    path.relay.setImpairment(C2S, Impairment{.delay = 3ms});
    path.pump(0, 50);
    path.settle(); // so that the held one cannot overtake them
    path.relay.setImpairment(C2S, Impairment{.reorderRate = 1.0, .reorderHold = 1ms});
    path.pump(50, 1);
    path.settle();
    EXPECT_EQ(path.arrived, numbers(0, 51));
    EXPECT_EQ(path.relay.getCounts(C2S).delayed, 50u);
    EXPECT_EQ(path.relay.getCounts(C2S).reordered, 1u);

    path.relay.setImpairment(Impairment{.delay = 1h});
    path.pump(51, 3);
    path.relay.stop();
    path.relay.stop();
    EXPECT_EQ(path.relay.getCounts(C2S).forwarded, 51u);
    // Destroyed without stop, with a datagram queued and a session open.
    ImpairmentRelay unstopped(path.server.port(), 8);
    unstopped.setImpairment(Impairment{.delay = 1h});
    path.client.send(unstopped.getPort(), "queued");
    EXPECT_TRUE(eventually([&] { return unstopped.getCounts(C2S).delayed == 1; }, WAIT));
}

} // namespace

TEST(ImpairmentRelayTest, ATakenPortIsRefusedAndAnIdleSessionIsForgottenAndReopened)
{
    Peer taken;
    RelayOptions options;
    options.listen.port = taken.port();
    ImpairmentRelay refused(options);
    EXPECT_FALSE(refused.isOpen());
    EXPECT_NE(refused.getError().find(std::to_string(taken.port())), std::string::npos)
        << refused.getError();

    Peer client;
    Peer server;
    std::mutex mutex;
    std::vector<std::string> events;
    options.listen.port = 0;
    options.target.port = server.port();
    options.idleTimeout = 40ms;
    options.onEvent = [&](const RelayEvent& event)
    {
        const char* kinds[] = {"opened", "closed", "datagram"};
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(kinds[event.kind] + std::to_string(event.session));
    };
    ImpairmentRelay relay(options);
    ASSERT_TRUE(relay.isOpen()) << relay.getError();
    client.send(relay.getPort(), "first");
    EXPECT_EQ(server.receive().bytes, "first");
    ASSERT_TRUE(eventually([&] { return relay.getSessionCount() == 0; }, WAIT));
    client.send(relay.getPort(), "again");
    EXPECT_EQ(server.receive().bytes, "again");
    relay.stop();
    const std::vector<std::string> expected{"opened1", "datagram1", "closed1", "opened2",
                                            "datagram2"};
    EXPECT_EQ(events, expected);
}
