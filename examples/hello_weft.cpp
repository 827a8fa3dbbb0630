// A server and a client in one process, over loopback TCP: the whole API on a page.
#include <weft/IWEFTClient.h>
#include <weft/IWEFTConnector.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <tavo/Semaphore.h>

#include <cstdio>
#include <iostream>

class Server : public IWEFTServer, public IWEFTConnector
{
public:
    void onConnection(WEFTConnection* connection) override
    {
        m_pConnection = connection;
        connection->setServer(this); // before the connection starts
    }
    void onSubscribe(const std::string& name) override
    {
        std::printf("server: subscribe %s\n", name.c_str());
        m_pConnection->updateState(name, ParameterValue(0.75f)); // answer with the current value
    }
    void onUnsubscribe(const std::string& name) override
    {
        std::printf("server: unsubscribe %s\n", name.c_str());
    }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        std::printf("server: call %s( ", name.c_str());
        params.print(std::cout);
        std::cout << ")" << std::endl;
        m_pConnection->trigger("done", ParameterValue(true));
    }
    void onStatus(EConnStatus status) override
    {
        std::printf("server: %s\n", status == CONN_STATUS_CONNECTED ? "connected" : "disconnected");
        m_statusSeen.give();
    }

    WEFTConnection* m_pConnection = nullptr;
    tavo::BinarySemaphore m_statusSeen;
};

class Client : public IWEFTClient
{
public:
    void onTrigger(const std::string& name, const ParameterValue& value) override
    {
        std::printf("client: trigger %s = %s\n", name.c_str(), value.getAsString().c_str());
        m_received.give();
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        std::printf("client: update %s = %s\n", name.c_str(), value.getAsString().c_str());
        m_received.give();
    }
    void onStatus(EConnStatus status) override
    {
        std::printf("client: %s\n", status == CONN_STATUS_CONNECTED ? "connected" : "disconnected");
    }

    tavo::BinarySemaphore m_received;
};

int main()
{
    weftInit();
    Server server;
    WEFTListener listener(TRANSPORT_TCP);
    listener.listen("127.0.0.1", 0, &server);
    if (!listener.waitForListen(5000))
    {
        return 1;
    }

    Client client;
    WEFTConnection connection(TRANSPORT_TCP);
    if (!connection.connect("127.0.0.1", listener.getLocalPort(), &client))
    {
        return 1;
    }
    server.m_statusSeen.take(5000);

    connection.subscribe("volume");
    client.m_received.take(5000);
    ParameterList params;
    params.addString("clip", "intro");
    params.addBoolean("loop", true);
    connection.callFunctionId("play", params);
    client.m_received.take(5000);
    connection.unsubscribe("volume");

    connection.disconnect();
    server.m_statusSeen.take(5000);
    listener.shutdown(-1);
    delete server.m_pConnection; // accepted connections belong to the application
    weftDeinit();
    return 0;
}
