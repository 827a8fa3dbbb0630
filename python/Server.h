#pragma once

#include "EventQueue.h"
#include "Runtime.h"

#include <weft/IWEFTConnector.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <vector>

namespace weftpy
{

class ServerCore;

// One connection a server accepted: weft.Connection. Its operations run
// without the GIL and throw WeftError once it is closed.
class Peer : public IWEFTServer, public std::enable_shared_from_this<Peer>
{
public:
    Peer(ServerCore& server, WEFTConnection* connection);
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void trigger(const std::string& name, const ParameterValue& value);
    void update(const std::string& name, const ParameterValue& value);
    // For the server's own sends: false when nothing was sent.
    bool send(bool trigger, const std::string& name, const ParameterValue& value);
    // Inside a callback of the library, or before the listener is done with
    // the connection, it only starts the closing, which finishes later.
    void close();
    // Disconnects and deletes the connection; waits for a release under way.
    void release();

    bool isOpen() const;
    bool isReleased() const { return m_released; }
    bool isSubscribed(const std::string& name) const;
    std::set<std::string> getSubscriptions() const;
    const std::string& getPeerAddress() const { return m_peerAddress; }
    unsigned short getPeerPort() const { return m_peerPort; }

    void onSubscribe(const std::string& name) override;
    void onUnsubscribe(const std::string& name) override;
    void onCallFunctionId(const std::string& name, const ParameterList& params) override;
    void onStatus(EConnStatus status) override;

private:
    bool sendNow(bool trigger, const std::string& name, const ParameterValue& value);

    // Only the connection's threads use it, and the server releases every
    // peer before it goes.
    ServerCore& m_server;
    const std::string m_peerAddress;
    const unsigned short m_peerPort;

    mutable std::mutex m_stateMutex;
    // The listener has reported the connection started: from then on the
    // connection may be deleted.
    bool m_started = false;
    bool m_ended = false;
    bool m_closeRequested = false;
    bool m_releaseScheduled = false;
    std::set<std::string> m_subscriptions;

    std::atomic<bool> m_closing{false};
    std::atomic<bool> m_released{false};
    std::mutex m_releaseMutex;
    // Sends share it; a release takes it alone to delete the connection.
    mutable std::shared_mutex m_connectionMutex;
    std::unique_ptr<WEFTConnection> m_connection;
};

// The server side of weft.Server: a listener, its connections, the last
// value of every item updated and the callbacks. Runs without the GIL.
class ServerCore : public IWEFTConnector,
                   public IEndpoint,
                   public std::enable_shared_from_this<ServerCore>
{
public:
    struct Callbacks
    {
        py::object onConnect;
        py::object onDisconnect;
        py::object onSubscribe;
        py::object onUnsubscribe;
        py::object onCall;
    };
    // Which modes a client may ask this server to send or receive in.
    struct Modes
    {
        bool realtime = true;
        bool reliable = true;
    };

    ServerCore(ETransport transport, Callbacks callbacks, Modes send, Modes receive);
    ServerCore(const ServerCore&) = delete;
    ServerCore& operator=(const ServerCore&) = delete;

    void listen(const std::string& host, unsigned short port);
    // To the subscribers of `name`, or to every connection; an update is kept
    // as the item's value. The number of connections it went to.
    int push(bool trigger, bool broadcast, const std::string& name, const ParameterValue& value);
    std::vector<std::shared_ptr<Peer>> getConnections() const;
    std::map<std::string, ParameterValue> getState() const;
    void close() override;

    bool isOpen() const { return !m_closing; }
    ETransport getTransport() const { return m_transport; }
    unsigned short getPort() const { return m_port; }
    EventQueue& getEvents() { return m_events; }

    void onConnection(WEFTConnection* connection) override;
    // From the peers, on their connections' threads.
    void subscribed(Peer& peer, const std::string& name);
    void unsubscribed(Peer& peer, const std::string& name);
    void called(Peer& peer, const std::string& name, const ParameterList& params);
    void ended(Peer& peer);

private:
    void finishClose();

    const ETransport m_transport;
    Callbacks m_callbacks;
    const Modes m_send;
    const Modes m_receive;
    EventQueue m_events;
    unsigned short m_port = 0;
    std::atomic<bool> m_closing{false};
    std::mutex m_closeMutex;
    // Set by listen, deleted only by finishClose.
    std::unique_ptr<WEFTListener> m_listener;
    // Guards the peers and the values; held while sending, so that a
    // subscriber never gets an older value after a newer one.
    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<Peer>> m_peers;
    std::map<std::string, ParameterValue> m_values;
};

} // namespace weftpy
