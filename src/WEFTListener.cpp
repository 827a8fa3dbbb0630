#include <weft/WEFTListener.h>

#include "TransportFactory.h"
#include "WeftLog.h"

#include <weft/WEFTConnection.h>

#include <tavo/Assert.h>
#include <tavo/HostAddress.h>
#include <tavo/LogManager.h>

#include <cerrno>
#include <ostream>
#include <system_error>

namespace
{

// What a failed bind's error means to whoever asked for the address.
std::string bindFailure(int error)
{
    switch (error)
    {
    case 0:
        return "failed";
    case EADDRINUSE:
        return "address in use";
    case EADDRNOTAVAIL:
        return "no such address on this host";
    case EAFNOSUPPORT:
        return "address family not supported on this host";
    default:
        break;
    }
    std::string text = std::error_code(error, std::generic_category()).message();
    if (!text.empty() && text[0] >= 'A' && text[0] <= 'Z')
    {
        text[0] = static_cast<char>(text[0] - 'A' + 'a');
    }
    return text;
}

enum EListenState
{
    LISTEN_PENDING = 0,
    LISTEN_BOUND = 1,
    LISTEN_FAILED = -1,
};

} // namespace

RunThread::RunThread(WEFTListener* listener) : tavo::Thread("weft-listener"), m_pListener(listener)
{
}

RunThread::~RunThread() = default;

void RunThread::run()
{
    m_pListener->run();
}

bool RunThread::shutdownCallback()
{
    return m_pListener->shutdownCallback();
}

WEFTListener::WEFTListener(ETransport transport)
    : m_eTransport(transport), m_pTransport(nullptr), m_port(0), m_pConnector(nullptr),
      m_bRunning(false), m_pThread(nullptr), m_listenState(LISTEN_PENDING),
      m_halfOpenLimit(EUDP_DEFAULT_HALF_OPEN_LIMIT), m_strictPeer(true),
      m_pConnectionCount(std::make_shared<std::atomic<unsigned int>>(0u))
{
}

WEFTListener::~WEFTListener()
{
    shutdown(-1);
    delete m_pThread;
    m_pThread = nullptr;
    delete m_pTransport.exchange(nullptr);
    m_pConnector = nullptr;
}

bool WEFTListener::listen(const std::string& host, unsigned short port, IWEFTConnector* connector)
{
    m_host = host;
    m_port = port;
    m_bRunning = true;
    m_pConnector = connector;
    start();
    return true;
}

bool WEFTListener::start()
{
    if (m_pThread == nullptr)
    {
        m_pThread = new RunThread(this);
    }
    if (m_pThread->isRunning())
    {
        return false;
    }
    // A listener started again replaces the transport of its previous run;
    // no thread uses that one any more.
    delete m_pTransport.exchange(nullptr);
    m_listenState = LISTEN_PENDING;
    {
        std::lock_guard<std::mutex> lock(m_listenErrorMutex);
        m_listenError.clear();
    }
    while (m_semListened.take(0) == tavo::TAKE_OK)
    {
    }
    return m_pThread->start();
}

void WEFTListener::run()
{
    TransportOptions options;
    options.strictPeer = m_strictPeer;
    options.halfOpenLimit = m_halfOpenLimit;
    options.listenBacklog = m_listenBacklog;
    options.dualStack = m_dualStack;
    // Mode requests of an accepted client wait until onConnection has set the
    // connection's policy and the connection is started.
    options.holdModeRequests = true;
    IWEFTTransport* transport = TransportFactory::create(m_eTransport, options);
    TAVO_ASSERT(m_pConnector);
    m_pTransport = transport;
    // Published before m_bRunning is looked at, so that a shutdown racing
    // with this start either sees the transport and closes it or is seen here.
    const tavo::HostAddress address(m_host);
    // The sockets leave errno as the failed call set it.
    errno = 0;
    const bool bound = transport->listen(address, m_port);
    if (!bound)
    {
        const std::string why = address.isValid() ? bindFailure(errno) : "unknown host";
        weftLog(tavo::LOG_LEVEL_ERROR) << "WEFT: cannot bind " << address.getEndpointString(m_port)
                                       << ": " << why << std::endl;
        std::lock_guard<std::mutex> lock(m_listenErrorMutex);
        m_listenError = why;
    }
    m_listenState = bound ? LISTEN_BOUND : LISTEN_FAILED;
    m_semListened.give();
    if (!bound)
    {
        return;
    }

    for (;;)
    {
        if (!m_bRunning)
        {
            break;
        }
        IWEFTTransport* accepted = transport->accept();
        if (!m_bRunning)
        {
            // Accepted while shutting down: released rather than handed over.
            delete accepted;
            break;
        }
        if (accepted == nullptr)
        {
            weftLog(tavo::LOG_LEVEL_ERROR)
                << "WEFT: failed to accept incoming connection" << std::endl;
            return;
        }
        const unsigned int limit = m_maxConnections;
        if (limit != WEFT_NO_CONNECTION_LIMIT && *m_pConnectionCount >= limit)
        {
            weftLog(tavo::LOG_LEVEL_WARNING)
                << "WEFT: refusing a connection: " << limit
                << " connections already (the listener's limit)" << std::endl;
            accepted->disconnect();
            delete accepted;
            continue;
        }
        WEFTConnection* connection = new WEFTConnection(accepted);
        ++*m_pConnectionCount;
        connection->m_pListenerCount = m_pConnectionCount;
        connection->m_countedByListener = true;
        m_pConnector->onConnection(connection);
        connection->start();
        connection->updateStatus(CONN_STATUS_CONNECTED);
    }
    weftLog(tavo::LOG_LEVEL_INFO) << "WEFT: listener is shut down" << std::endl;
}

bool WEFTListener::shutdown(int timeout)
{
    if (m_pThread == nullptr)
    {
        return false;
    }
    return m_pThread->shutdown(timeout);
}

bool WEFTListener::shutdownCallback()
{
    m_bRunning = false;
    if (IWEFTTransport* transport = m_pTransport.load())
    {
        transport->disconnect();
    }
    return true;
}

bool WEFTListener::waitForListen(unsigned int timeoutMs)
{
    if (m_listenState == LISTEN_PENDING)
    {
        m_semListened.take(timeoutMs);
    }
    return m_listenState == LISTEN_BOUND;
}

void WEFTListener::setHalfOpenLimit(unsigned int limit)
{
    m_halfOpenLimit = limit;
}

void WEFTListener::setMaxConnections(unsigned int limit)
{
    m_maxConnections = limit;
}

void WEFTListener::setListenBacklog(int backlog)
{
    m_listenBacklog = backlog;
}

void WEFTListener::setDualStack(bool on)
{
    m_dualStack = on;
}

std::string WEFTListener::getListenError() const
{
    std::lock_guard<std::mutex> lock(m_listenErrorMutex);
    return m_listenError;
}

void WEFTListener::setStrictPeer(bool strict)
{
    m_strictPeer = strict;
}

unsigned short WEFTListener::getLocalPort() const
{
    IWEFTTransport* transport = m_pTransport.load();
    return transport != nullptr && m_listenState == LISTEN_BOUND ? transport->getLocalPort() : 0;
}
