// weft's EUDP sender against a receiver written from the protocol alone: all
// that weft does differently inside (bursts, cumulative answers, held
// packets, the measured time-out, fillers) must still deliver everything,
// once and in order, to a peer that does none of it, on a lossy path too.

#include "ImpairmentRelay.h"

#include "support/LetterReceiver.h"
#include "support/WeftFixture.h"

#include <weft/EUDPTransport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace
{

class LetterPeerTest : public WeftFixture, public ::testing::WithParamInterface<double>
{
};

TEST_P(LetterPeerTest, AReliableSenderDeliversEverythingInOrderToAPeerWrittenToTheLetterBeforeItCloses)
{
    constexpr int MESSAGES = 600;
    LetterReceiver letter;
    ImpairmentRelay relay(letter.listeningPort(), 20261123);
    ASSERT_TRUE(relay.isOpen()) << relay.getError();
    EUDPTransport sender;
    ASSERT_TRUE(sender.connect(tavo::HostAddress("127.0.0.1"), relay.getPort()));
    // Set up without loss: the handshake's own repeats are another test's.
    // This side sends reliably: the peer receives so.
    ASSERT_TRUE(sender.setReceiveMode(CONN_MODE_RELIABLE));
    Impairment loss;
    loss.dropRate = GetParam();
    relay.setImpairment(loss);
    std::vector<eudpwire::Bytes> sent;
    for (int i = 0; i < MESSAGES; ++i)
    {
        const std::string text = "message " + std::to_string(i);
        sent.emplace_back(text.begin(), text.end());
        ASSERT_TRUE(sender.sendData(sent.back().data(), static_cast<uint>(sent.back().size())))
            << i;
    }
    // Closing at once loses nothing that was handed over.
    sender.disconnect();
    const std::vector<eudpwire::Bytes> got = letter.waitFor(MESSAGES, std::chrono::seconds(20));
    const auto differ = std::mismatch(got.begin(), got.end(), sent.begin(), sent.end());
    EXPECT_EQ(differ.first - got.begin(), MESSAGES) << got.size() << " arrived";
}

INSTANTIATE_TEST_SUITE_P(Loss, LetterPeerTest, ::testing::Values(0.0, 0.05, 0.2),
                         [](const ::testing::TestParamInfo<double>& info) {
                             return "Percent" + std::to_string(static_cast<int>(info.param * 100));
                         });

} // namespace
