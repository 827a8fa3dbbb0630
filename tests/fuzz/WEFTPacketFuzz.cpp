// Feeds the fuzzer's bytes, cut into messages, to a connection's receive loop:
// what it delivers must be what the bytes say, read with the reference
// reader of the format. Then every delivery is sent back through the
// connection's own request calls, which must write the canonical message,
// and arrives again unchanged.
//
// Input: one byte of flags (bit 0: a client is set, bit 1: a server is set),
// then messages, each behind a little-endian 16-bit length.

#include "FuzzSupport.h"

#include "support/QueueTransport.h"

#include <weft/IWEFTClient.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTPacket.h>

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
// name, the item and its form; `whole` when the bytes held all of it.
struct Event
{
    char command = 0;
    std::string name;
    ParameterValue value;
    ParameterList params;
    Bytes form;
    bool whole = true;
};

std::string describe(const Event& event)
{
    return std::string(1, event.command) + " [" + event.name + "] " + fuzz::hex(event.form);
}

// The form of an item that was cut short is the library's own business.
bool sameEvent(const Event& heard, const Event& wanted)
{
    return heard.command == wanted.command && heard.name == wanted.name &&
           (!wanted.whole || heard.form == wanted.form);
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
        Event event;
        event.command = command;
        event.name = name;
        event.value = value;
        event.params = params;
        event.form = command == 'F'                     ? fuzz::formOf(params)
                     : command == 'T' || command == 'U' ? fuzz::formOf(value)
                                                        : Bytes();
        m_events.push_back(event);
    }
};

// What the loop must deliver for one message, read from the bytes alone.
void readFromTheBytes(const Bytes& message, bool hasClient, bool hasServer,
                      std::vector<Event>& wanted)
{
    const std::size_t size = message.size();
    if (message[0] != WEFT_VERSION || size < WEFT_HEADER_SIZE ||
        size != static_cast<std::size_t>(message[2] | message[3] << 8) + WEFT_HEADER_SIZE)
    {
        return;
    }
    Event event;
    event.command = static_cast<char>(message[1]);
    const int command = static_cast<signed char>(event.command);
    const bool forServer =
        command == WEFT_CMD_SUBSCRIBE || command == WEFT_CMD_UNSUBSCRIBE || command == WEFT_CMD_FID;
    const bool forClient = command == WEFT_CMD_TRIGGER || command == WEFT_CMD_UPDATE_STATE;
    if (!(forServer && hasServer) && !(forClient && hasClient))
    {
        return;
    }
    // The name: the bytes up to the first zero; none, and the reading stays.
    std::size_t position = WEFT_HEADER_SIZE;
    const uint8* nul =
        static_cast<const uint8*>(std::memchr(message.data() + position, 0, size - position));
    if (nul != nullptr)
    {
        event.name.assign(message.data() + position, nul);
        position = static_cast<std::size_t>(nul - message.data()) + 1;
    }
    event.whole = nul != nullptr;
    std::size_t consumed = 0;
    if (command == WEFT_CMD_FID)
    {
        fuzz::reference::Entries entries;
        consumed = fuzz::reference::list(message.data() + position, size - position, entries);
        // The entries read before a failure stay.
        event.form = fuzz::reference::encode(entries);
        event.whole = event.whole && consumed > 0;
    }
    else if (forClient)
    {
        const auto form =
            fuzz::reference::value(message.data() + position, size - position, consumed);
        event.form = form.value_or(Bytes());
        event.whole = event.whole && form.has_value();
    }
    wanted.push_back(event);
}

// Runs `messages` through the connection's receive loop, which must deliver
// what the bytes say; returns the deliveries.
std::vector<Event> receive(const std::vector<Bytes>& messages, bool hasClient, bool hasServer)
{
    std::vector<Event> wanted;
    auto transport = new ScriptTransport();
    for (const Bytes& message : messages)
    {
        // The transport reports -1 for a message longer than a packet and
        // the loop ends; it never hands out an empty one.
        if (message.size() > WEFT_MAX_PACKET_SIZE)
        {
            break;
        }
        if (!message.empty())
        {
            readFromTheBytes(message, hasClient, hasServer, wanted);
            transport->queue(message);
        }
    }
    transport->disconnect();
    WEFTConnection connection(transport);
    Recorder client;
    Recorder server;
    if (hasClient)
    {
        connection.connect("127.0.0.1", 1, &client);
    }
    if (hasServer)
    {
        connection.setServer(&server);
    }
    connection.run();

    // Each side hears its own deliveries in order, then the end.
    std::vector<Event> heard;
    for (const Event& event : client.m_events)
    {
        heard.push_back(event);
    }
    for (const Event& event : server.m_events)
    {
        heard.push_back(event);
    }
    std::vector<Event> sorted;
    for (const bool toClient : {true, false})
    {
        for (const Event& event : wanted)
        {
            if ((event.command == 'T' || event.command == 'U') == toClient)
            {
                sorted.push_back(event);
            }
        }
        if (toClient ? hasClient : hasServer)
        {
            sorted.emplace_back();
            sorted.back().command = 'd';
        }
    }
    for (std::size_t i = 0; i < std::max(heard.size(), sorted.size()); ++i)
    {
        FUZZ_CHECK(i < heard.size() && i < sorted.size() && sameEvent(heard[i], sorted[i]),
                   "delivery " + fuzz::str(i) + " was " +
                       (i < heard.size() ? describe(heard[i]) : "missing") + ", wanted " +
                       (i < sorted.size() ? describe(sorted[i]) : "none"));
    }
    std::vector<Event> delivered;
    for (std::size_t i = 0; i < heard.size(); ++i)
    {
        if (heard[i].command != 'd')
        {
            delivered.push_back(heard[i]);
            delivered.back().whole = sorted[i].whole;
        }
    }
    return delivered;
}

// The message a request builds for `event`, as the format says.
Bytes wantedMessage(const Event& event)
{
    const std::size_t payload = event.name.size() + 1 + event.form.size();
    Bytes message{WEFT_VERSION, static_cast<uint8>(event.command), static_cast<uint8>(payload),
                  static_cast<uint8>(payload >> 8)};
    message.insert(message.end(), event.name.begin(), event.name.end());
    message.push_back(0);
    message.insert(message.end(), event.form.begin(), event.form.end());
    return message;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const uint8 flags = input.u8();
    const std::vector<Bytes> messages = input.chunks(WEFT_MAX_PACKET_SIZE + 1);
    const std::vector<Event> delivered = receive(messages, (flags & 1) != 0, (flags & 2) != 0);

    // Every delivery sent back through the request calls, which build the
    // message in the format's canonical form.
    auto transport = new ScriptTransport();
    WEFTConnection sender(transport);
    for (const Event& event : delivered)
    {
        switch (event.command)
        {
        case 'S':
            sender.subscribe(event.name);
            break;
        case 'X':
            sender.unsubscribe(event.name);
            break;
        case 'T':
            sender.trigger(event.name, event.value);
            break;
        case 'U':
            sender.updateState(event.name, event.value);
            break;
        default:
            sender.callFunctionId(event.name, event.params);
            break;
        }
    }
    const std::vector<Bytes> sent = transport->sent();
    FUZZ_CHECK(sent.size() == delivered.size(), "sent " + fuzz::str(sent.size()) + " of " +
                                                    fuzz::str(delivered.size()) + " requests");
    for (std::size_t i = 0; i < sent.size(); ++i)
    {
        // A message read whole fits again: its canonical form is no longer.
        FUZZ_CHECK(!delivered[i].whole || sent[i] == wantedMessage(delivered[i]),
                   "sent " + fuzz::hex(sent[i]) + "\n  wanted " +
                       fuzz::hex(wantedMessage(delivered[i])));
    }
    // And they arrive again as they were sent.
    const std::vector<Event> again = receive(sent, true, true);
    FUZZ_CHECK(again.size() == delivered.size(), "sent back, delivered " + fuzz::str(again.size()));
    for (std::size_t i = 0; i < again.size(); ++i)
    {
        FUZZ_CHECK(!delivered[i].whole || sameEvent(again[i], delivered[i]),
                   "sent " + describe(delivered[i]) + ", received " + describe(again[i]));
    }
    return 0;
}
