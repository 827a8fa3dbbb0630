// The smallest useful weft client: subscribes to an item, waits for its
// value, calls a function and disconnects.
//   minimal_client [HOST [PORT]]
#include <weft/IWEFTClient.h>
#include <weft/WEFTConnection.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

// Called on the connection's receive thread.
class Client : public IWEFTClient
{
public:
    void onTrigger(const std::string& name, const ParameterValue& value) override
    {
        std::printf("trigger %s = %s\n", name.c_str(), value.getAsString().c_str());
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        std::printf("update %s = %s\n", name.c_str(), value.getAsString().c_str());
        std::lock_guard<std::mutex> lock(m_mutex);
        m_updated = true;
        m_changed.notify_all();
    }
    void onStatus(EConnStatus status) override
    {
        std::printf("%s\n", status == CONN_STATUS_CONNECTED ? "connected" : "disconnected");
    }

    bool waitForUpdate()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [this] { return m_updated; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_updated = false;
};

int main(int argc, char** argv)
{
    const std::string host = argc > 1 ? argv[1] : "127.0.0.1";
    const unsigned short port = static_cast<unsigned short>(argc > 2 ? std::atoi(argv[2]) : 7420);
    weftInit();
    int result = 1;
    {
        Client client;
        WEFTConnection connection(TRANSPORT_TCP);
        if (connection.connect(host, port, &client))
        {
            connection.subscribe("greeting");
            if (client.waitForUpdate())
            {
                ParameterList params;
                params.addString("from", "minimal_client");
                params.addNumeric("attempt", 1);
                connection.callFunctionId("hello", params);
                result = 0;
            }
            else
            {
                std::fprintf(stderr, "no value for 'greeting' within 5 s\n");
            }
            connection.disconnect();
        }
        else
        {
            std::fprintf(stderr, "cannot connect to %s:%u\n", host.c_str(), port);
        }
    }
    weftDeinit();
    return result;
}
