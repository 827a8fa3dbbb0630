// A weft peer in a process of its own, for tests that kill it mid-stream.
//
//   FaultPeer server tcp|eudp          listens on 127.0.0.1, prints "port N",
//                                      and streams state updates to the first
//                                      client that connects
//   FaultPeer client tcp|eudp PORT     connects to 127.0.0.1:PORT, prints
//                                      "connected", and streams function calls
//
// Each message carries its number. The stream goes on until the connection
// ends (exit 0) or the process is killed; it also dies with its parent.

#include <weft/IWEFTClient.h>
#include <weft/IWEFTConnector.h>
#include <weft/IWEFTServer.h>
#include <weft/Init.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/Semaphore.h>

#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

// Paced, so that the stream is steady without loading a shared machine.
constexpr auto STREAM_PERIOD = std::chrono::milliseconds(5);
constexpr unsigned int ACCEPT_WAIT_MS = 60000;

// Streams out and ignores whatever comes in.
class Quiet : public IWEFTClient, public IWEFTServer
{
public:
    void onTrigger(const std::string&, const ParameterValue&) override {}
    void onUpdateState(const std::string&, const ParameterValue&) override {}
    void onSubscribe(const std::string&) override {}
    void onUnsubscribe(const std::string&) override {}
    void onCallFunctionId(const std::string&, const ParameterList&) override {}
    void onStatus(EConnStatus) override {}
};

// Keeps the first connection and lets main() know it is there.
class FirstConnector : public IWEFTConnector
{
public:
    void onConnection(WEFTConnection* connection) override
    {
        connection->setServer(&m_server);
        if (m_pConnection != nullptr)
        {
            // Only one stream; later peers are held but get nothing.
            m_others.emplace_back(connection);
            return;
        }
        m_pConnection = connection;
        m_arrived.give();
    }

    WEFTConnection* wait()
    {
        return m_arrived.take(ACCEPT_WAIT_MS) == tavo::TAKE_OK ? m_pConnection.load() : nullptr;
    }

private:
    Quiet m_server;
    std::atomic<WEFTConnection*> m_pConnection{nullptr};
    std::vector<std::unique_ptr<WEFTConnection>> m_others;
    tavo::BinarySemaphore m_arrived;
};

void announce(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

template <class Send>
void stream(Send send)
{
    for (int number = 0; send(number); ++number)
    {
        std::this_thread::sleep_for(STREAM_PERIOD);
    }
}

int runServer(ETransport transport)
{
    FirstConnector connector;
    WEFTListener listener(transport);
    listener.listen("127.0.0.1", 0, &connector);
    if (!listener.waitForListen(ACCEPT_WAIT_MS))
    {
        return 1;
    }
    announce("port " + std::to_string(listener.getLocalPort()));
    WEFTConnection* connection = connector.wait();
    if (connection == nullptr)
    {
        return 1;
    }
    stream([&](int number) { return connection->updateState("tick", ParameterValue(number)); });
    listener.shutdown(-1);
    connection->disconnect();
    delete connection;
    return 0;
}

int runClient(ETransport transport, unsigned short port)
{
    Quiet client;
    WEFTConnection connection(transport);
    if (!connection.connect("127.0.0.1", port, &client))
    {
        return 1;
    }
    announce("connected");
    stream(
        [&](int number)
        {
            ParameterList params;
            params.addNumeric("seq", number);
            return connection.callFunctionId("tick", params);
        });
    connection.disconnect();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    // A test that fails before it kills this process must not leave it behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string role = argc > 1 ? argv[1] : "";
    const std::string kind = argc > 2 ? argv[2] : "";
    if ((kind != "tcp" && kind != "eudp") ||
        !((role == "server" && argc == 3) || (role == "client" && argc == 4)))
    {
        std::fprintf(stderr, "usage: FaultPeer server tcp|eudp | FaultPeer client tcp|eudp PORT\n");
        return 2;
    }
    const ETransport transport = kind == "tcp" ? TRANSPORT_TCP : TRANSPORT_EUDP;
    weftInit();
    const int result = role == "server"
                           ? runServer(transport)
                           : runClient(transport, static_cast<unsigned short>(std::atoi(argv[3])));
    weftDeinit();
    return result;
}
