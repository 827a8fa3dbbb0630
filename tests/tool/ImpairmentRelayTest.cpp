#include "ImpairmentRelay.h"
#include "support/RawUdpSocket.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
constexpr auto WAIT = 5000ms;
constexpr auto C2S = RelayDirection::ClientToServer;

struct Text
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
    Text receive(std::chrono::milliseconds timeout = WAIT)
    {
        const Datagram datagram = RawUdpSocket::receive(static_cast<int>(timeout.count()));
        return {std::string(datagram.bytes.begin(), datagram.bytes.end()), datagram.from};
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
                for (Text d = server.receive(0ms); !d.bytes.empty(); d = server.receive(0ms))
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
            const Text d = server.receive();
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
    path.client.send(path.relay.getPort(), cmd); // to the listening port while no other is known
    path.client.send(path.relay.getPort(), con);
    other.send(path.relay.getPort(), "other");
    EXPECT_EQ(path.server.receive().bytes, cmd);
    const Text firstCon = path.server.receive();
    EXPECT_EQ(firstCon.bytes, con);
    const Text fromOther = path.server.receive();
    EXPECT_EQ(fromOther.bytes, "other");
    EXPECT_NE(fromOther.from, firstCon.from);
    EXPECT_EQ(path.relay.getSessionCount(), 2u);

    const std::string answer(1400, '\xab');
    path.server.send(fromOther.from, "to other");
    accepted.send(firstCon.from, answer);
    EXPECT_EQ(other.receive().bytes, "to other");
    const Text atClient = path.client.receive();
    EXPECT_EQ(atClient.bytes, answer);
    EXPECT_EQ(atClient.from, path.relay.getPort());
    path.client.send(path.relay.getPort(), cmd);
    EXPECT_EQ(accepted.receive().bytes, cmd);
    path.client.send(path.relay.getPort(), con);
    EXPECT_EQ(path.server.receive().bytes, con);
}

// Each way of dropping everything, then the path with it switched off; then
// a delay, which keeps the order, a datagram held with none to follow, and
// the end, which discards what is queued.
TEST(ImpairmentRelayTest, EachWayOfDroppingDropsEverythingUntilOffAndADelayKeepsOrderUntilStop)
{
    Path path(3);
    const std::pair<const char*, std::function<void(bool)>> drops[] = {
        {"drop rate",
         [&](bool on) { path.relay.setImpairment(Impairment{.dropRate = on ? 1.0 : 0.0}); }},
        {"silence", [&](bool on) { path.relay.setSilent(on); }},
        {"blackhole", [&](bool on) { path.relay.setImpairment(C2S, Impairment{.blackhole = on}); }},
    };
    std::vector<int> expected;
    const auto arrive = [&](int first, int count)
    {
        const std::vector<int> more = numbers(first, count);
        expected.insert(expected.end(), more.begin(), more.end());
    };
    int next = 0;
    for (const auto& [name, set] : drops)
    {
        set(true);
        path.pump(next, 20);
        path.settle();
        EXPECT_EQ(path.arrived, expected) << name;
        set(false);
        path.pump(next + 20, 20);
        path.settle();
        arrive(next + 20, 20);
        EXPECT_EQ(path.arrived, expected) << name;
        next += 40;
    }
    EXPECT_EQ(path.relay.getCounts(C2S).dropped, 60u);

    path.relay.setImpairment(C2S, Impairment{.delay = 3ms});
    path.pump(next, 50);
    path.settle(); // so that the held one cannot overtake them
    path.relay.setImpairment(C2S, Impairment{.reorderRate = 1.0, .reorderHold = 1ms});
    path.pump(next + 50, 1);
    path.settle();
    arrive(next, 51);
    EXPECT_EQ(path.arrived, expected);
    EXPECT_EQ(path.relay.getCounts(C2S).delayed, 50u);
    path.relay.setImpairment(Impairment{.delay = 1h});
    path.pump(next + 51, 3);
    path.relay.stop();
    path.relay.stop();
    EXPECT_EQ(path.relay.getCounts(C2S).forwarded, 111u);
    // Destroyed without stop, with a datagram queued and a session open.
    ImpairmentRelay unstopped(path.server.port(), 8);
    unstopped.setImpairment(Impairment{.delay = 1h});
    path.client.send(unstopped.getPort(), "queued");
    EXPECT_TRUE(eventually([&] { return unstopped.getCounts(C2S).delayed == 1; }, WAIT));
}

// Run twice to show that the same seed gives the same run; each held
// datagram arrives just after a higher one.
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
        EXPECT_NEAR(static_cast<double>(counts.duplicated), 200, 50);
        EXPECT_NEAR(static_cast<double>(counts.reordered), 1000 * 0.1 / 1.1, 35);
        run = path.arrived;
        std::vector<int> steps;
        std::adjacent_difference(run.begin(), run.end(), std::back_inserter(steps));
        EXPECT_EQ(std::count_if(steps.begin() + 1, steps.end(), [](int step) { return step < 0; }),
                  static_cast<std::ptrdiff_t>(counts.reordered));
    }
    EXPECT_EQ(runs[0], runs[1]);
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

    Peer server;
    options.listen.port = 0;
    options.target.port = server.port();
    options.idleTimeout = 40ms;
    ImpairmentRelay relay(options);
    ASSERT_TRUE(relay.isOpen()) << relay.getError();
    for (const std::string text : {"first", "again"})
    {
        taken.send(relay.getPort(), text);
        EXPECT_EQ(server.receive().bytes, text);
        EXPECT_TRUE(eventually([&] { return relay.getSessionCount() == 0; }, WAIT));
    }
}
