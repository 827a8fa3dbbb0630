#pragma once

#include "EventQueue.h"
#include "Runtime.h"

#include <weft/IWEFTClient.h>
#include <weft/WEFTConnection.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace weftpy
{

// The client side of weft.Client: one connection and its callbacks. Every
// operation but the constructor runs without the GIL and throws WeftError
// when the network or the peer fails.
class ClientCore : public IWEFTClient,
                   public IEndpoint,
                   public std::enable_shared_from_this<ClientCore>
{
public:
    struct Callbacks
    {
        py::object onTrigger;
        py::object onUpdate;
        py::object onStatus;
    };

    ClientCore(ETransport transport, Callbacks callbacks);
    ClientCore(const ClientCore&) = delete;
    ClientCore& operator=(const ClientCore&) = delete;

    void connect(const std::string& host, unsigned short port, bool strictPeer);
    void subscribe(const std::string& name);
    void unsubscribe(const std::string& name);
    void call(const std::string& name, const ParameterList& params);
    void setSendMode(EConnMode mode);
    void setReceiveMode(EConnMode mode);
    void setWindowSize(unsigned int size);
    // Inside a callback of the library it only starts the closing, which
    // finishes on the module's thread.
    void close() override;

    bool isConnected() const;
    ETransport getTransport() const { return m_transport; }
    const std::string& getPeerAddress() const { return m_peerAddress; }
    unsigned short getPeerPort() const { return m_peerPort; }
    unsigned short getLocalPort() const { return m_localPort; }
    EventQueue& getEvents() { return m_events; }

    void onTrigger(const std::string& name, const ParameterValue& value) override;
    void onUpdateState(const std::string& name, const ParameterValue& value) override;
    void onStatus(EConnStatus status) override;

private:
    template <class Request>
    void request(const char* what, Request request);
    template <class Negotiation>
    void negotiate(const char* what, const std::string& refusal, Negotiation negotiation);
    void finishClose();
    void waitUntilConnected();

    const ETransport m_transport;
    Callbacks m_callbacks;
    EventQueue m_events;
    // Requests share it; closing takes it alone to delete the connection.
    mutable std::shared_mutex m_connectionMutex;
    // Set before connect, deleted only by finishClose.
    std::unique_ptr<WEFTConnection> m_connection;
    std::mutex m_closeMutex;
    std::atomic<bool> m_closing{false};
    std::atomic<bool> m_ended{false};
    // The receive thread starts before connect reports CONNECTED; its
    // callbacks wait for that report so that Python sees it first.
    std::mutex m_connectedMutex;
    std::condition_variable m_connectedChanged;
    bool m_connected = false;
    std::string m_peerAddress;
    unsigned short m_peerPort = 0;
    unsigned short m_localPort = 0;
};

} // namespace weftpy
