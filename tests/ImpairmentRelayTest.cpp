#include "support/ImpairmentRelay.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
constexpr auto WAIT = 5000ms;
constexpr auto C2S = RelayDirection::ClientToServer;
constexpr auto S2C = RelayDirection::ServerToClient;

struct Datagram
{
    std::string bytes;
    uint16_t from;
};

// A plain UDP socket on 127.0.0.1 playing a client or a server.
class Peer
{
public:
    Peer() : m_fd(::socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(local);
        EXPECT_EQ(::bind(m_fd, reinterpret_cast<sockaddr*>(&local), length), 0);
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length);
        m_port = ntohs(local.sin_port);
    }
    ~Peer() { ::close(m_fd); }
    uint16_t port() const { return m_port; }

    void send(uint16_t port, const std::string& bytes)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(port);
        EXPECT_EQ(::sendto(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to),
                           sizeof(to)),
                  static_cast<ssize_t>(bytes.size()));
    }

    // The next datagram within `timeout` (0: only one already waiting).
    std::optional<Datagram> receive(std::chrono::milliseconds timeout = WAIT)
    {
        pollfd entry{m_fd, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(timeout.count())) != 1)
        {
            return std::nullopt;
        }
        char buffer[2048];
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t size = ::recvfrom(m_fd, buffer, sizeof(buffer), 0,
                                        reinterpret_cast<sockaddr*>(&from), &length);
        return Datagram{std::string(buffer, static_cast<std::size_t>(std::max<ssize_t>(size, 0))),
                        ntohs(from.sin_port)};
    }

private:
    int m_fd;
    uint16_t m_port = 0;
};

// A client and a server with the relay between them; the server listens on
// its own port, the one the relay targets.
struct Path
{
    Peer client;
    Peer server;
    ImpairmentRelay relay;
    std::vector<std::string> arrived; // at the server, in order

    explicit Path(uint32_t seed) : relay(server.port(), seed) {}

    // Sends numbered datagrams client to server, in batches the socket
    // buffers hold, collecting what reaches the server.
    void pump(int first, int count)
    {
        const uint64_t before = relay.getCounts(C2S).received;
        for (int i = 0; i < count; ++i)
        {
            client.send(relay.getPort(), std::to_string(first + i));
            if ((i + 1) % 16 == 0 || i + 1 == count)
            {
                const uint64_t target = before + static_cast<uint64_t>(i) + 1;
                ASSERT_TRUE(
                    eventually([&] { return relay.getCounts(C2S).received == target; }, WAIT));
                drain(0ms);
            }
        }
    }

    void drain(std::chrono::milliseconds timeout)
    {
        while (auto datagram = server.receive(timeout))
        {
            arrived.push_back(datagram->bytes);
        }
    }

    // Waits until every received datagram was judged and sent, then for all
    // sent copies at the server.
    void settle()
    {
        ASSERT_TRUE(eventually(
            [&]
            {
                const RelayCounts counts = relay.getCounts(C2S);
                return counts.forwarded + counts.dropped == counts.received;
            },
            WAIT));
        const RelayCounts counts = relay.getCounts(C2S);
        while (arrived.size() < counts.forwarded + counts.duplicated)
        {
            const auto datagram = server.receive();
            ASSERT_TRUE(datagram) << arrived.size() << " of "
                                  << counts.forwarded + counts.duplicated;
            arrived.push_back(datagram->bytes);
        }
    }

    std::vector<std::string> numbers(int first, int count) const
    {
        std::vector<std::string> result;
        for (int i = first; i < first + count; ++i)
        {
            result.push_back(std::to_string(i));
        }
        return result;
    }
};

TEST(ImpairmentRelayTest, PassesDatagramsUnchangedBothWays)
{
    Path path(1);
    const std::string request("\x01"
                              "CMD\x07\x00\x00\x00"
                              "\x00\xff payload",
                              18);
    path.client.send(path.relay.getPort(), request);
    const auto atServer = path.server.receive();
    ASSERT_TRUE(atServer);
    EXPECT_EQ(atServer->bytes, request);

    const std::string answer(1400, '\xab');
    path.server.send(atServer->from, answer);
    const auto atClient = path.client.receive();
    ASSERT_TRUE(atClient);
    EXPECT_EQ(atClient->bytes, answer);
    EXPECT_EQ(atClient->from, path.relay.getPort());
    EXPECT_EQ(path.relay.getCounts(C2S).forwarded, 1u);
    EXPECT_EQ(path.relay.getCounts(S2C).forwarded, 1u);
}

TEST(ImpairmentRelayTest, FollowsTheServersNewPortWhileConsStillGoToTheListeningPort)
{
    Peer accepted;
    Path path(2);
    const std::string con("\x01"
                          "CON\0\0\0\0",
                          8);
    const std::string cmd("\x01"
                          "CMD\1\0\0\0",
                          8);
    path.client.send(path.relay.getPort(), cmd); // the server has not spoken yet
    path.client.send(path.relay.getPort(), con);
    const auto early = path.server.receive();
    const auto firstCon = path.server.receive();
    ASSERT_TRUE(early && firstCon);
    EXPECT_EQ(early->bytes, cmd);
    EXPECT_EQ(firstCon->bytes, con);

    accepted.send(firstCon->from, "\x01"
                                  "ACK");
    ASSERT_TRUE(path.client.receive());
    path.client.send(path.relay.getPort(), cmd);
    const auto followed = accepted.receive();
    ASSERT_TRUE(followed);
    EXPECT_EQ(followed->bytes, cmd);
    EXPECT_EQ(followed->from, firstCon->from);

    path.client.send(path.relay.getPort(), con);
    const auto secondCon = path.server.receive();
    ASSERT_TRUE(secondCon);
    EXPECT_EQ(secondCon->bytes, con);
    EXPECT_EQ(path.relay.getSessionCount(), 1u);
}

TEST(ImpairmentRelayTest, EachClientGetsItsOwnSession)
{
    Path path(3);
    Peer other;
    path.client.send(path.relay.getPort(), "first");
    other.send(path.relay.getPort(), "other");
    std::map<std::string, uint16_t> sources;
    for (int i = 0; i < 2; ++i)
    {
        const auto datagram = path.server.receive();
        ASSERT_TRUE(datagram);
        sources[datagram->bytes] = datagram->from;
    }
    EXPECT_NE(sources["first"], sources["other"]);
    path.server.send(sources["other"], "to other");
    path.server.send(sources["first"], "to first");
    EXPECT_EQ(other.receive().value_or(Datagram{}).bytes, "to other");
    EXPECT_EQ(path.client.receive().value_or(Datagram{}).bytes, "to first");
    EXPECT_EQ(path.relay.getSessionCount(), 2u);
}

TEST(ImpairmentRelayTest, DropRateOneDropsEverythingAndZeroNothing)
{
    Path path(4);
    path.relay.setImpairment(Impairment{.dropRate = 1.0});
    path.pump(0, 100);
    path.settle();
    EXPECT_EQ(path.relay.getCounts(C2S).dropped, 100u);
    EXPECT_TRUE(path.arrived.empty()) << path.arrived.size();

    path.relay.setImpairment(Impairment{.dropRate = 0.0});
    path.pump(100, 100);
    path.settle();
    EXPECT_EQ(path.arrived, path.numbers(100, 100));
    EXPECT_EQ(path.relay.getCounts(C2S).dropped, 100u);
}

// Duplicates, reorders and their counts with seed 42, twice, to show the
// same seed gives the same run.
TEST(ImpairmentRelayTest, DuplicatesAndReordersFollowTheirRatesRepeatably)
{
    std::vector<std::string> runs[2];
    for (auto& run : runs)
    {
        Path path(42);
        // Held datagrams wait for the next one, however slow the machine.
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
        uint64_t steps = 0;
        for (std::size_t i = 1; i < path.arrived.size(); ++i)
        {
            steps += std::stoi(path.arrived[i]) < std::stoi(path.arrived[i - 1]) ? 1 : 0;
        }
        EXPECT_EQ(steps, counts.reordered);
        run = path.arrived;
    }
    EXPECT_EQ(runs[0], runs[1]);
}

TEST(ImpairmentRelayTest, HeldDatagramSwapsWithTheNextOrLeavesAloneAfterItsHold)
{
    Path path(5);
    path.relay.setImpairment(C2S, Impairment{.reorderRate = 1.0, .reorderHold = 1h});
    path.pump(0, 4);
    path.settle();
    EXPECT_EQ(path.arrived, (std::vector<std::string>{"1", "0", "3", "2"}));

    path.relay.setImpairment(C2S, Impairment{.reorderRate = 1.0, .reorderHold = 1ms});
    path.pump(4, 1);
    path.settle();
    EXPECT_EQ(path.arrived.back(), "4");
}

TEST(ImpairmentRelayTest, DelayKeepsOrderWithoutJitterAndCountsEveryDatagram)
{
    Path path(6);
    path.relay.setImpairment(C2S, Impairment{.delay = 3ms});
    path.pump(0, 50);
    path.settle();
    EXPECT_EQ(path.arrived, path.numbers(0, 50));

    path.relay.setImpairment(C2S, Impairment{.jitter = 2ms});
    path.pump(50, 50);
    path.settle();
    std::sort(path.arrived.begin() + 50, path.arrived.end(),
              [](const std::string& a, const std::string& b)
              { return std::stoi(a) < std::stoi(b); });
    EXPECT_EQ(path.arrived, path.numbers(0, 100));
    EXPECT_GE(path.relay.getCounts(C2S).delayed, 50u);
}

TEST(ImpairmentRelayTest, SilenceAndBlackholeDropUntilSwitchedOff)
{
    Path path(7);
    path.client.send(path.relay.getPort(), "hello");
    const auto hello = path.server.receive();
    ASSERT_TRUE(hello);

    path.relay.setSilent(true);
    for (int i = 0; i < 3; ++i)
    {
        path.client.send(path.relay.getPort(), "lost");
        path.server.send(hello->from, "lost");
    }
    ASSERT_TRUE(eventually(
        [&] {
            return path.relay.getCounts(C2S).dropped == 3 && path.relay.getCounts(S2C).dropped == 3;
        },
        WAIT));
    EXPECT_FALSE(path.server.receive(0ms));
    EXPECT_FALSE(path.client.receive(0ms));

    path.relay.setSilent(false);
    path.relay.setImpairment(C2S, Impairment{.blackhole = true});
    path.client.send(path.relay.getPort(), "into the hole");
    path.server.send(hello->from, "back");
    EXPECT_EQ(path.client.receive().value_or(Datagram{}).bytes, "back");
    ASSERT_TRUE(eventually([&] { return path.relay.getCounts(C2S).dropped == 4; }, WAIT));
    EXPECT_FALSE(path.server.receive(0ms));
}

TEST(ImpairmentRelayTest, SettingsMayChangeWhileTrafficFlows)
{
    Path path(8);
    std::atomic<bool> done{false};
    std::thread changer(
        [&]
        {
            for (int i = 0; !done; ++i)
            {
                path.relay.setImpairment(Impairment{.dropRate = i % 2 == 0 ? 1.0 : 0.0});
                path.relay.setSilent(i % 3 == 0);
                (void)path.relay.getCounts(C2S);
            }
        });
    path.pump(0, 300);
    done = true;
    changer.join();
    path.settle();
    const RelayCounts counts = path.relay.getCounts(C2S);
    EXPECT_EQ(counts.forwarded + counts.dropped, 300u);
    EXPECT_EQ(path.arrived.size(), counts.forwarded);
}

TEST(ImpairmentRelayTest, StopDiscardsQueuedDatagramsAndEndsCleanly)
{
    Path path(9);
    path.relay.setImpairment(Impairment{.delay = 1h});
    path.pump(0, 3);
    EXPECT_EQ(path.relay.getCounts(C2S).delayed, 3u);
    path.relay.stop();
    path.relay.stop();
    EXPECT_EQ(path.relay.getCounts(C2S).forwarded, 0u);
    EXPECT_FALSE(path.server.receive(0ms));

    // Destroyed without stop, with a datagram queued and a session open.
    ImpairmentRelay unstopped(path.server.port(), 10);
    unstopped.setImpairment(Impairment{.delay = 1h});
    path.client.send(unstopped.getPort(), "queued");
    EXPECT_TRUE(eventually([&] { return unstopped.getCounts(C2S).delayed == 1; }, WAIT));
}

} // namespace
