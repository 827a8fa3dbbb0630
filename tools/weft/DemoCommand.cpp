#include "DemoCommand.h"

#include "Common.h"
#include "ValueSyntax.h"

#include <weft/Constants.h>
#include <weft/IWEFTClient.h>
#include <weft/IWEFTConnector.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>

namespace weftcli
{

namespace
{

const char* const HOST = "127.0.0.1";

void say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

// A request on its way: "client -> server  subscribe "level"".
void request(const char* direction, const std::string& what)
{
    say(std::string(direction) + "  " + what);
}

// One callback as it happened: who got it, and what it was called with.
struct Seen
{
    std::string who;
    std::string call;
    std::string type; // of the value, for triggers and updates
};

// Callbacks arrive on library threads; the main thread prints them as it
// expects them, so the transcript reads in the conversation's order.
class Recorder
{
public:
    void add(const std::string& who, const std::string& call, const std::string& type = "")
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_pending.push_back({who, call, type});
        }
        m_arrived.notify_all();
    }

    // Waits for the callback, prints it and takes it off the list; false
    // after the step's time without it.
    bool expect(const std::string& who, const std::string& call, const std::string& type = "")
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto found = [&]()
        {
            for (auto it = m_pending.begin(); it != m_pending.end(); ++it)
            {
                if (it->who == who && it->call == call && it->type == type)
                {
                    m_pending.erase(it);
                    return true;
                }
            }
            return false;
        };
        if (!m_arrived.wait_for(lock, std::chrono::milliseconds(WEFT_TOOL_DEMO_STEP_MS), found))
        {
            std::fprintf(stderr, "weft demo: step failed: %s: %s%s did not happen within %u ms\n",
                         who.c_str(), call.c_str(), type.empty() ? "" : (" [" + type + "]").c_str(),
                         WEFT_TOOL_DEMO_STEP_MS);
            for (const Seen& seen : m_pending)
            {
                std::fprintf(stderr, "weft demo:   seen instead: %s: %s [%s]\n", seen.who.c_str(),
                             seen.call.c_str(), seen.type.c_str());
            }
            return false;
        }
        lock.unlock();
        say(who + ": " + call + (type.empty() ? "" : "  [" + type + "]"));
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<Seen> m_pending;
};

std::string callText(const char* callback, const std::string& name, const std::string& rest)
{
    return std::string(callback) + "(" + quoted(name) + ", " + rest + ")";
}

std::string statusText(EConnStatus status)
{
    return status == CONN_STATUS_CONNECTED ? "onStatus(CONNECTED)" : "onStatus(DISCONNECTED)";
}

class DemoClient : public IWEFTClient
{
public:
    explicit DemoClient(Recorder& recorder) : m_recorder(recorder) {}

    void onTrigger(const std::string& name, const ParameterValue& value) override
    {
        m_recorder.add("client", callText("onTrigger", name, valueText(value)), typeName(value));
    }

    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        m_recorder.add("client", callText("onUpdateState", name, valueText(value)),
                       typeName(value));
    }

    void onStatus(EConnStatus status) override { m_recorder.add("client", statusText(status)); }

private:
    Recorder& m_recorder;
};

// The server side: takes the one connection the demo makes and records
// what arrives on it.
class DemoServer : public IWEFTConnector, public IWEFTServer
{
public:
    explicit DemoServer(Recorder& recorder) : m_recorder(recorder) {}

    ~DemoServer() override { close(); }

    void onConnection(WEFTConnection* connection) override
    {
        connection->setServer(this);
        m_connection = connection;
        m_recorder.add("server", "onConnection(from " + connection->getPeerAddress() + ":" +
                                     std::to_string(connection->getPeerPort()) + ")");
    }

    void onSubscribe(const std::string& name) override
    {
        m_recorder.add("server", "onSubscribe(" + quoted(name) + ")");
    }

    void onUnsubscribe(const std::string& name) override
    {
        m_recorder.add("server", "onUnsubscribe(" + quoted(name) + ")");
    }

    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        m_recorder.add("server", callText("onCallFunctionId", name, "{" + listText(params) + "}"));
    }

    void onStatus(EConnStatus status) override { m_recorder.add("server", statusText(status)); }

    // Valid once onConnection was seen.
    WEFTConnection& connection() { return *m_connection; }

    void close()
    {
        if (WEFTConnection* connection = m_connection.exchange(nullptr))
        {
            connection->disconnect();
            delete connection;
        }
    }

private:
    Recorder& m_recorder;
    std::atomic<WEFTConnection*> m_connection{nullptr};
};

// The values the server sends: one of every kind.
struct Push
{
    bool trigger;
    const char* name;
    ParameterValue value;
};

bool conversation(ETransport transport)
{
    const bool eudp = transport == TRANSPORT_EUDP;
    say(std::string("=== ") + (eudp ? "EUDP" : "TCP") +
        ": a server and a client over loopback ===");
    Recorder recorder;
    DemoServer server(recorder);
    WEFTListener listener(transport);
    listener.listen(HOST, 0, &server);
    if (!listener.waitForListen(WEFT_TOOL_LISTEN_WAIT_MS))
    {
        std::fprintf(stderr, "weft demo: step failed: the server could not listen on %s\n", HOST);
        return false;
    }
    const std::string address = std::string(HOST) + ":" + std::to_string(listener.getLocalPort());
    say("server: listening on " + address + " over " + transportName(transport));

    DemoClient client(recorder);
    WEFTConnection connection(transport);
    request("client -> server", "connect " + address);
    if (!connection.connect(HOST, listener.getLocalPort(), &client))
    {
        std::fprintf(stderr, "weft demo: step failed: the client could not connect to %s\n",
                     address.c_str());
        return false;
    }
    const std::string clientAddress =
        std::string(HOST) + ":" + std::to_string(connection.getLocalPort());
    if (!recorder.expect("server", "onConnection(from " + clientAddress + ")") ||
        !recorder.expect("server", statusText(CONN_STATUS_CONNECTED)) ||
        !recorder.expect("client", statusText(CONN_STATUS_CONNECTED)))
    {
        return false;
    }

    for (const char* name : {"level", "studio"})
    {
        request("client -> server", "subscribe " + quoted(name));
        connection.subscribe(name);
        if (!recorder.expect("server", "onSubscribe(" + quoted(name) + ")"))
        {
            return false;
        }
    }

    const Push pushes[] = {
        {false, "level", ParameterValue(42)},
        {false, "level", ParameterValue(0.75f)},
        {false, "studio", ParameterValue("studio A")},
        {true, "studio", ParameterValue(true)},
        {true, "studio", ParameterValue()},
    };
    for (const Push& push : pushes)
    {
        const char* verb = push.trigger ? "trigger " : "updateState ";
        request("server -> client", verb + quoted(push.name) + " " + valueText(push.value) + "  (" +
                                        typeName(push.value) + ")");
        if (push.trigger)
        {
            server.connection().trigger(push.name, push.value);
        }
        else
        {
            server.connection().updateState(push.name, push.value);
        }
        if (!recorder.expect("client",
                             callText(push.trigger ? "onTrigger" : "onUpdateState", push.name,
                                      valueText(push.value)),
                             typeName(push.value)))
        {
            return false;
        }
    }

    ParameterList params;
    params.addString("clip", "intro");
    params.addNumeric("count", 3);
    params.addFloat("gain", 0.75f);
    params.addBoolean("loop", true);
    request("client -> server", "callFunctionId " + quoted("play") + " {" + listText(params) + "}");
    connection.callFunctionId("play", params);
    if (!recorder.expect("server",
                         callText("onCallFunctionId", "play", "{" + listText(params) + "}")))
    {
        return false;
    }

    if (eudp)
    {
        say("(EUDP delivers each direction real-time by default; the client asks for reliable)");
        request("client -> server",
                "setSendMode(reliable)      what the server sends to the client");
        if (!connection.setSendMode(CONN_MODE_RELIABLE))
        {
            std::fprintf(stderr, "weft demo: step failed: setSendMode(reliable) refused\n");
            return false;
        }
        say("client: setSendMode -> agreed");
        request("client -> server",
                "setReceiveMode(reliable)   what the client sends to the server");
        if (!connection.setReceiveMode(CONN_MODE_RELIABLE))
        {
            std::fprintf(stderr, "weft demo: step failed: setReceiveMode(reliable) refused\n");
            return false;
        }
        say("client: setReceiveMode -> agreed");
        request("client -> server", "setWindowSize(32)          messages the server may have in "
                                    "flight unacknowledged");
        if (!connection.setWindowSize(32))
        {
            std::fprintf(stderr, "weft demo: step failed: setWindowSize(32) refused\n");
            return false;
        }
        say("client: setWindowSize -> agreed");

        request("server -> client", "updateState " + quoted("level") + " 1.5  (float, reliable)");
        server.connection().updateState("level", ParameterValue(1.5f));
        if (!recorder.expect("client", callText("onUpdateState", "level", "1.5"), "float"))
        {
            return false;
        }
        request("client -> server", "callFunctionId " + quoted("stop") + " {}  (reliable)");
        connection.callFunctionId("stop", ParameterList());
        if (!recorder.expect("server", callText("onCallFunctionId", "stop", "{}")))
        {
            return false;
        }
    }

    for (const char* name : {"level", "studio"})
    {
        request("client -> server", "unsubscribe " + quoted(name));
        connection.unsubscribe(name);
        if (!recorder.expect("server", "onUnsubscribe(" + quoted(name) + ")"))
        {
            return false;
        }
    }

    request("client -> server", "disconnect");
    connection.disconnect();
    if (!recorder.expect("client", statusText(CONN_STATUS_DISCONNECTED)) ||
        !recorder.expect("server", statusText(CONN_STATUS_DISCONNECTED)))
    {
        return false;
    }
    listener.shutdown(-1);
    server.close();
    say(std::string(eudp ? "EUDP" : "TCP") + " conversation complete");
    say("");
    return true;
}

} // namespace

int runDemo(const DemoOptions& options)
{
    say("weft demo: one process runs a server and a client. Each request is shown as it is");
    say("sent (\"client -> server\"), each callback as it arrives (\"server: onSubscribe\").");
    say("");
    for (ETransport transport : {TRANSPORT_TCP, TRANSPORT_EUDP})
    {
        if ((options.transport == "both" || options.transport == transportName(transport)) &&
            !conversation(transport))
        {
            return EXIT_FAILED;
        }
    }
    say("demo finished: every step was seen");
    return EXIT_OK;
}

} // namespace weftcli
