#pragma once

#include "support/Recorders.h"
#include "support/WeftFixture.h"

#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <memory>

// A listener on a free loopback port whose accepted connections a
// collecting connector keeps, once listen() has run, and clients of it.
class ListenerFixture : public WeftFixture
{
protected:
    // Again on the same listener when there is one.
    void listen(ETransport transport)
    {
        m_transport = transport;
        if (!m_listener)
        {
            m_listener = std::make_unique<WEFTListener>(transport);
        }
        ASSERT_TRUE(m_listener->listen("127.0.0.1", 0, &m_connector));
        ASSERT_TRUE(m_listener->waitForListen(10000));
        m_port = m_listener->getLocalPort();
        ASSERT_NE(m_port, 0);
    }

    void TearDown() override
    {
        if (m_listener)
        {
            m_listener->shutdown(-1);
        }
        m_connector.closeAll();
        m_listener.reset();
        WeftFixture::TearDown();
    }

    std::unique_ptr<WEFTConnection> connectClient(IWEFTClient* client)
    {
        auto connection = std::make_unique<WEFTConnection>(m_transport);
        EXPECT_TRUE(connection->connect("127.0.0.1", m_port, client));
        return connection;
    }

    EventLog m_serverEvents;
    CollectingConnector m_connector{m_serverEvents};
    std::unique_ptr<WEFTListener> m_listener;
    ETransport m_transport = TRANSPORT_TCP;
    uint16 m_port = 0;
};
