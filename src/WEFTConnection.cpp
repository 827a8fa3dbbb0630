#include <weft/WEFTConnection.h>

#include "TransportFactory.h"
#include "WeftLog.h"

#include <weft/IWEFTClient.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTPacket.h>

#include <tavo/Assert.h>
#include <tavo/CmdProcessor.h>
#include <tavo/HostAddress.h>
#include <tavo/LogManager.h>

#include <ostream>

void weftInit()
{
    tavo::SingletonDll<tavo::CmdProcessor>::createInstance();
    tavo::SingletonDll<tavo::LogManager>::createInstance();
}

void weftDeinit()
{
    tavo::SingletonDll<tavo::LogManager>::destroyInstance();
    tavo::SingletonDll<tavo::CmdProcessor>::destroyInstance();
}

namespace
{

const char* requestName(EWEFTCommand command)
{
    switch (command)
    {
    case WEFT_CMD_SUBSCRIBE:
        return "subscribe";
    case WEFT_CMD_UNSUBSCRIBE:
        return "unsubscribe";
    case WEFT_CMD_TRIGGER:
        return "trigger";
    case WEFT_CMD_UPDATE_STATE:
        return "state update";
    case WEFT_CMD_FID:
        return "function call";
    }
    return "request";
}

} // namespace

RunThreadC::RunThreadC(WEFTConnection* connection)
    : tavo::Thread("weft-connection"), m_pConnection(connection)
{
}

RunThreadC::~RunThreadC() = default;

void RunThreadC::run()
{
    m_pConnection->run();
}

WEFTConnection::WEFTConnection(ETransport transport)
    : m_pTransport(TransportFactory::create(transport)), m_pClient(nullptr), m_pServer(nullptr),
      m_pLog(weftLogOutput()), m_pThread(new RunThreadC(this))
{
}

WEFTConnection::WEFTConnection(IWEFTTransport* transport)
    : m_pTransport(transport), m_pClient(nullptr), m_pServer(nullptr), m_pLog(weftLogOutput()),
      // Made here, not when the thread starts: the application may
      // disconnect a connection it was handed while the listener starts it.
      m_pThread(new RunThreadC(this))
{
}

WEFTConnection::~WEFTConnection()
{
    // An owner that forgot to disconnect must not leave the receive thread
    // using a transport that is about to be deleted.
    if (m_pThread != nullptr && m_pThread->isRunning())
    {
        TAVO_ASSERT_TEXT(!m_pThread->isCurrentThread(),
                         "connection destroyed from its own receive thread");
        if (m_pTransport != nullptr)
        {
            m_pTransport->disconnect();
        }
        m_pThread->shutdown(-1);
    }
    leaveListener();
    delete m_pTransport;
    m_pTransport = nullptr;
    delete m_pThread;
    m_pThread = nullptr;
    m_pClient = nullptr;
    m_pServer = nullptr;
    m_pLog = nullptr;
}

bool WEFTConnection::connect(const std::string& host, unsigned short port, IWEFTClient* client)
{
    m_pClient = client;
    if (!m_pTransport->connect(tavo::HostAddress(host), port))
    {
        return false;
    }
    // Reported before the receive loop starts, so that an end that comes at
    // once is never reported before the start.
    updateStatus(CONN_STATUS_CONNECTED);
    start();
    return true;
}

bool WEFTConnection::start()
{
    // An accepted EUDP connection held its client's mode requests until the
    // application had its say in onConnection; that is over now.
    TransportFactory::releaseHeldModeRequests(*m_pTransport);
    return m_pThread->start();
}

void WEFTConnection::disconnect()
{
    // The pause lets requests sent just before leave first; a connection
    // whose transport has ended has nothing left to send.
    if (!m_ended)
    {
        tavo::Thread::mssleep(WEFT_DISCONNECT_DELAY_MS);
    }
    m_pTransport->disconnect();
    if (m_pThread != nullptr)
    {
        m_pThread->shutdown(-1);
    }
}

void WEFTConnection::leaveListener()
{
    if (m_countedByListener.exchange(false) && m_pListenerCount)
    {
        --*m_pListenerCount;
    }
}

void WEFTConnection::setServer(IWEFTServer* server)
{
    m_pServer = server;
}

void WEFTConnection::updateStatus(EConnStatus status)
{
    if (IWEFTClient* client = m_pClient.load())
    {
        client->onStatus(status);
    }
    if (IWEFTServer* server = m_pServer.load())
    {
        server->onStatus(status);
    }
}

bool WEFTConnection::setWindowSize(unsigned int size)
{
    return m_pTransport->setWindowSize(size);
}

bool WEFTConnection::setSendMode(EConnMode mode)
{
    return m_pTransport->setSendMode(mode);
}

bool WEFTConnection::setReceiveMode(EConnMode mode)
{
    return m_pTransport->setReceiveMode(mode);
}

void WEFTConnection::allowSendMode(bool realtime, bool reliable)
{
    m_pTransport->allowSendMode(realtime, reliable);
}

void WEFTConnection::allowReceiveMode(bool realtime, bool reliable)
{
    m_pTransport->allowReceiveMode(realtime, reliable);
}

void WEFTConnection::setStrictPeer(bool strict)
{
    TransportFactory::setStrictPeer(*m_pTransport, strict);
}

void WEFTConnection::setSendTimeout(unsigned int timeoutMs)
{
    TransportFactory::setSendTimeout(*m_pTransport, timeoutMs);
}

void WEFTConnection::setNegotiationObserver(IWEFTNegotiationObserver* observer)
{
    TransportFactory::setNegotiationObserver(*m_pTransport, observer);
}

std::string WEFTConnection::getPeerAddress() const
{
    return m_pTransport != nullptr ? m_pTransport->getPeerAddress().getAddressString()
                                   : std::string();
}

unsigned short WEFTConnection::getPeerPort() const
{
    return m_pTransport != nullptr ? m_pTransport->getPeerPort() : 0;
}

unsigned short WEFTConnection::getLocalPort() const
{
    return m_pTransport != nullptr ? m_pTransport->getLocalPort() : 0;
}

bool WEFTConnection::sendRequest(EWEFTCommand command, const std::string& name,
                                 const ParameterValue* value, const ParameterList* list,
                                 const char* failure)
{
    // A request that does not fit in one message is refused whole: a call
    // without the parameter it depends on, or an update without its value,
    // would do the wrong thing at the other end without anyone noticing.
    const std::size_t payload = name.size() + 1 + (value != nullptr ? value->getBinarySize() : 0) +
                                (list != nullptr ? list->getBinarySize() : 0);
    if (payload > WEFT_MAX_PAYLOAD)
    {
        m_pLog->level(tavo::LOG_LEVEL_ERROR)
            << "WEFT: " << requestName(command) << " not sent: it needs " << payload
            << " bytes, a message carries at most " << WEFT_MAX_PAYLOAD << " ("
            << payload - WEFT_MAX_PAYLOAD << " too many)" << std::endl;
        return false;
    }
    WEFTPacket packet(command);
    bool built = packet.appendString(name);
    if (built && value != nullptr)
    {
        built = packet.appendParamValue(*value);
    }
    if (built && list != nullptr)
    {
        built = packet.appendParamList(*list);
    }
    if (!built)
    {
        // It fits, so its form cannot carry it: a NUL byte inside a string,
        // or more list entries than the count byte holds.
        m_pLog->level(tavo::LOG_LEVEL_ERROR)
            << "WEFT: " << requestName(command) << " not sent: it cannot be encoded" << std::endl;
        return false;
    }
    if (!m_pTransport->sendData(packet.getBuffer(), packet.getLength()))
    {
        m_pLog->level(tavo::LOG_LEVEL_DEBUG) << failure << std::endl;
        return false;
    }
    return true;
}

bool WEFTConnection::subscribe(const std::string& name)
{
    return sendRequest(WEFT_CMD_SUBSCRIBE, name, nullptr, nullptr,
                       "WEFT: failed to send subscribe cmd");
}

bool WEFTConnection::unsubscribe(const std::string& name)
{
    return sendRequest(WEFT_CMD_UNSUBSCRIBE, name, nullptr, nullptr,
                       "WEFT: failed to send unsubscribe cmd");
}

bool WEFTConnection::trigger(const std::string& name, const ParameterValue& value)
{
    return sendRequest(WEFT_CMD_TRIGGER, name, &value, nullptr, "WEFT: failed to send trigger");
}

bool WEFTConnection::updateState(const std::string& name, const ParameterValue& value)
{
    return sendRequest(WEFT_CMD_UPDATE_STATE, name, &value, nullptr,
                       "WEFT: failed to send state update");
}

bool WEFTConnection::callFunctionId(const std::string& name, const ParameterList& params)
{
    return sendRequest(WEFT_CMD_FID, name, nullptr, &params, "WEFT: failed to send FID cmd");
}

void WEFTConnection::run()
{
    WEFTPacket packet;
    for (;;)
    {
        const int received = m_pTransport->receiveData(packet.getBuffer(), WEFT_MAX_PACKET_SIZE);
        if (received < 1)
        {
            m_ended = true;
            leaveListener();
            updateStatus(CONN_STATUS_DISCONNECTED);
            return;
        }
        packet.setReadPos(WEFT_HEADER_SIZE);
        if (!packet.validatePacket(static_cast<unsigned int>(received)))
        {
            m_pLog->level(tavo::LOG_LEVEL_WARNING)
                << "WEFT: discarding invalid packet" << std::endl;
            continue;
        }
        dispatch(packet);
    }
}

void WEFTConnection::dispatch(const WEFTPacket& packet)
{
    const int command = static_cast<signed char>(packet.getCommand());
    if (command < WEFT_CMD_FID || command > WEFT_CMD_UNSUBSCRIBE)
    {
        return;
    }
    IWEFTServer* server = m_pServer.load();
    IWEFTClient* client = m_pClient.load();
    switch (command)
    {
    case WEFT_CMD_SUBSCRIBE:
        if (server == nullptr)
        {
            m_pLog->level(tavo::LOG_LEVEL_WARNING)
                << "WEFT: received unexpected subscribe cmd (no server available)" << std::endl;
            return;
        }
        server->onSubscribe(packet.getString());
        return;
    case WEFT_CMD_UNSUBSCRIBE:
        if (server == nullptr)
        {
            m_pLog->level(tavo::LOG_LEVEL_WARNING)
                << "WEFT: received unexpected unsubscribe cmd (no server available)" << std::endl;
            return;
        }
        server->onUnsubscribe(packet.getString());
        return;
    case WEFT_CMD_FID:
    {
        if (server == nullptr)
        {
            m_pLog->level(tavo::LOG_LEVEL_WARNING)
                << "WEFT: received unexpected FID cmd (no server available)" << std::endl;
            return;
        }
        ParameterList list;
        const std::string name = packet.getString();
        packet.getParameterList(list);
        server->onCallFunctionId(name, list);
        return;
    }
    case WEFT_CMD_TRIGGER:
    case WEFT_CMD_UPDATE_STATE:
    {
        const bool isTrigger = command == WEFT_CMD_TRIGGER;
        if (client == nullptr)
        {
            m_pLog->level(tavo::LOG_LEVEL_WARNING)
                << (isTrigger ? "WEFT: received unexpected trigger cmd (no client available)"
                              : "WEFT: received unexpected update state cmd (no client "
                                "available)")
                << std::endl;
            return;
        }
        ParameterValue value;
        const std::string name = packet.getString();
        packet.getParameterValue(value);
        if (isTrigger)
        {
            client->onTrigger(name, value);
        }
        else
        {
            client->onUpdateState(name, value);
        }
        return;
    }
    default:
        // Other letters in the command range carry nothing we know.
        return;
    }
}
