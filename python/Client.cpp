#include "Client.h"

namespace weftpy
{

namespace
{

const char* transportName(ETransport transport)
{
    return transport == TRANSPORT_TCP ? "tcp" : "eudp";
}

const char* modeName(EConnMode mode)
{
    return mode == CONN_MODE_RELIABLE   ? "reliable"
           : mode == CONN_MODE_REALTIME ? "realtime"
                                        : "any";
}

} // namespace

ClientCore::ClientCore(ETransport transport, Callbacks callbacks)
    : m_transport(transport), m_callbacks(std::move(callbacks))
{
}

void ClientCore::connect(const std::string& host, unsigned short port, bool strictPeer)
{
    m_connection = std::make_unique<WEFTConnection>(m_transport);
    m_connection->setStrictPeer(strictPeer);
    if (!m_connection->connect(host, port, this))
    {
        m_connection.reset();
        m_events.end();
        throw WeftError("cannot connect to " + host + ":" + std::to_string(port) + " over " +
                        transportName(m_transport));
    }
    m_peerAddress = m_connection->getPeerAddress();
    m_peerPort = m_connection->getPeerPort();
    m_localPort = m_connection->getLocalPort();
    {
        std::lock_guard<std::mutex> lock(m_connectedMutex);
        m_connected = true;
    }
    m_connectedChanged.notify_all();
}

template <class Request>
void ClientCore::request(const char* what, Request request)
{
    std::shared_lock<std::shared_mutex> lock(m_connectionMutex);
    if (m_closing || !m_connection)
    {
        throw WeftError(std::string("cannot ") + what + ": the client is closed");
    }
    // A TCP socket may still take data after its peer has gone.
    if (m_ended || !request(*m_connection))
    {
        throw WeftError(std::string("cannot ") + what + ": the connection has ended");
    }
}

void ClientCore::subscribe(const std::string& name)
{
    request("subscribe", [&](WEFTConnection& c) { return c.subscribe(name); });
}

void ClientCore::unsubscribe(const std::string& name)
{
    request("unsubscribe", [&](WEFTConnection& c) { return c.unsubscribe(name); });
}

void ClientCore::call(const std::string& name, const ParameterList& params)
{
    request("call", [&](WEFTConnection& c) { return c.callFunctionId(name, params); });
}

// A refused negotiation and an ended connection both return false; the
// latter is told apart by the DISCONNECTED report.
template <class Negotiation>
void ClientCore::negotiate(const char* what, const std::string& refusal, Negotiation negotiation)
{
    bool accepted = false;
    request(what,
            [&](WEFTConnection& c)
            {
                accepted = negotiation(c);
                return accepted || !m_ended;
            });
    if (!accepted)
    {
        throw WeftError(m_transport == TRANSPORT_TCP
                            ? std::string("tcp is reliable in both directions and has no window")
                            : refusal);
    }
}

void ClientCore::setSendMode(EConnMode mode)
{
    negotiate("set the send mode",
              std::string("the server did not agree to send in ") + modeName(mode) + " mode",
              [&](WEFTConnection& c) { return c.setSendMode(mode); });
}

void ClientCore::setReceiveMode(EConnMode mode)
{
    negotiate("set the receive mode",
              std::string("the server did not agree to receive in ") + modeName(mode) + " mode",
              [&](WEFTConnection& c) { return c.setReceiveMode(mode); });
}

void ClientCore::setWindowSize(unsigned int size)
{
    negotiate("set the window", "the server did not agree to a window of " + std::to_string(size),
              [&](WEFTConnection& c) { return c.setWindowSize(size); });
}

void ClientCore::close()
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

void ClientCore::finishClose()
{
    Callbacks callbacks;
    {
        std::lock_guard<std::mutex> closing(m_closeMutex);
        if (!m_connection)
        {
            return;
        }
        // Requests under way fail once the transport is closed; the receive
        // thread reports DISCONNECTED and ends.
        m_connection->disconnect();
        {
            std::unique_lock<std::shared_mutex> lock(m_connectionMutex);
            m_connection.reset();
        }
        m_events.end();
        // Moving takes no reference, so it needs no GIL.
        callbacks = std::move(m_callbacks);
    }
    // Dropped outside the lock: this may release the last reference to the
    // client's own handle, which closes it again.
    runtime::withGil(py::handle(), [&callbacks] { callbacks = Callbacks(); });
}

bool ClientCore::isConnected() const
{
    std::shared_lock<std::shared_mutex> lock(m_connectionMutex);
    return m_connection && !m_closing && !m_ended;
}

void ClientCore::waitUntilConnected()
{
    std::unique_lock<std::mutex> lock(m_connectedMutex);
    m_connectedChanged.wait(lock, [this] { return m_connected; });
}

void ClientCore::onTrigger(const std::string& name, const ParameterValue& value)
{
    runtime::shielded(
        [&]
        {
            waitUntilConnected();
            deliver(EventRecord{EVENT_TRIGGER, name, value, {}, nullptr}, m_callbacks.onTrigger,
                    m_events);
        });
}

void ClientCore::onUpdateState(const std::string& name, const ParameterValue& value)
{
    runtime::shielded(
        [&]
        {
            waitUntilConnected();
            deliver(EventRecord{EVENT_UPDATE, name, value, {}, nullptr}, m_callbacks.onUpdate,
                    m_events);
        });
}

void ClientCore::onStatus(EConnStatus status)
{
    runtime::shielded(
        [&]
        {
            if (status == CONN_STATUS_CONNECTED)
            {
                deliver(EventRecord{EVENT_CONNECTED, {}, {}, {}, nullptr}, m_callbacks.onStatus,
                        m_events);
                return;
            }
            waitUntilConnected();
            m_ended = true;
            deliver(EventRecord{EVENT_DISCONNECTED, {}, {}, {}, nullptr}, m_callbacks.onStatus,
                    m_events);
            m_events.end();
        });
}

} // namespace weftpy
