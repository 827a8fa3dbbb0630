// Feeds the fuzzer's bytes, cut into messages, to a connection's receive loop
// and, beside it, reads each message with a packet exactly as the loop does
// (validate, dispatch on the command, read the name and the parameter item).
// Both are checked against what the bytes themselves say; then every request
// delivered is sent back through the connection's own request calls and
// must arrive again unchanged.
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

// One delivery to the application: the command letter ('d' for the end of
// the connection), the name and the item.
struct Event
{
    char command = 0;
    std::string name;
    ParameterValue value;
    ParameterList params;
    Bytes list; // the delivered list's form
    // Whether every read of the message succeeded, and if so the item's form
    // as the bytes say.
    bool whole = true;
    Bytes form;
};

std::string describe(const Event& event)
{
    return std::string(1, event.command) + " [" + event.name + "] " + fuzz::describe(event.value) +
           " list " + fuzz::hex(event.list);
}

bool sameEvent(const Event& a, const Event& b)
{
    return a.command == b.command && a.name == b.name && fuzz::sameValue(a.value, b.value) &&
           a.list == b.list;
}

class Recorder : public IWEFTClient, public IWEFTServer
{
public:
    std::vector<Event> m_events;

    void onTrigger(const std::string& name, const ParameterValue& value) override
    {
        record('T', name).value = value;
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        record('U', name).value = value;
    }
    void onSubscribe(const std::string& name) override { record('S', name); }
    void onUnsubscribe(const std::string& name) override { record('X', name); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        Event& event = record('F', name);
        event.params = params;
        event.list = fuzz::listForm(params);
    }
    // Both interfaces name it alike; the loop only ever reports the end.
    void onStatus(EConnStatus status) override
    {
        record(status == CONN_STATUS_DISCONNECTED ? 'd' : 'u', "");
    }

private:
    Event& record(char command, const std::string& name)
    {
        m_events.emplace_back();
        m_events.back().command = command;
        m_events.back().name = name;
        return m_events.back();
    }
};

std::string line(int level, const std::string& text)
{
    return fuzz::str(level) + " " + text;
}

// Reads one message as the receive loop does, checking every step and the
// lines logged against the bytes. Appends what the loop delivers and logs.
void readLikeTheLoop(const Bytes& message, bool hasClient, bool hasServer, LogCapture& log,
                     std::vector<Event>& delivered, std::vector<std::string>& loopLines)
{
    WEFTPacket packet;
    std::memcpy(packet.getBuffer(), message.data(), message.size());
    packet.setReadPos(WEFT_HEADER_SIZE);
    const std::size_t size = message.size();
    std::vector<std::string> wanted; // the lines reading the packet logs

    // Validation: version first, then the header, then the size it states.
    const char* invalid =
        message[0] != WEFT_VERSION ? "wrong version"
        : size < WEFT_HEADER_SIZE  ? "header too short"
        : size != static_cast<std::size_t>(message[2] | message[3] << 8) + WEFT_HEADER_SIZE
            ? "wrong packet size"
            : nullptr;
    const bool valid = packet.validatePacket(static_cast<unsigned int>(size));
    FUZZ_CHECK(valid == (invalid == nullptr) && packet.getLength() == size,
               "validation said " + fuzz::str(valid) + " with length " +
                   fuzz::str(packet.getLength()) + " for " + fuzz::hex(message));
    const auto checkLogged = [&]
    {
        const std::vector<std::string> lines = fuzz::take(log);
        FUZZ_CHECK(lines == wanted, "reading " + fuzz::hex(message) + " logged" +
                                        fuzz::join(lines) + "\n  wanted" + fuzz::join(wanted));
        loopLines.insert(loopLines.end(), wanted.begin(), wanted.end());
    };
    if (!valid)
    {
        wanted.push_back(line(3, std::string("WEFT: packet validation failed: ") + invalid));
        checkLogged();
        loopLines.push_back(line(3, "WEFT: discarding invalid packet"));
        return;
    }

    Event event;
    event.command = static_cast<char>(packet.getCommand());
    const int command = static_cast<signed char>(event.command);
    const bool forServer =
        command == WEFT_CMD_SUBSCRIBE || command == WEFT_CMD_UNSUBSCRIBE || command == WEFT_CMD_FID;
    const bool forClient = command == WEFT_CMD_TRIGGER || command == WEFT_CMD_UPDATE_STATE;
    if (!(forServer && hasServer) && !(forClient && hasClient))
    {
        checkLogged();
        const char* what = command == WEFT_CMD_SUBSCRIBE     ? "subscribe cmd (no server"
                           : command == WEFT_CMD_UNSUBSCRIBE ? "unsubscribe cmd (no server"
                           : command == WEFT_CMD_FID         ? "FID cmd (no server"
                           : command == WEFT_CMD_TRIGGER     ? "trigger cmd (no client"
                                                             : "update state cmd (no client";
        if (forServer || forClient)
        {
            loopLines.push_back(
                line(3, std::string("WEFT: received unexpected ") + what + " available)"));
        }
        return;
    }

    // The name: the bytes up to the first zero; none, and the position stays.
    std::size_t position = WEFT_HEADER_SIZE;
    const uint8* nul =
        static_cast<const uint8*>(std::memchr(message.data() + position, 0, size - position));
    const std::string name = nul == nullptr ? "" : std::string(message.data() + position, nul);
    event.name = packet.getString();
    FUZZ_CHECK(event.name == name, "read the name [" + event.name + "], not [" + name + "]");
    if (nul == nullptr)
    {
        event.whole = false;
        wanted.push_back(line(2, "WEFT: unterminated string in packet"));
    }
    position = nul == nullptr ? position : static_cast<std::size_t>(nul - message.data()) + 1;
    FUZZ_CHECK(packet.getReadPos() == position, "read position " + fuzz::str(packet.getReadPos()) +
                                                    " after the name, not " + fuzz::str(position));

    std::size_t consumed = 0;
    if (command == WEFT_CMD_FID)
    {
        packet.getParameterList(event.params);
        event.list = fuzz::listForm(event.params);
        fuzz::reference::Entries entries;
        consumed = fuzz::reference::list(message.data() + position, size - position, entries);
        event.form = fuzz::reference::encode(entries);
        FUZZ_CHECK(event.list == event.form, "read the list " + fuzz::hex(event.list) +
                                                 ", wanted " + fuzz::hex(event.form) + " from " +
                                                 fuzz::hex(message));
        if (consumed == 0)
        {
            wanted.push_back(line(2, "WEFT: failed to parse parameter list"));
        }
    }
    else if (forClient)
    {
        packet.getParameterValue(event.value);
        const std::optional<Bytes> form =
            fuzz::reference::value(message.data() + position, size - position, consumed);
        if (form)
        {
            const Bytes written = fuzz::valueForm(event.value);
            FUZZ_CHECK(written == *form, "read the value " + fuzz::describe(event.value) +
                                             ", wanted " + fuzz::hex(*form) + " from " +
                                             fuzz::hex(message));
            event.form = *form;
        }
        else
        {
            wanted.push_back(line(2, "WEFT: failed to parse parameter value"));
        }
    }
    // Subscriptions read the name alone.
    event.whole = event.whole && ((!forClient && command != WEFT_CMD_FID) || consumed > 0);
    position += consumed;
    FUZZ_CHECK(packet.getReadPos() == position && position <= size,
               "read position " + fuzz::str(packet.getReadPos()) + " at the end, not " +
                   fuzz::str(position) + " of " + fuzz::str(size));
    checkLogged();
    delivered.push_back(event);
}

// What `recorder` heard: `wanted`, then, if it was set, the end.
void expectDelivered(const Recorder& recorder, bool set, std::vector<Event> wanted)
{
    if (set)
    {
        wanted.emplace_back();
        wanted.back().command = 'd';
    }
    const std::vector<Event>& heard = recorder.m_events;
    for (std::size_t i = 0; i < std::max(heard.size(), wanted.size()); ++i)
    {
        FUZZ_CHECK(i < heard.size() && i < wanted.size() && sameEvent(heard[i], wanted[i]),
                   "call " + fuzz::str(i) + " of the loop was " +
                       (i < heard.size() ? describe(heard[i]) : "missing") + ", wanted " +
                       (i < wanted.size() ? describe(wanted[i]) : "none"));
    }
}

// Runs `messages` through the packet reader and through the connection's
// receive loop, which must deliver and log the same; returns the deliveries.
std::vector<Event> receive(const std::vector<Bytes>& messages, bool hasClient, bool hasServer,
                           LogCapture& log)
{
    std::vector<Event> wanted;
    std::vector<std::string> loopLines;
    for (const Bytes& message : messages)
    {
        // The transport reports -1 for a message longer than a packet and
        // the loop ends.
        if (message.size() > WEFT_MAX_PACKET_SIZE)
        {
            break;
        }
        if (!message.empty())
        {
            readLikeTheLoop(message, hasClient, hasServer, log, wanted, loopLines);
        }
    }

    // As a real transport, never an empty message; then the end.
    auto transport = new ScriptTransport();
    for (const Bytes& message : messages)
    {
        if (!message.empty())
        {
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
    fuzz::take(log);
    connection.run();

    const std::vector<std::string> lines = fuzz::take(log);
    FUZZ_CHECK(lines == loopLines,
               "the loop logged" + fuzz::join(lines) + "\n  wanted" + fuzz::join(loopLines));
    std::vector<Event> toClient, toServer;
    for (const Event& event : wanted)
    {
        (event.command == 'T' || event.command == 'U' ? toClient : toServer).push_back(event);
    }
    expectDelivered(client, hasClient, toClient);
    expectDelivered(server, hasServer, toServer);
    return wanted;
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

    LogCapture log;
    const std::vector<Event> delivered = receive(messages, (flags & 1) != 0, (flags & 2) != 0, log);

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
                       fuzz::hex(wantedMessage(delivered[i])) + " for " + describe(delivered[i]));
    }
    fuzz::take(log);

    // And they arrive again as they were sent.
    const std::vector<Event> again = receive(sent, true, true, log);
    FUZZ_CHECK(again.size() == delivered.size(), "the requests sent back were delivered " +
                                                     fuzz::str(again.size()) + " times, not " +
                                                     fuzz::str(delivered.size()));
    for (std::size_t i = 0; i < again.size(); ++i)
    {
        FUZZ_CHECK(!delivered[i].whole || sameEvent(again[i], delivered[i]),
                   "sent " + describe(delivered[i]) + ", received " + describe(again[i]));
    }
    return 0;
}
