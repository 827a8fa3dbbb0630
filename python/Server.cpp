#include "Server.h"

namespace weftpy
{

namespace
{

// How long listen waits for the listener thread to bind: binding happens at
// once, so this covers only a loaded machine.
constexpr unsigned int LISTEN_WAIT_MS = 5000;

} // namespace

Peer::Peer(ServerCore& server, WEFTConnection* connection)
    : m_server(server), m_peerAddress(connection->getPeerAddress()),
      m_peerPort(connection->getPeerPort()), m_connection(connection)
{
}

bool Peer::sendNow(bool trigger, const std::string& name, const ParameterValue& value)
{
    std::shared_lock<std::shared_mutex> lock(m_connectionMutex);
    if (m_closing || !m_connection)
    {
        return false;
    }
    return trigger ? m_connection->trigger(name, value) : m_connection->updateState(name, value);
}

bool Peer::send(bool trigger, const std::string& name, const ParameterValue& value)
{
    return isOpen() && sendNow(trigger, name, value);
}

void Peer::trigger(const std::string& name, const ParameterValue& value)
{
    if (!send(true, name, value))
    {
        throw WeftError("cannot send a trigger: the connection is closed");
    }
}

void Peer::update(const std::string& name, const ParameterValue& value)
{
    if (!send(false, name, value))
    {
        throw WeftError("cannot send an update: the connection is closed");
    }
}

void Peer::close()
{
    bool now = false;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_closeRequested = true;
        m_closing = true;
        if (m_started && !m_releaseScheduled)
        {
            m_releaseScheduled = true;
            now = !runtime::inCallback();
            if (!now)
            {
                runtime::defer([self = shared_from_this()] { self->release(); });
            }
        }
    }
    if (now)
    {
        release();
    }
}

void Peer::release()
{
    std::lock_guard<std::mutex> releasing(m_releaseMutex);
    m_closing = true;
    if (!m_connection)
    {
        return;
    }
    // Sends under way fail once the transport is closed; the receive thread
    // reports DISCONNECTED and ends.
    m_connection->disconnect();
    {
        std::unique_lock<std::shared_mutex> lock(m_connectionMutex);
        m_connection.reset();
    }
    m_released = true;
}

bool Peer::isOpen() const
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return !m_ended && !m_closeRequested;
}

bool Peer::isSubscribed(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_subscriptions.count(name) != 0;
}

std::set<std::string> Peer::getSubscriptions() const
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_subscriptions;
}

void Peer::onSubscribe(const std::string& name)
{
    runtime::shielded(
        [&]
        {
            {
                std::lock_guard<std::mutex> lock(m_stateMutex);
                m_subscriptions.insert(name);
            }
            m_server.subscribed(*this, name);
        });
}

void Peer::onUnsubscribe(const std::string& name)
{
    runtime::shielded(
        [&]
        {
            {
                std::lock_guard<std::mutex> lock(m_stateMutex);
                m_subscriptions.erase(name);
            }
            m_server.unsubscribed(*this, name);
        });
}

void Peer::onCallFunctionId(const std::string& name, const ParameterList& params)
{
    runtime::shielded([&] { m_server.called(*this, name, params); });
}

// CONNECTED comes from the listener's thread after the receive thread has
// started, DISCONNECTED from the receive thread: in either order when a
// client leaves at once. The connection is released once both are in.
void Peer::onStatus(EConnStatus status)
{
    runtime::shielded(
        [&]
        {
            bool releaseDue = false;
            {
                std::lock_guard<std::mutex> lock(m_stateMutex);
                (status == CONN_STATUS_CONNECTED ? m_started : m_ended) = true;
                if (m_started && (m_ended || m_closeRequested) && !m_releaseScheduled)
                {
                    m_releaseScheduled = true;
                    releaseDue = true;
                }
            }
            if (status == CONN_STATUS_DISCONNECTED)
            {
                m_server.ended(*this);
            }
            if (releaseDue)
            {
                runtime::defer([self = shared_from_this()] { self->release(); });
            }
        });
}

ServerCore::ServerCore(ETransport transport, Callbacks callbacks, Modes send, Modes receive)
    : m_transport(transport), m_callbacks(std::move(callbacks)), m_send(send), m_receive(receive)
{
}

void ServerCore::listen(const std::string& host, unsigned short port)
{
    m_listener = std::make_unique<WEFTListener>(m_transport);
    m_listener->listen(host, port, this);
    if (!m_listener->waitForListen(LISTEN_WAIT_MS))
    {
        const std::string why = m_listener->getListenError();
        m_listener->shutdown(-1);
        m_listener.reset();
        m_closing = true;
        m_events.end();
        const std::string where = host.empty() ? std::string("0.0.0.0") : host;
        // An IPv6 address goes in brackets before its port.
        const bool ipv6 = where.find(':') != std::string::npos && where.front() != '[';
        throw WeftError("cannot listen on " + (ipv6 ? "[" + where + "]" : where) + ":" +
                        std::to_string(port) + " over " +
                        (m_transport == TRANSPORT_TCP ? "tcp" : "eudp") +
                        (why.empty() ? std::string() : ": " + why));
    }
    m_port = m_listener->getLocalPort();
}

void ServerCore::onConnection(WEFTConnection* connection)
{
    runtime::shielded(
        [&]
        {
            // Before the connection starts, so that the client's first request meets
            // the restriction.
            connection->allowSendMode(m_send.realtime, m_send.reliable);
            connection->allowReceiveMode(m_receive.realtime, m_receive.reliable);
            std::shared_ptr<Peer> peer = std::make_shared<Peer>(*this, connection);
            connection->setServer(peer.get());
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                // A peer stays until released: its receive thread uses this server.
                std::erase_if(m_peers,
                              [](const std::shared_ptr<Peer>& p) { return p->isReleased(); });
                m_peers.push_back(peer);
            }
            deliver(EventRecord{EVENT_CONNECTED, {}, {}, {}, peer}, m_callbacks.onConnect,
                    m_events);
        });
}

void ServerCore::subscribed(Peer& peer, const std::string& name)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto value = m_values.find(name);
        if (value != m_values.end())
        {
            peer.send(false, name, value->second);
        }
    }
    deliver(EventRecord{EVENT_SUBSCRIBE, name, {}, {}, peer.shared_from_this()},
            m_callbacks.onSubscribe, m_events);
}

void ServerCore::unsubscribed(Peer& peer, const std::string& name)
{
    deliver(EventRecord{EVENT_UNSUBSCRIBE, name, {}, {}, peer.shared_from_this()},
            m_callbacks.onUnsubscribe, m_events);
}

void ServerCore::called(Peer& peer, const std::string& name, const ParameterList& params)
{
    deliver(EventRecord{EVENT_CALL, name, {}, params, peer.shared_from_this()}, m_callbacks.onCall,
            m_events);
}

void ServerCore::ended(Peer& peer)
{
    deliver(EventRecord{EVENT_DISCONNECTED, {}, {}, {}, peer.shared_from_this()},
            m_callbacks.onDisconnect, m_events);
}

int ServerCore::push(bool trigger, bool broadcast, const std::string& name,
                     const ParameterValue& value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closing)
    {
        throw WeftError(std::string("cannot send ") + (trigger ? "a trigger" : "an update") +
                        ": the server is closed");
    }
    if (!trigger)
    {
        m_values.insert_or_assign(name, value);
    }
    int sent = 0;
    for (const std::shared_ptr<Peer>& peer : m_peers)
    {
        if ((broadcast || peer->isSubscribed(name)) && peer->send(trigger, name, value))
        {
            ++sent;
        }
    }
    return sent;
}

std::vector<std::shared_ptr<Peer>> ServerCore::getConnections() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::shared_ptr<Peer>> open;
    for (const std::shared_ptr<Peer>& peer : m_peers)
    {
        if (peer->isOpen())
        {
            open.push_back(peer);
        }
    }
    return open;
}

std::map<std::string, ParameterValue> ServerCore::getState() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_values;
}

void ServerCore::close()
{
    if (runtime::inCallback())
    {
        if (!m_closing.exchange(true))
        {
            runtime::defer([self = shared_from_this()] { self->finishClose(); });
        }
        return;
    }
    m_closing = true;
    finishClose();
}

void ServerCore::finishClose()
{
    Callbacks callbacks;
    {
        std::lock_guard<std::mutex> closing(m_closeMutex);
        if (!m_listener)
        {
            return;
        }
        // No connection is handed over after this, and every one handed over
        // has been reported started.
        m_listener->shutdown(-1);
        m_listener.reset();
        std::vector<std::shared_ptr<Peer>> peers;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            peers.swap(m_peers);
        }
        for (const std::shared_ptr<Peer>& peer : peers)
        {
            peer->release();
        }
        m_events.end();
        // Moving takes no reference, so it needs no GIL.
        callbacks = std::move(m_callbacks);
    }
    // Dropped outside the lock: this may release the last reference to the
    // server's own handle, which closes it again.
    runtime::withGil(py::handle(), [&callbacks] { callbacks = Callbacks(); });
}

} // namespace weftpy
