// The smallest useful weft server: answers every subscription with the
// item's value and prints the functions its clients call.
//   minimal_server [PORT]      (stop it with Enter or end of input)
#include <weft/IWEFTConnector.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// One per client: the library calls it on that connection's own thread.
class Session : public IWEFTServer
{
public:
    explicit Session(WEFTConnection* connection) : m_connection(connection) {}

    void onSubscribe(const std::string& name) override
    {
        std::printf("subscribe %s\n", name.c_str());
        m_connection->updateState(name, ParameterValue("hello from the server"));
    }
    void onUnsubscribe(const std::string& name) override
    {
        std::printf("unsubscribe %s\n", name.c_str());
    }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        std::string text;
        std::string key;
        std::string value;
        for (unsigned int i = 0; params.getParam(i, key, value); ++i)
        {
            text += " " + key + "=" + value;
        }
        std::printf("call %s%s\n", name.c_str(), text.c_str());
    }
    void onStatus(EConnStatus status) override
    {
        std::printf("client %s\n", status == CONN_STATUS_CONNECTED ? "connected" : "disconnected");
    }

    std::unique_ptr<WEFTConnection> m_connection;
};

// Called on the listener's thread for each new client.
class Connector : public IWEFTConnector
{
public:
    void onConnection(WEFTConnection* connection) override
    {
        auto session = std::make_unique<Session>(connection);
        connection->setServer(session.get()); // before the connection starts
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessions.push_back(std::move(session));
    }

    void disconnectAll()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& session : m_sessions)
        {
            session->m_connection->disconnect();
        }
        m_sessions.clear();
    }

private:
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Session>> m_sessions;
};

int main(int argc, char** argv)
{
    const unsigned short port = static_cast<unsigned short>(argc > 1 ? std::atoi(argv[1]) : 7420);
    weftInit();
    int result = 0;
    {
        Connector connector;
        WEFTListener listener(TRANSPORT_TCP);
        listener.listen("0.0.0.0", port, &connector);
        if (listener.waitForListen(5000))
        {
            std::printf("listening on port %u; press Enter to stop\n", listener.getLocalPort());
            std::getchar();
        }
        else
        {
            std::fprintf(stderr, "cannot listen on port %u\n", port);
            result = 1;
        }
        listener.shutdown(-1);
        connector.disconnectAll();
    }
    weftDeinit();
    return result;
}
