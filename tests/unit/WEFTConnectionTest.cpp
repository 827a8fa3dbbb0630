#include "support/QueueTransport.h"
#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/Init.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTPacket.h>

#include <tavo/CmdProcessor.h>
#include <tavo/LogManager.h>

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <memory>

namespace
{

using namespace std::chrono_literals;
typedef QueueTransport::Bytes Bytes;

// A connection whose transport is a queue: the receive loop runs on its own
// thread exactly as over a network, while the test decides every byte.
class WEFTConnectionTest : public WeftFixture
{
protected:
    void SetUp() override
    {
        WeftFixture::SetUp();
        m_transport = new QueueTransport();
        m_connection = std::make_unique<WEFTConnection>(m_transport);
    }

    void TearDown() override
    {
        m_connection->disconnect();
        m_connection.reset();
        WeftFixture::TearDown();
    }

    EventLog m_events;
    Recorder m_server{m_events, "server"};
    Recorder m_client{m_events};
    QueueTransport* m_transport = nullptr;
    std::unique_ptr<WEFTConnection> m_connection;
};

// Requests leave as one message each; the same bytes arriving reach their
// callbacks, which may answer on the same connection.
TEST_F(WEFTConnectionTest, RequestsLeaveByteForByteAndComeInAsTheirCallbacksUntilTheEnd)
{
    m_server.onSubscribeHook = [this](const std::string& name)
    { m_connection->updateState(name, ParameterValue(42)); };
    m_connection->setServer(&m_server);
    ASSERT_TRUE(m_connection->connect("127.0.0.1", 1, &m_client));
    ParameterList params;
    params.addNumeric("x", 5);
    params.addBoolean("a", false);
    ASSERT_TRUE(m_connection->subscribe("ab"));
    ASSERT_TRUE(m_connection->unsubscribe("ab"));
    ASSERT_TRUE(m_connection->trigger("t", ParameterValue(5)));
    ASSERT_TRUE(m_connection->updateState("s", ParameterValue(true)));
    ASSERT_TRUE(m_connection->callFunctionId("f", params));
    const std::vector<Bytes> wires = {
        {0x01, 0x53, 0x03, 0x00, 'a', 'b', 0x00},
        {0x01, 0x58, 0x03, 0x00, 'a', 'b', 0x00},
        {0x01, 0x54, 0x07, 0x00, 't', 0x00, 0x49, 0x05, 0x00, 0x00, 0x00},
        {0x01, 0x55, 0x04, 0x00, 's', 0x00, 0x42, 0x01},
        {0x01, 0x46, 0x0E, 0x00, 'f', 0x00, 0x02, 'a', 0x00, 0x42, 0x00, 'x', 0x00, 0x49, 0x05,
         0x00, 0x00, 0x00},
    };
    EXPECT_EQ(m_transport->sent(), wires);
    for (const Bytes& wire : wires)
    {
        m_transport->queue(wire);
    }
    ASSERT_TRUE(m_events.waitFor(7));
    ASSERT_TRUE(eventually([&] { return m_transport->sent().size() == wires.size() + 1; }, 10s));
    EXPECT_EQ(m_transport->sent().back(),
              (Bytes{0x01, 0x55, 0x08, 0x00, 'a', 'b', 0x00, 0x49, 0x2A, 0x00, 0x00, 0x00}));
    const std::vector<Event> expected = {
        {"status", "client", "connected"},
        {"status", "server", "connected"},
        {"subscribe", "ab", ""},
        {"unsubscribe", "ab", ""},
        {"trigger", "t", "5"},
        {"update", "s", "ON"},
        {"call", "f", "a = OFF x = 5 "},
        // The end of the transport: the client hears it first.
        {"status", "client", "disconnected"},
        {"status", "server", "disconnected"},
    };
    m_transport->disconnect();
    ASSERT_TRUE(m_events.waitFor(9));
    EXPECT_EQ(m_events.events(), expected);
}

TEST_F(WEFTConnectionTest, ARequestThatFitsGoesWholeAndOneByteMoreIsRefusedWithNothingSent)
{
    // Each kind at the largest size a message carries (1488 payload bytes),
    // then one byte larger: by the name, by a string value, by a parameter.
    const std::function<bool(int extra)> requests[] = {
        [&](int extra) { return m_connection->subscribe(std::string(1487 + extra, 'n')); },
        [&](int extra)
        { return m_connection->trigger("t", ParameterValue(std::string(1484 + extra, 'v'))); },
        [&](int extra) // 5 bytes for an integer
        { return m_connection->updateState(std::string(1482 + extra, 'n'), ParameterValue(5)); },
        [&](int extra)
        {
            ParameterList params;
            params.addString("s", std::string(1481 + extra, 'v'));
            return m_connection->callFunctionId("f", params);
        },
    };
    for (std::size_t kind = 0; kind < std::size(requests); ++kind)
    {
        ASSERT_TRUE(requests[kind](0)) << kind;
        ASSERT_EQ(m_transport->sent().size(), kind + 1) << kind;
        EXPECT_EQ(m_transport->sent().back().size(), WEFT_MAX_PACKET_SIZE) << kind;
        EXPECT_FALSE(requests[kind](1)) << kind;
        EXPECT_EQ(m_transport->sent().size(), kind + 1) << kind << " went out in part";
    }
    // What fits but cannot be encoded is refused the same way.
    EXPECT_FALSE(m_connection->trigger("t", ParameterValue(std::string("a\0b", 3))));
    EXPECT_EQ(m_transport->sent().size(), std::size(requests));
}

TEST(InitDeathTest, InitAndDeinitMayBeRepeatedButASecondInitOrLoggingBeforeInitStops)
{
    weftDeinit(); // without init: nothing to do
    for (int round = 0; round < 2; ++round)
    {
        weftInit();
        EXPECT_TRUE(tavo::LogManager::hasInstance() && tavo::CmdProcessor::hasInstance());
        weftDeinit();
        EXPECT_FALSE(tavo::LogManager::hasInstance() || tavo::CmdProcessor::hasInstance());
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            weftInit();
            weftInit();
        },
        "s_pInstance == __null");
    EXPECT_DEATH(tavo::LogManager::getInstance(), "s_pInstance");
}

TEST(WEFTConnectionDeathTest, DisconnectFromItsOwnCallbackStopsTheProcessInsteadOfHanging)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            weftInit();
            EventLog events;
            Recorder server(events, "server");
            auto* transport = new QueueTransport();
            WEFTConnection connection(transport);
            server.onSubscribeHook = [&](const std::string&) { connection.disconnect(); };
            connection.setServer(&server);
            connection.start();
            transport->queue({0x01, 0x53, 0x02, 0x00, 'x', 0x00});
            tavo::Thread::mssleep(10000);
        },
        "shutdown called from the thread itself");
}

} // namespace
