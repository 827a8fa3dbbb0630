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

#include <weft/IWEFTClient.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTPacket.h>

#include <deque>
#include <memory>

using fuzz::Bytes;
namespace reference = fuzz::reference;

namespace
{

// Hands out queued messages on the caller's thread and keeps what is sent.
class ScriptTransport : public IWEFTTransport
{
public:
    std::deque<Bytes> m_incoming;
    std::vector<Bytes> m_sent;

    bool setWindowSize(uint) override { return false; }
    bool listen(const tavo::HostAddress&, uint16) override { return false; }
    IWEFTTransport* accept() override { return nullptr; }
    void allowSendMode(bool, bool) override {}
    void allowReceiveMode(bool, bool) override {}
    bool setSendMode(EConnMode) override { return false; }
    bool setReceiveMode(EConnMode) override { return false; }
    // Refused, so that connect() only records the client and starts no
    // thread: the receive loop then runs on the fuzzer's thread.
    bool connect(const tavo::HostAddress&, uint16) override { return false; }
    void disconnect() override {}

    bool sendData(const uint8* data, uint length) override
    {
        m_sent.emplace_back(data, data + length);
        return true;
    }

    // As a real transport: never an empty message, -1 for one longer than
    // `size`, 0 once nothing is left.
    int receiveData(uint8* buffer, uint size) override
    {
        while (!m_incoming.empty())
        {
            const Bytes message = m_incoming.front();
            m_incoming.pop_front();
            if (message.empty())
            {
                continue;
            }
            if (message.size() > size)
            {
                return -1;
            }
            std::memcpy(buffer, message.data(), message.size());
            return static_cast<int>(message.size());
        }
        return 0;
    }

    tavo::HostAddress getPeerAddress() const override { return tavo::HostAddress(); }
    uint16 getPeerPort() const override { return 0; }
    uint16 getLocalPort() const override { return 0; }
};

// One delivery to the application: the command letter ('s' and 'c' for a
// status reaching the server or the client), the name and the item.
struct Event
{
    char command = 0;
    std::string name;
    ParameterValue value;
    ParameterList params;
    Bytes list; // the delivered list's form
    // Whether every read of the message succeeded.
    bool whole = true;
    // The item's form as the bytes say, when whole.
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
        record('T', name, &value, nullptr);
    }
    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        record('U', name, &value, nullptr);
    }
    void onSubscribe(const std::string& name) override { record('S', name, nullptr, nullptr); }
    void onUnsubscribe(const std::string& name) override { record('X', name, nullptr, nullptr); }
    void onCallFunctionId(const std::string& name, const ParameterList& params) override
    {
        record('F', name, nullptr, &params);
    }
    // Both interfaces name it alike; the two statuses are told apart below.
    void onStatus(EConnStatus status) override
    {
        record(status == CONN_STATUS_DISCONNECTED ? 'd' : 'u', "", nullptr, nullptr);
    }

private:
    void record(char command, const std::string& name, const ParameterValue* value,
                const ParameterList* list)
    {
        Event event;
        event.command = command;
        event.name = name;
        if (value != nullptr)
        {
            event.value = *value;
        }
        if (list != nullptr)
        {
            event.params = *list;
            event.list = fuzz::listForm(*list);
        }
        m_events.push_back(event);
    }
};

std::string line(int level, const std::string& text)
{
    return fuzz::str(level) + " " + text;
}

void checkLines(fuzz::LogLines& log, const std::vector<std::string>& wanted, const char* when,
                const Bytes& message)
{
    const std::vector<std::string> lines = log.take();
    FUZZ_CHECK(lines == wanted, std::string(when) + " of " + fuzz::hex(message) + " logged" +
                                    fuzz::join(lines) + "\n  wanted" + fuzz::join(wanted));
}

// Reads one message as the receive loop does, checking every step against
// the bytes. Appends what the loop delivers and logs.
void readLikeTheLoop(const Bytes& message, bool hasClient, bool hasServer, fuzz::LogLines& log,
                     std::vector<Event>& delivered, std::vector<std::string>& loopLines)
{
    WEFTPacket packet;
    std::memcpy(packet.getBuffer(), message.data(), message.size());
    packet.setReadPos(WEFT_HEADER_SIZE);
    const std::size_t size = message.size();

    // Validation: version first, then the header, then the size it states.
    std::vector<std::string> wanted;
    if (message[0] != WEFT_VERSION)
    {
        wanted.push_back(line(3, "WEFT: packet validation failed: wrong version"));
    }
    else if (size < WEFT_HEADER_SIZE)
    {
        wanted.push_back(line(3, "WEFT: packet validation failed: header too short"));
    }
    else if (size != static_cast<std::size_t>(message[2] | message[3] << 8) + WEFT_HEADER_SIZE)
    {
        wanted.push_back(line(3, "WEFT: packet validation failed: wrong packet size"));
    }
    const bool valid = packet.validatePacket(static_cast<unsigned int>(size));
    FUZZ_CHECK(valid == wanted.empty() && packet.getLength() == size,
               "validation said " + fuzz::str(valid) + " with length " +
                   fuzz::str(packet.getLength()) + " for " + fuzz::hex(message));
    checkLines(log, wanted, "validation", message);
    if (!valid)
    {
        loopLines.insert(loopLines.end(), wanted.begin(), wanted.end());
        loopLines.push_back(line(3, "WEFT: discarding invalid packet"));
        return;
    }

    const int command = static_cast<signed char>(packet.getCommand());
    const bool forServer =
        command == WEFT_CMD_SUBSCRIBE || command == WEFT_CMD_UNSUBSCRIBE || command == WEFT_CMD_FID;
    const bool forClient = command == WEFT_CMD_TRIGGER || command == WEFT_CMD_UPDATE_STATE;
    if (!forServer && !forClient)
    {
        return;
    }
    if ((forServer && !hasServer) || (forClient && !hasClient))
    {
        const char* what = command == WEFT_CMD_SUBSCRIBE     ? "subscribe cmd (no server"
                           : command == WEFT_CMD_UNSUBSCRIBE ? "unsubscribe cmd (no server"
                           : command == WEFT_CMD_FID         ? "FID cmd (no server"
                           : command == WEFT_CMD_TRIGGER     ? "trigger cmd (no client"
                                                             : "update state cmd (no client";
        loopLines.push_back(
            line(3, std::string("WEFT: received unexpected ") + what + " available)"));
        return;
    }

    Event event;
    event.command = static_cast<char>(command);
    // The name: the bytes up to the first zero; none, and the position stays.
    std::size_t position = WEFT_HEADER_SIZE;
    const uint8* nul =
        static_cast<const uint8*>(std::memchr(message.data() + position, 0, size - position));
    event.name = packet.getString();
    if (nul != nullptr)
    {
        const std::size_t end = static_cast<std::size_t>(nul - message.data());
        const std::string name(message.begin() + static_cast<std::ptrdiff_t>(position),
                               message.begin() + static_cast<std::ptrdiff_t>(end));
        FUZZ_CHECK(event.name == name, "read the name [" + event.name + "], not [" + name + "]");
        position = end + 1;
        checkLines(log, {}, "reading the name", message);
    }
    else
    {
        FUZZ_CHECK(event.name.empty(), "read [" + event.name + "] without a terminator");
        event.whole = false;
        wanted = {line(2, "WEFT: unterminated string in packet")};
        checkLines(log, wanted, "reading the name", message);
        loopLines.insert(loopLines.end(), wanted.begin(), wanted.end());
    }
    FUZZ_CHECK(packet.getReadPos() == position, "read position " + fuzz::str(packet.getReadPos()) +
                                                    " after the name, not " +
                                                    fuzz::str(static_cast<long long>(position)));

    if (command == WEFT_CMD_FID)
    {
        packet.getParameterList(event.params);
        event.list = fuzz::listForm(event.params);
        reference::Entries entries;
        const std::size_t consumed =
            reference::list(message.data() + position, size - position, entries);
        const Bytes form = reference::encode(entries);
        FUZZ_CHECK(event.list == form, "read the list " + fuzz::hex(event.list) + ", wanted " +
                                           fuzz::hex(form) + " from " + fuzz::hex(message));
        event.form = form;
        position += consumed;
        if (consumed == 0)
        {
            event.whole = false;
            wanted = {line(2, "WEFT: failed to parse parameter list")};
            loopLines.insert(loopLines.end(), wanted.begin(), wanted.end());
        }
        else
        {
            wanted.clear();
        }
        checkLines(log, wanted, "reading the list", message);
    }
    else if (forClient)
    {
        packet.getParameterValue(event.value);
        std::size_t consumed = 0;
        const std::optional<Bytes> form =
            reference::value(message.data() + position, size - position, consumed);
        if (form)
        {
            const Bytes written = fuzz::valueForm(event.value);
            FUZZ_CHECK(written == *form, "read the value " + fuzz::describe(event.value) +
                                             ", wanted " + fuzz::hex(*form) + " from " +
                                             fuzz::hex(message));
            event.form = *form;
            position += consumed;
            wanted.clear();
        }
        else
        {
            event.whole = false;
            wanted = {line(2, "WEFT: failed to parse parameter value")};
            loopLines.insert(loopLines.end(), wanted.begin(), wanted.end());
        }
        checkLines(log, wanted, "reading the value", message);
    }
    FUZZ_CHECK(packet.getReadPos() == position && position <= size,
               "read position " + fuzz::str(packet.getReadPos()) + " at the end, not " +
                   fuzz::str(static_cast<long long>(position)) + " of " +
                   fuzz::str(static_cast<long long>(size)));
    delivered.push_back(event);
}

// Runs `messages` through the packet reader and through the connection's
// receive loop, which must deliver and log the same; returns the deliveries.
std::vector<Event> receive(const std::vector<Bytes>& messages, bool hasClient, bool hasServer,
                           fuzz::LogLines& log)
{
    std::vector<Event> wanted;
    std::vector<std::string> loopLines;
    for (const Bytes& message : messages)
    {
        if (message.empty())
        {
            continue;
        }
        if (message.size() > WEFT_MAX_PACKET_SIZE)
        {
            // The transport reports -1 and the loop ends.
            break;
        }
        readLikeTheLoop(message, hasClient, hasServer, log, wanted, loopLines);
    }

    auto transport = new ScriptTransport();
    transport->m_incoming.assign(messages.begin(), messages.end());
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
    log.take();
    connection.run();

    const std::vector<std::string> lines = log.take();
    FUZZ_CHECK(lines == loopLines,
               "the loop logged" + fuzz::join(lines) + "\n  wanted" + fuzz::join(loopLines));
    // The client's and the server's calls were recorded apart; the reader
    // knows which went where. Each object, if set, hears of the end last.
    std::size_t nextClient = 0, nextServer = 0;
    for (const Event& event : wanted)
    {
        const bool toClient = event.command == 'T' || event.command == 'U';
        Recorder& recorder = toClient ? client : server;
        std::size_t& next = toClient ? nextClient : nextServer;
        FUZZ_CHECK(next + 1 < recorder.m_events.size(),
                   "the loop did not deliver " + describe(event));
        const Event& delivered = recorder.m_events[next++];
        FUZZ_CHECK(sameEvent(delivered, event),
                   "the loop delivered " + describe(delivered) + ", wanted " + describe(event));
    }
    FUZZ_CHECK(client.m_events.size() == (hasClient ? nextClient + 1 : 0) &&
                   server.m_events.size() == (hasServer ? nextServer + 1 : 0),
               "the loop delivered " + fuzz::str(static_cast<long long>(client.m_events.size())) +
                   " client and " + fuzz::str(static_cast<long long>(server.m_events.size())) +
                   " server calls, wanted " + fuzz::str(static_cast<long long>(nextClient)) +
                   " and " + fuzz::str(static_cast<long long>(nextServer)) + " and the ends");
    FUZZ_CHECK((!hasClient || client.m_events.back().command == 'd') &&
                   (!hasServer || server.m_events.back().command == 'd'),
               "the loop ended without reporting the disconnection");
    return wanted;
}

// The message a request builds for `event`, as the format says.
Bytes wantedMessage(const Event& event)
{
    Bytes message{WEFT_VERSION, static_cast<uint8>(event.command), 0, 0};
    message.insert(message.end(), event.name.begin(), event.name.end());
    message.push_back(0);
    message.insert(message.end(), event.form.begin(), event.form.end());
    const std::size_t payload = message.size() - WEFT_HEADER_SIZE;
    message[2] = static_cast<uint8>(payload);
    message[3] = static_cast<uint8>(payload >> 8);
    return message;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const uint8 flags = input.u8();
    const bool hasClient = (flags & 1) != 0;
    const bool hasServer = (flags & 2) != 0;
    const std::vector<Bytes> messages = input.chunks(WEFT_MAX_PACKET_SIZE + 1);

    fuzz::LogLines log;
    const std::vector<Event> delivered = receive(messages, hasClient, hasServer, log);

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
    const std::vector<Bytes> sent = transport->m_sent;
    FUZZ_CHECK(sent.size() == delivered.size(),
               "sent " + fuzz::str(static_cast<long long>(sent.size())) + " of " +
                   fuzz::str(static_cast<long long>(delivered.size())) + " requests");
    for (std::size_t i = 0; i < sent.size(); ++i)
    {
        if (delivered[i].whole)
        {
            const Bytes wanted = wantedMessage(delivered[i]);
            // A message read whole fits again: its canonical form is no longer.
            FUZZ_CHECK(sent[i] == wanted, "sent " + fuzz::hex(sent[i]) + "\n  wanted " +
                                              fuzz::hex(wanted) + " for " + describe(delivered[i]));
        }
    }
    log.take();

    // And they arrive again as they were sent.
    const std::vector<Event> again = receive(sent, true, true, log);
    FUZZ_CHECK(again.size() == delivered.size(),
               "the requests sent back were delivered " +
                   fuzz::str(static_cast<long long>(again.size())) + " times, not " +
                   fuzz::str(static_cast<long long>(delivered.size())));
    for (std::size_t i = 0; i < again.size(); ++i)
    {
        if (delivered[i].whole)
        {
            FUZZ_CHECK(sameEvent(again[i], delivered[i]),
                       "sent " + describe(delivered[i]) + ", received " + describe(again[i]));
        }
    }
    return 0;
}
