// Feeds the fuzzer's bytes, cut into messages, to a connection's receive loop,
// which must neither crash nor read past a message (the sanitizers watch) and
// must end with the bytes. Then every delivery is sent back through the
// connection's own request calls and must arrive again unchanged.
//
// Input: one byte of flags (bit 0: a client is set, bit 1: a server is set),
// then messages, each behind a little-endian 16-bit length.

#include "FuzzSupport.h"

#include "support/QueueTransport.h"

#include <weft/IWEFTClient.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>

namespace
{

// Refuses to connect, so that connect() only records the client and starts no
// thread: the receive loop then runs on the fuzzer's thread.
class ScriptTransport : public QueueTransport
{
public:
    bool connect(const tavo::HostAddress&, uint16) override { return false; }
};

// One delivery: the command letter ('d' for the end of the connection), the
// name, the item and its form.
struct Event
{
    char command = 0;
    std::string name;
    ParameterValue value;
    ParameterList params;
    Bytes form;
};

std::string describe(const Event& event)
{
    return std::string(1, event.command) + " [" + event.name + "] " + fuzz::hex(event.form);
}

class Recorder : public IWEFTClient, public IWEFTServer
{
public:
    std::vector<Event> m_events;

    void onTrigger(const std::string& name, const ParameterValue& value) override
    {
        record('T', name, value, ParameterList());
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        record('U', name, value, ParameterList());
    }
    void onSubscribe(const std::string& name) override { record('S', name); }
    void onUnsubscribe(const std::string& name) override { record('X', name); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        record('F', name, ParameterValue(), params);
    }
    // Both interfaces name it alike; the loop only ever reports the end.
    void onStatus(EConnStatus status) override
    {
        record(status == CONN_STATUS_DISCONNECTED ? 'd' : 'u', "");
    }

private:
    void record(char command, const std::string& name, const ParameterValue& value = {},
                const ParameterList& params = {})
    {
        m_events.push_back({command, name, value, params,
                            command == 'F'                     ? fuzz::formOf(params)
                            : command == 'T' || command == 'U' ? fuzz::formOf(value)
                                                               : Bytes()});
    }
};

// Runs `messages` through the connection's receive loop and returns what it
// delivered, client's first; the loop must end with the bytes.
std::vector<Event> receive(const std::vector<Bytes>& messages, bool hasClient, bool hasServer)
{
    auto transport = new ScriptTransport();
    for (const Bytes& message : messages)
    {
        // The transport never hands out an empty message.
        if (!message.empty())
        {
            transport->queue(message);
        }
    }
    transport->disconnect();
    WEFTConnection connection(transport);
    Recorder client, server;
    if (hasClient)
    {
        connection.connect("127.0.0.1", 1, &client);
    }
    if (hasServer)
    {
        connection.setServer(&server);
    }
    connection.run();

    std::vector<Event> delivered;
    for (const Recorder* side : {&client, &server})
    {
        // Each side that is set hears the end, last.
        const bool set = side == &client ? hasClient : hasServer;
        FUZZ_CHECK(!set || (!side->m_events.empty() && side->m_events.back().command == 'd'),
                   "a side did not hear the end of the connection");
        delivered.insert(delivered.end(), side->m_events.begin(),
                         side->m_events.end() - (set ? 1 : 0));
    }
    return delivered;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startQuietly();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const uint8 flags = static_cast<uint8>(input.number(1));
    const std::vector<Bytes> messages = input.chunks(WEFT_MAX_PACKET_SIZE + 1);
    const std::vector<Event> delivered = receive(messages, (flags & 1) != 0, (flags & 2) != 0);

    // Every delivery sent back through the request calls, which take it.
    auto transport = new ScriptTransport();
    WEFTConnection sender(transport);
    for (const Event& e : delivered)
    {
        FUZZ_CHECK(e.command == 'S'   ? sender.subscribe(e.name)
                   : e.command == 'X' ? sender.unsubscribe(e.name)
                   : e.command == 'T' ? sender.trigger(e.name, e.value)
                   : e.command == 'U' ? sender.updateState(e.name, e.value)
                                      : sender.callFunctionId(e.name, e.params),
                   "refused to send back " + describe(e));
    }
    const std::vector<Bytes> sent = transport->sent();
    FUZZ_CHECK(sent.size() == delivered.size(), "sent " + std::to_string(sent.size()) + " of " +
                                                    std::to_string(delivered.size()) + " requests");
    // And they arrive again as they were sent.
    const std::vector<Event> again = receive(sent, true, true);
    FUZZ_CHECK(again.size() == delivered.size(),
               "sent back, delivered " + std::to_string(again.size()));
    for (std::size_t i = 0; i < again.size(); ++i)
    {
        FUZZ_CHECK(again[i].command == delivered[i].command && again[i].name == delivered[i].name &&
                       again[i].form == delivered[i].form,
                   "sent " + describe(delivered[i]) + ", received " + describe(again[i]));
    }
    return 0;
}
