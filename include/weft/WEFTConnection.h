#pragma once

#include <weft/ConnStatus.h>
#include <weft/Export.h>
#include <weft/IWEFTTransport.h>
#include <weft/Init.h>
#include <weft/ParameterList.h>
#include <weft/ParameterValue.h>
#include <weft/WEFTPacket.h>

#include <tavo/Thread.h>

#include <atomic>
#include <memory>
#include <string>

namespace tavo
{
class LogOutput;
}

class IWEFTClient;
class IWEFTNegotiationObserver;
class IWEFTServer;
class WEFTConnection;

// The thread that runs a connection's receive loop.
class WEFT_EXPORT RunThreadC : public tavo::Thread
{
public:
    explicit RunThreadC(WEFTConnection* connection);
    ~RunThreadC() override;
    void run() override;

private:
    WEFTConnection* m_pConnection;
};

// One protocol connection, on either side. The client side connects with its
// IWEFTClient; on the server side a listener builds the connection around an
// accepted transport and the application sets its IWEFTServer. Requests may be
// sent from any thread; incoming messages reach the callbacks on the
// connection's own receive thread.
class WEFT_EXPORT WEFTConnection
{
public:
    // Creates and owns a transport of the given kind.
    explicit WEFTConnection(ETransport transport);
    // Takes ownership of a connected transport (accepted connections).
    explicit WEFTConnection(IWEFTTransport* transport);
    // Ends the receive thread first if it still runs (the connection is then
    // disconnected); must not be called from that thread.
    virtual ~WEFTConnection();
    WEFTConnection(const WEFTConnection&) = delete;
    WEFTConnection& operator=(const WEFTConnection&) = delete;

    // Connects, starts the receive thread and reports CONN_STATUS_CONNECTED.
    // `host` is a name (its IPv4 address when it has one) or an IPv4 or IPv6
    // address ("::1" or "[::1]").
    bool connect(const std::string& host, unsigned short port, IWEFTClient* client);
    // Starts (or restarts) the receive thread.
    bool start();
    // Closes the transport and waits for the receive thread to end; never
    // from a callback of this connection.
    void disconnect();
    void setServer(IWEFTServer* server);
    // Reports a status to the client, then to the server, each if set.
    void updateStatus(EConnStatus status);

    bool setWindowSize(unsigned int size);
    bool setSendMode(EConnMode mode);
    bool setReceiveMode(EConnMode mode);
    // Which modes the peer may ask this side to use; a server calls these in
    // onConnection, before the client's first request can arrive.
    void allowSendMode(bool realtime, bool reliable);
    void allowReceiveMode(bool realtime, bool reliable);
    // EUDP only: ignore datagrams that do not come from the peer (see
    // EUDPTransport::setStrictPeer); on by default. A client changes it
    // before connect, so that the answer to its request is judged by it too.
    void setStrictPeer(bool strict);
    // How long a request may wait while the peer takes nothing, in
    // milliseconds (0: without limit; WEFT_SEND_TIMEOUT_MS at first). When
    // the time passes the connection is closed and reported down, and the
    // request returns false: one stalled peer cannot hold up a server's
    // other clients for longer.
    void setSendTimeout(unsigned int timeoutMs);
    // Tells `observer` (not owned; null for none) of the peer's mode and
    // window requests; a server sets it in onConnection, before the first
    // request is answered.
    void setNegotiationObserver(IWEFTNegotiationObserver* observer);
    // The peer's address as text: "10.1.2.3", "::1"; an IPv4 client of a
    // listener on :: shows as IPv4, not as ::ffff:10.1.2.3.
    std::string getPeerAddress() const;
    unsigned short getPeerPort() const;
    unsigned short getLocalPort() const;

    // Requests: true when the transport accepted the message. A request that
    // does not fit in one message (WEFT_MAX_PAYLOAD bytes for the name and its
    // value or parameters, as encoded) is refused: false, one log line, and
    // nothing is sent.
    bool subscribe(const std::string& name);
    bool unsubscribe(const std::string& name);
    bool trigger(const std::string& name, const ParameterValue& value);
    bool updateState(const std::string& name, const ParameterValue& value);
    bool callFunctionId(const std::string& name, const ParameterList& params);

    // The receive loop; runs on the receive thread until the transport ends.
    void run();

private:
    friend class WEFTListener;

    // Gives the connection's place back to the listener that counted it.
    void leaveListener();
    // Builds and sends one request; refused whole, with one log line, when it
    // does not fit in a message.
    bool sendRequest(EWEFTCommand command, const std::string& name, const ParameterValue* value,
                     const ParameterList* list, const char* failure);
    void dispatch(const WEFTPacket& packet);

    IWEFTTransport* m_pTransport;
    // Set before the receive thread starts; atomic so that a late setServer
    // is never a data race.
    std::atomic<IWEFTClient*> m_pClient;
    std::atomic<IWEFTServer*> m_pServer;
    tavo::LogOutput* m_pLog;
    RunThreadC* m_pThread;
    // The receive loop has ended: the transport is closed.
    std::atomic<bool> m_ended{false};
    // The live connections of the listener that accepted this one, which
    // counts it until its receive loop ends; may outlive the listener.
    std::shared_ptr<std::atomic<unsigned int>> m_pListenerCount;
    std::atomic<bool> m_countedByListener{false};
};
