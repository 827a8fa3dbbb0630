#include "ImpairmentRelay.h"
#include "support/EudpWire.h"
#include "support/RawUdpSocket.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using namespace std::string_literals;
constexpr auto WAIT = 5000ms;
constexpr auto C2S = RelayDirection::ClientToServer;
using eudpwire::Bytes;

std::string text(const RawUdpSocket::Datagram& datagram)
{
    return std::string(datagram.bytes.begin(), datagram.bytes.end());
}

// A client and a server (listening on the port the relay targets) with the
// relay between them, and the numbers that reached the server, in order.
struct Path
{
    RawUdpSocket client, server; // plain UDP sockets on 127.0.0.1
    ImpairmentRelay relay;
    std::vector<int> arrived;

    explicit Path(uint32_t seed) : relay(server.port(), seed) {}

    // Sends numbered datagrams, in batches that the socket buffers hold, then
    // waits until every one was judged and sent, and every copy arrived.
    void pump(int first, int count, bool settle = true)
    {
        const uint64_t before = relay.getCounts(C2S).received;
        for (int i = 1; i <= count; ++i)
        {
            client.send(relay.getPort(), std::to_string(first + i - 1));
            if (i % 16 == 0 || i == count)
            {
                ASSERT_TRUE(
                    eventually([&] { return relay.getCounts(C2S).received == before + i; }, WAIT));
                for (auto d = server.receive(0); !d.bytes.empty(); d = server.receive(0))
                {
                    arrived.push_back(std::stoi(text(d)));
                }
            }
        }
        if (!settle)
        {
            return;
        }
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
            const auto d = server.receive();
            ASSERT_FALSE(d.bytes.empty()) << arrived.size() << " of " << counts.forwarded;
            arrived.push_back(std::stoi(text(d)));
        }
    }
};

// One session per client; the server's answers come back from the relay's
// port, and once the server answers from a new port (an EUDP accept) the
// session follows it, while CONs still go to the listening port. A taken
// port is refused, and an idle session is forgotten and reopened.
TEST(ImpairmentRelayTest, SessionsCarryBytesUnchangedFollowTheServersNewPortAndExpireWhenIdle)
{
    Path path(1);
    RawUdpSocket other, accepted;
    const Bytes con = eudpwire::packet("CON", 0, "\xff payload"), cmd = eudpwire::packet("CMD", 1);
    path.client.send(path.relay.getPort(), cmd); // to the listening port while no other is known
    path.client.send(path.relay.getPort(), con);
    other.send(path.relay.getPort(), "other"s);
    EXPECT_EQ(path.server.receive().bytes, cmd);
    const auto firstCon = path.server.receive();
    EXPECT_EQ(firstCon.bytes, con);
    const auto fromOther = path.server.receive();
    EXPECT_EQ(text(fromOther), "other");
    EXPECT_NE(fromOther.from, firstCon.from);
    EXPECT_EQ(path.relay.getSessionCount(), 2u);

    const Bytes answer(1400, 0xab);
    path.server.send(fromOther.from, "to other"s);
    accepted.send(firstCon.from, answer);
    EXPECT_EQ(text(other.receive()), "to other");
    const auto back = path.client.receive();
    EXPECT_EQ(back.bytes, answer);
    EXPECT_EQ(back.from, path.relay.getPort());
    path.client.send(path.relay.getPort(), cmd);
    EXPECT_EQ(accepted.receive().bytes, cmd);
    path.client.send(path.relay.getPort(), con);
    EXPECT_EQ(path.server.receive().bytes, con);

    RelayOptions options;
    options.listen.port = other.port();
    ImpairmentRelay refused(options);
    EXPECT_FALSE(refused.isOpen());
    EXPECT_NE(refused.getError().find(std::to_string(other.port())), std::string::npos)
        << refused.getError();
    options.listen.port = 0;
    options.target.port = path.server.port();
    options.idleTimeout = 40ms;
    ImpairmentRelay relay(options);
    ASSERT_TRUE(relay.isOpen()) << relay.getError();
    for (const std::string word : {"first", "again"})
    {
        other.send(relay.getPort(), word);
        EXPECT_EQ(text(path.server.receive()), word);
        EXPECT_TRUE(eventually([&] { return relay.getSessionCount() == 0; }, WAIT));
    }
}

// Dropping everything until switched off; a delay, which keeps the order;
// duplicates and reorders at their rates, the same for the same seed (each
// held datagram arrives just after a higher one); and the end, which
// discards what is queued.
TEST(ImpairmentRelayTest, DropsDelaysDuplicatesAndReordersFollowTheirSettingsRepeatably)
{
    std::vector<int> runs[2];
    for (auto& run : runs)
    {
        Path path(42);
        path.relay.setImpairment(Impairment{.dropRate = 1.0});
        path.pump(0, 20);
        path.relay.setSilent(true);
        path.relay.setImpairment(Impairment{});
        path.pump(20, 20);
        path.relay.setSilent(false);
        path.relay.setImpairment(C2S, Impairment{.blackhole = true});
        path.pump(40, 20);
        EXPECT_TRUE(path.arrived.empty());
        EXPECT_EQ(path.relay.getCounts(C2S).dropped, 60u);
        path.relay.setImpairment(C2S, Impairment{.delay = 3ms});
        path.pump(60, 40);
        std::vector<int> expected(40);
        std::iota(expected.begin(), expected.end(), 60);
        EXPECT_EQ(path.arrived, expected);
        EXPECT_EQ(path.relay.getCounts(C2S).delayed, 40u);

        // A held datagram waits for the next one however slow the machine.
        path.relay.setImpairment(
            C2S, Impairment{.duplicateRate = 0.2, .reorderRate = 0.1, .reorderHold = 1h});
        path.pump(100, 1000, false);
        path.relay.setImpairment(C2S, Impairment{});
        path.pump(1100, 1); // releases one still held
        const RelayCounts counts = path.relay.getCounts(C2S);
        EXPECT_NEAR(static_cast<double>(counts.duplicated), 200, 50);
        EXPECT_NEAR(static_cast<double>(counts.reordered), 1000 * 0.1 / 1.1, 35);
        run = path.arrived;
        std::vector<int> steps;
        std::adjacent_difference(run.begin(), run.end(), std::back_inserter(steps));
        EXPECT_EQ(std::count_if(steps.begin() + 1, steps.end(), [](int step) { return step < 0; }),
                  static_cast<std::ptrdiff_t>(counts.reordered));

        path.relay.setImpairment(Impairment{.delay = 1h});
        path.pump(1101, 3, false);
        path.relay.stop();
        path.relay.stop();
        EXPECT_EQ(path.relay.getCounts(C2S).forwarded, 1041u);
        // Destroyed without stop, with a datagram queued and a session open.
        ImpairmentRelay unstopped(path.server.port(), 8);
        unstopped.setImpairment(Impairment{.delay = 1h});
        path.client.send(unstopped.getPort(), "queued"s);
        EXPECT_TRUE(eventually([&] { return unstopped.getCounts(C2S).delayed == 1; }, WAIT));
    }
    EXPECT_EQ(runs[0], runs[1]);
}

} // namespace
