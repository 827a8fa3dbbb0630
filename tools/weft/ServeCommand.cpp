#include "ServeCommand.h"

#include "AddressFilter.h"
#include "Common.h"
#include "HostLookup.h"
#include "Input.h"
#include "MessageSize.h"
#include "Outbox.h"
#include "Printer.h"
#include "Signals.h"
#include "ValueSyntax.h"

#include <weft/Constants.h>
#include <weft/IWEFTConnector.h>
#include <weft/IWEFTNegotiationObserver.h>
#include <weft/IWEFTServer.h>
#include <weft/WEFTConnection.h>
#include <weft/WEFTListener.h>

#include <malloc.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

namespace weftcli
{

const char* const SERVE_STDIN_HELP = R"(commands on stdin (one per line; quote words with spaces):
  update NAME VALUE            store VALUE as NAME's state and send it to NAME's subscribers
  trigger NAME VALUE           send a trigger to NAME's subscribers
  broadcast update NAME VALUE  the same, to every connected client, subscribed or not
  broadcast trigger NAME VALUE
  clients                      list the connected clients and their subscriptions
  help                         this list
  quit                         disconnect everyone and stop)";

namespace
{

const char* const COMMAND = "weft serve";

void allowed(EAllowModes modes, bool& realtime, bool& reliable)
{
    realtime = modes != ALLOW_RELIABLE;
    reliable = modes != ALLOW_REALTIME;
}

class Server;

// One accepted connection and what its client subscribed to.
class Session : public IWEFTServer, public IWEFTNegotiationObserver
{
public:
    Session(Server& server, int id, WEFTConnection* connection)
        : m_server(server), m_id(id), m_connection(connection)
    {
    }

    void onSubscribe(const std::string& name) override;
    void onUnsubscribe(const std::string& name) override;
    void onCallFunctionId(const std::string& name, const ParameterList& params) override;
    void onStatus(EConnStatus status) override;
    void onModeRequest(EConnMode askedSend, EConnMode askedReceive, bool granted, EConnMode send,
                       EConnMode receive) override;
    void onWindowRequest(unsigned int size) override;

    Server& m_server;
    const int m_id;
    const std::unique_ptr<WEFTConnection> m_connection;
    // Declared after the connection, so that its thread ends first.
    std::unique_ptr<Outbox> m_outbox;
    const std::string m_peer =
        joinHostPort(m_connection->getPeerAddress(), m_connection->getPeerPort());
    // Guarded by the server's mutex.
    std::set<std::string> m_subscriptions;
    // The listener has reported the connection up (it does not touch it
    // after that) and the connection has ended: only then may it go.
    bool m_started = false;
    bool m_closed = false;
};

class Server : public IWEFTConnector
{
public:
    Server(const ServeOptions& options, const AddressFilter& allowed, Printer& printer)
        : m_options(options), m_allowed(allowed), m_printer(printer)
    {
    }

    void onConnection(WEFTConnection* connection) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto session = std::make_unique<Session>(*this, ++m_lastId, connection);
        Session* pSession = session.get();
        session->m_outbox = std::make_unique<Outbox>(
            *connection,
            [this, pSession]
            {
                m_printer.event(
                    prefix(*pSession) + "reads too slowly (" + std::to_string(Outbox::LIMIT) +
                        " messages waiting): disconnected",
                    JsonObject().addString("event", "too-slow").addInt("client", pSession->m_id));
            });
        connection->setServer(session.get());
        connection->setNegotiationObserver(session.get());
        // Before the connection starts, so the client's first request meets
        // the restriction.
        if (m_options.allowSend != ALLOW_BOTH || m_options.allowReceive != ALLOW_BOTH)
        {
            bool realtime = true;
            bool reliable = true;
            allowed(m_options.allowSend, realtime, reliable);
            connection->allowSendMode(realtime, reliable);
            allowed(m_options.allowReceive, realtime, reliable);
            connection->allowReceiveMode(realtime, reliable);
        }
        if (!m_allowed.allows(connection->getPeerAddress()))
        {
            // Closed before it starts: its receive loop ends at once and the
            // session goes with the other ended ones.
            m_printer.event("client " + std::to_string(session->m_id) + " from " + session->m_peer +
                                " refused (not in --allow)",
                            JsonObject()
                                .addString("event", "refused")
                                .addInt("client", session->m_id)
                                .addString("peer", session->m_peer));
            connection->disconnect();
            m_sessions.push_back(std::move(session));
            return;
        }
        m_printer.event("client " + std::to_string(session->m_id) + " connected from " +
                            session->m_peer,
                        JsonObject()
                            .addString("event", "connected")
                            .addInt("client", session->m_id)
                            .addString("peer", session->m_peer));
        m_sessions.push_back(std::move(session));
    }

    // Answers with the item's value when there is one. Queued under the
    // lock, so a subscriber never gets an older value after a newer one.
    void subscribe(Session& session, const std::string& name)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (session.m_subscriptions.count(name) == 0 &&
            session.m_subscriptions.size() >= m_options.maxSubscriptions)
        {
            m_printer.event(prefix(session) + "subscribe " + quoted(name) + " refused (" +
                                std::to_string(m_options.maxSubscriptions) +
                                " subscriptions already)",
                            JsonObject()
                                .addString("event", "subscribe")
                                .addInt("client", session.m_id)
                                .addString("name", name)
                                .addBool("refused", true));
            return;
        }
        session.m_subscriptions.insert(name);
        JsonObject json;
        json.addString("event", "subscribe").addInt("client", session.m_id).addString("name", name);
        std::string text = prefix(session) + "subscribe " + quoted(name);
        const auto value = m_values.find(name);
        if (value != m_values.end())
        {
            const bool sent = session.m_outbox->push(false, name, value->second);
            json.addBool("answered", sent).addTypedValue(value->second);
            text += sent ? " (answered with " + valueText(value->second) + ")"
                         : " (could not send its value)";
        }
        m_printer.event(text, json);
    }

    void unsubscribe(Session& session, const std::string& name)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        session.m_subscriptions.erase(name);
        m_printer.event(prefix(session) + "unsubscribe " + quoted(name),
                        JsonObject()
                            .addString("event", "unsubscribe")
                            .addInt("client", session.m_id)
                            .addString("name", name));
    }

    // Under the lock, like every event of a session, so that a call answering
    // a push is never printed above the push.
    void call(Session& session, const std::string& name, const ParameterList& params)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::string list = listText(params);
        m_printer.event(prefix(session) + "call " + quoted(name) + (list.empty() ? "" : " ") + list,
                        JsonObject()
                            .addString("event", "call")
                            .addInt("client", session.m_id)
                            .addString("name", name)
                            .addRaw("params", jsonList(params)));
    }

    // A client's mode request: what it asked for this side's sending and
    // receiving, and what is in force now.
    void modeRequest(Session& session, EConnMode askedSend, EConnMode askedReceive, bool granted,
                     EConnMode send, EConnMode receive)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::string asked;
        if (askedSend != CONN_MODE_DONT_CARE)
        {
            asked += std::string(" send ") + modeName(askedSend);
        }
        if (askedReceive != CONN_MODE_DONT_CARE)
        {
            asked += std::string(" receive ") + modeName(askedReceive);
        }
        m_printer.event(prefix(session) + "asks" + (asked.empty() ? " the modes" : asked) + ": " +
                            (granted ? "granted" : "refused") + " (sending " + modeName(send) +
                            ", receiving " + modeName(receive) + ")",
                        JsonObject()
                            .addString("event", "mode")
                            .addInt("client", session.m_id)
                            .addString("send", modeName(askedSend))
                            .addString("receive", modeName(askedReceive))
                            .addBool("granted", granted)
                            .addString("sending", modeName(send))
                            .addString("receiving", modeName(receive)));
    }

    void windowRequest(Session& session, unsigned int size)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_printer.event(prefix(session) + "sets the window to " + std::to_string(size) +
                            ": granted",
                        JsonObject()
                            .addString("event", "window")
                            .addInt("client", session.m_id)
                            .addInt("size", static_cast<int>(size))
                            .addBool("granted", true));
    }

    // CONNECTED comes from the listener's thread (the connection was
    // announced in onConnection), DISCONNECTED from the connection's, in
    // either order when a client leaves at once.
    void status(Session& session, EConnStatus status)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (status == CONN_STATUS_CONNECTED)
        {
            session.m_started = true;
        }
        else
        {
            session.m_closed = true;
            m_printer.event(
                prefix(session) + "disconnected",
                JsonObject().addString("event", "disconnected").addInt("client", session.m_id));
        }
        if (session.m_started && session.m_closed)
        {
            Wakeup::instance().notify(WAKE_DISCONNECTED);
        }
    }

    // Sends to the subscribers of `name`, or to everyone; an update is kept
    // as the item's value.
    void push(bool trigger, bool broadcast, const std::string& name, const ParameterValue& value)
    {
        const char* kind = trigger ? "trigger" : "update";
        const std::string tooLarge = whyItDoesNotFit(kind, name, &value);
        if (!tooLarge.empty())
        {
            m_printer.error(COMMAND, tooLarge);
            return;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!trigger)
        {
            m_values.insert_or_assign(name, value);
        }
        int sent = 0;
        for (const auto& session : m_sessions)
        {
            if (session->m_closed || (!broadcast && session->m_subscriptions.count(name) == 0))
            {
                continue;
            }
            // Queued: each client's own thread sends, so a slow one holds up
            // no one else.
            sent += session->m_outbox->push(trigger, name, value) ? 1 : 0;
        }
        m_printer.event(std::string(kind) + " " + quoted(name) + " " + valueText(value) +
                            " sent to " + std::to_string(sent) +
                            (sent == 1 ? " client" : " clients"),
                        JsonObject()
                            .addString("event", kind)
                            .addString("name", name)
                            .addTypedValue(value)
                            .addInt("clients", sent)
                            .addBool("broadcast", broadcast));
    }

    void listClients()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& session : m_sessions)
        {
            std::string names;
            std::string json = "[";
            for (const std::string& name : session->m_subscriptions)
            {
                names += " " + quoted(name);
                json += (json.size() > 1 ? "," : "") + jsonString(name);
            }
            m_printer.event(prefix(*session) + session->m_peer + " subscribed to" +
                                (names.empty() ? " nothing" : names),
                            JsonObject()
                                .addString("event", "client")
                                .addInt("client", session->m_id)
                                .addString("peer", session->m_peer)
                                .addRaw("subscriptions", json + "]"));
        }
        m_printer.event(std::to_string(m_sessions.size()) + " connected",
                        JsonObject()
                            .addString("event", "clients")
                            .addInt("count", static_cast<long long>(m_sessions.size())));
    }

    // Disconnects and releases ended sessions (all of them with `all`); a
    // receive thread cannot end its own connection, so the main thread does.
    void release(bool all)
    {
        std::vector<std::unique_ptr<Session>> ended;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (auto it = m_sessions.begin(); it != m_sessions.end();)
            {
                if (all || ((*it)->m_started && (*it)->m_closed))
                {
                    ended.push_back(std::move(*it));
                    it = m_sessions.erase(it);
                }
                else
                {
                    ++it;
                }
            }
        }
        // Outside the lock: disconnect waits for the receive thread, whose
        // callbacks take the lock.
        for (auto& session : ended)
        {
            session->m_connection->disconnect();
        }
        if (!ended.empty())
        {
            ended.clear();
            // What a client took (its subscriptions, its connection's
            // buffers) goes back to the system, not only to the heap.
            ::malloc_trim(0);
        }
    }

private:
    static std::string prefix(const Session& session)
    {
        return "client " + std::to_string(session.m_id) + " ";
    }

    const ServeOptions& m_options;
    const AddressFilter& m_allowed;
    Printer& m_printer;
    std::mutex m_mutex;
    int m_lastId = 0;
    std::vector<std::unique_ptr<Session>> m_sessions;
    std::map<std::string, ParameterValue> m_values;
};

void Session::onSubscribe(const std::string& name)
{
    m_server.subscribe(*this, name);
}

void Session::onUnsubscribe(const std::string& name)
{
    m_server.unsubscribe(*this, name);
}

void Session::onCallFunctionId(const std::string& name, const ParameterList& params)
{
    m_server.call(*this, name, params);
}

void Session::onStatus(EConnStatus status)
{
    m_server.status(*this, status);
}

void Session::onModeRequest(EConnMode askedSend, EConnMode askedReceive, bool granted,
                            EConnMode send, EConnMode receive)
{
    m_server.modeRequest(*this, askedSend, askedReceive, granted, send, receive);
}

void Session::onWindowRequest(unsigned int size)
{
    m_server.windowRequest(*this, size);
}

// Runs one stdin command; false when it asks to stop.
bool runCommand(Server& server, Printer& printer, const std::string& line)
{
    std::vector<std::string> words;
    if (!commandWords(line, printer, COMMAND, words))
    {
        return true;
    }
    const bool broadcast = words[0] == "broadcast";
    if (broadcast)
    {
        words.erase(words.begin());
    }
    const std::string verb = words.empty() ? "" : words[0];
    if (verb == "update" || verb == "trigger")
    {
        ParameterValue value;
        std::string error;
        if (words.size() != 3)
        {
            printer.error(COMMAND, "expected: " + std::string(broadcast ? "broadcast " : "") +
                                       verb + " NAME VALUE (quote a value with spaces)");
        }
        else if (!parseValue(words[2], value, error))
        {
            printer.error(COMMAND, error);
        }
        else
        {
            server.push(verb == "trigger", broadcast, words[1], value);
        }
        return true;
    }
    if (!broadcast && verb == "clients")
    {
        server.listClients();
        return true;
    }
    if (!broadcast && verb == "help")
    {
        printer.line(SERVE_STDIN_HELP);
        return true;
    }
    if (!broadcast && verb == "quit")
    {
        return false;
    }
    printer.error(COMMAND, "unknown command '" + line + "' (try: help)");
    return true;
}

} // namespace

std::string checkServeOptions(const ServeOptions& options)
{
    AddressFilter filter;
    std::string error;
    if (!filter.parse(options.allowFrom, error))
    {
        return "--allow: " + error;
    }
    if ((options.allowSend != ALLOW_BOTH || options.allowReceive != ALLOW_BOTH) &&
        options.transport != TRANSPORT_EUDP)
    {
        return "--allow-send and --allow-receive apply to --transport eudp only";
    }
    return "";
}

int runServe(const ServeOptions& options)
{
    Printer printer(options.json, options.timestamps);
    AddressFilter allowed;
    std::string error;
    allowed.parse(options.allowFrom, error); // checked with the arguments
    Server server(options, allowed, printer);
    const std::string host = !options.host.empty()                         ? options.host
                             : options.family == tavo::ADDRESS_FAMILY_IPV6 ? "::1"
                                                                           : "127.0.0.1";
    const std::string where =
        std::string(transportName(options.transport)) + " " + joinHostPort(host, options.port);
    WEFTListener listener(options.transport);
    listener.setMaxConnections(options.maxClients);
    listener.setDualStack(options.family != tavo::ADDRESS_FAMILY_IPV6);
    bool listening = false;
    tavo::HostAddress address;
    {
        BusyScope busy("", EXIT_FAILED);
        if (!resolveHost(host, options.family, address, error))
        {
            printer.error(COMMAND, "cannot listen on " + where + ": " + error);
            return EXIT_FAILED;
        }
        // The address found, so that the library does not look the name up again.
        listener.listen(address.getAddressString(), options.port, &server);
        listening = listener.waitForListen(WEFT_TOOL_LISTEN_WAIT_MS);
    }
    if (!listening)
    {
        const std::string why = listener.getListenError();
        printer.error(COMMAND, "cannot listen on " + where + ": " +
                                   (why.empty() ? "no answer from the listener" : why));
        listener.shutdown(-1);
        return EXIT_FAILED;
    }
    const unsigned short port = listener.getLocalPort();
    const bool loopbackOnly = address.isIpv6() ? address == tavo::HostAddress::loopbackIpv6()
                                               : address.getAddress() >> 24 == 127;
    printer.event(std::string("listening on ") + transportName(options.transport) + " " +
                      joinHostPort(host, port),
                  JsonObject()
                      .addString("event", "listening")
                      .addString("transport", transportName(options.transport))
                      .addString("host", host)
                      .addInt("port", port)
                      .addBool("loopback", loopbackOnly));
    if (loopbackOnly && !options.json)
    {
        printer.line("only programs on this host can connect; --host :: or --host 0.0.0.0 opens "
                     "the server to the network");
    }

    InputLoop input(Wakeup::instance(), InputLoop::stdinUsable());
    for (bool running = true; running;)
    {
        const InputEvent event = input.next(std::nullopt);
        switch (event.kind)
        {
        case InputEvent::INPUT_LINE:
            running = runCommand(server, printer, event.text);
            break;
        case InputEvent::INPUT_WAKE:
            server.release(false);
            running = event.text.find(WAKE_SIGNAL) == std::string::npos;
            break;
        case InputEvent::INPUT_END:
        case InputEvent::INPUT_TIMEOUT:
            break;
        }
    }
    // No new connection after this; then every client is told.
    listener.shutdown(-1);
    server.release(true);
    printer.event("stopped", JsonObject().addString("event", "stopped"));
    return stoppedCode(Wakeup::instance().signal());
}

} // namespace weftcli
