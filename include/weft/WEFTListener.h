#pragma once

#include <weft/ConnStatus.h>
#include <weft/Constants.h>
#include <weft/Export.h>
#include <weft/IWEFTConnector.h>
#include <weft/IWEFTTransport.h>

#include <tavo/Semaphore.h>
#include <tavo/Thread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

class WEFTListener;

// The thread that runs a listener's accept loop.
class WEFT_EXPORT RunThread : public tavo::Thread
{
public:
    explicit RunThread(WEFTListener* listener);
    ~RunThread() override;
    void run() override;
    bool shutdownCallback() override;

private:
    WEFTListener* m_pListener;
};

// The server's entry point: accepts connections on its own thread and hands
// each one, as a new WEFTConnection, to the application's IWEFTConnector.
class WEFT_EXPORT WEFTListener
{
public:
    explicit WEFTListener(ETransport transport);
    virtual ~WEFTListener();
    WEFTListener(const WEFTListener&) = delete;
    WEFTListener& operator=(const WEFTListener&) = delete;

    // Starts listening on the listener's thread; always true (see
    // waitForListen to learn whether the address could be bound). `host` is
    // a name or an IPv4 or IPv6 address ("127.0.0.1", "::1", "[::1]"); "::"
    // takes clients of both families (see setDualStack).
    bool listen(const std::string& host, unsigned short port, IWEFTConnector* connector);
    bool start();
    // The accept loop; runs on the listener's thread.
    void run();
    // Stops the accept loop and waits up to `timeout` ms (-1: no limit).
    bool shutdown(int timeout);
    virtual bool shutdownCallback();

    // Waits up to `timeoutMs` for the listening transport to be bound: true
    // when it is, false when binding failed or the time ran out.
    bool waitForListen(unsigned int timeoutMs);
    // Why the latest listen could not bind ("address in use", "unknown
    // host", ...); empty while it is bound or pending.
    std::string getListenError() const;
    // The bound local port (useful after listening on port 0); 0 until bound.
    unsigned short getLocalPort() const;

    // Protection of an EUDP listener against strangers, both on by default
    // (see EUDPTransport). The listener thread applies them to the listening
    // transport it creates, so they take effect at the next listen; a TCP
    // listener ignores them.
    void setHalfOpenLimit(unsigned int limit);
    void setStrictPeer(bool strict);
    // At most `limit` connections of this listener alive at once (0: no
    // limit, the default); a connection counts from its hand-over until its
    // receive loop ends. Over the limit, a new connection is closed at once
    // and never handed over.
    void setMaxConnections(unsigned int limit);
    // TCP: connections the kernel may hold waiting for accept
    // (TCP_LISTEN_BACKLOG by default); takes effect at the next listen.
    void setListenBacklog(int backlog);
    // Whether a listener on :: takes IPv4 clients too (the default; they show
    // as plain IPv4 addresses); takes effect at the next listen.
    void setDualStack(bool on);

private:
    ETransport m_eTransport;
    std::atomic<IWEFTTransport*> m_pTransport;
    std::string m_host;
    unsigned short m_port;
    IWEFTConnector* m_pConnector;
    std::atomic<bool> m_bRunning;
    RunThread* m_pThread;
    // Outcome of the latest bind: 0 pending, 1 bound, -1 failed.
    std::atomic<int> m_listenState;
    tavo::BinarySemaphore m_semListened;
    // Stored for the listener thread, which creates the transport.
    std::atomic<unsigned int> m_halfOpenLimit;
    std::atomic<bool> m_strictPeer;
    std::atomic<unsigned int> m_maxConnections{WEFT_NO_CONNECTION_LIMIT};
    std::atomic<int> m_listenBacklog{TCP_LISTEN_BACKLOG};
    std::atomic<bool> m_dualStack{true};
    mutable std::mutex m_listenErrorMutex;
    std::string m_listenError;
    // Connections handed over and still running, shared with them.
    std::shared_ptr<std::atomic<unsigned int>> m_pConnectionCount;
};
