#include "ConnectCommand.h"

#include "Common.h"
#include "HostLookup.h"
#include "Input.h"
#include "MessageSize.h"
#include "Printer.h"
#include "Signals.h"
#include "ValueSyntax.h"

#include <weft/Constants.h>
#include <weft/IWEFTClient.h>
#include <weft/WEFTConnection.h>

#include <tavo/HostAddress.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <map>

namespace weftcli
{

const char* const CONNECT_STDIN_HELP = R"(commands on stdin (one per line; quote words with spaces):
  sub NAME                 subscribe to NAME
  unsub NAME               unsubscribe from NAME
  call NAME [K=VALUE ...]  call the function NAME with a parameter list
  send-mode MODE           EUDP: ask the server to send in MODE (realtime or reliable)
  receive-mode MODE        EUDP: ask the server to receive in MODE
  window N                 EUDP: let the server have N messages in flight
  help                     this list
  quit                     disconnect and exit)";

const std::map<std::string, EConnMode> CONNECT_MODES{{"realtime", CONN_MODE_REALTIME},
                                                     {"reliable", CONN_MODE_RELIABLE}};

namespace
{

const char* const COMMAND = "weft connect";

// Prints what arrives; tells the main thread when the connection drops or
// the wanted number of messages is in.
class Client : public IWEFTClient
{
public:
    Client(const ConnectOptions& options, Printer& printer, WEFTConnection& connection,
           const std::string& host, unsigned short port)
        : m_options(options), m_printer(printer), m_connection(connection), m_host(host),
          m_port(port)
    {
    }

    void onTrigger(const std::string& name, const ParameterValue& value) override
    {
        deliver("trigger", name, value);
    }

    void onUpdateState(const std::string& name, const ParameterValue& value) override
    {
        deliver("update", name, value);
    }

    void onStatus(EConnStatus status) override
    {
        const std::string peer = joinHostPort(m_host, m_port);
        if (status == CONN_STATUS_CONNECTED)
        {
            const unsigned short local = m_connection.getLocalPort();
            m_printer.event(std::string("connected to ") + peer + " over " +
                                transportName(m_options.transport) + " from local port " +
                                std::to_string(local),
                            JsonObject()
                                .addString("event", "connected")
                                .addString("transport", transportName(m_options.transport))
                                .addString("host", m_host)
                                .addInt("port", m_port)
                                .addInt("local_port", local));
            return;
        }
        const bool lost = !m_closing;
        m_printer.event(lost ? "disconnected: the connection to " + peer + " was lost"
                             : std::string("disconnected"),
                        JsonObject().addString("event", "disconnected").addBool("lost", lost));
        if (lost)
        {
            m_lost = true;
            Wakeup::instance().notify(WAKE_DISCONNECTED);
        }
    }

    // Set before this side disconnects, so the end is not taken for a loss.
    std::atomic<bool> m_closing{false};
    std::atomic<bool> m_lost{false};
    std::atomic<int> m_received{0};

private:
    void deliver(const char* kind, const std::string& name, const ParameterValue& value)
    {
        // Only the receive thread counts, so the limit is exact.
        const int received = m_received;
        if (m_options.count > 0 && received >= m_options.count)
        {
            return;
        }
        m_printer.event(
            std::string(kind) + " " + quoted(name) + " " + valueText(value),
            JsonObject().addString("event", kind).addString("name", name).addTypedValue(value));
        m_received = received + 1;
        if (received + 1 == m_options.count)
        {
            Wakeup::instance().notify(WAKE_COUNT);
        }
    }

    const ConnectOptions& m_options;
    Printer& m_printer;
    WEFTConnection& m_connection;
    std::string m_host;
    unsigned short m_port;
};

// The requests, printed as they go out; each false when it could not be sent.
class Requests
{
public:
    Requests(const ConnectOptions& options, WEFTConnection& connection, Printer& printer)
        : m_options(options), m_connection(connection), m_printer(printer)
    {
    }

    bool subscribe(const std::string& name, bool on)
    {
        const char* verb = on ? "subscribe" : "unsubscribe";
        return send(whyItDoesNotFit(verb, name), std::string(verb) + " " + quoted(name),
                    JsonObject().addString("event", verb).addString("name", name),
                    [&]
                    { return on ? m_connection.subscribe(name) : m_connection.unsubscribe(name); });
    }

    bool call(const std::vector<std::string>& words)
    {
        ParameterList params;
        std::string error;
        if (words.empty())
        {
            return failed("call needs a function name");
        }
        if (!parseParameters({words.begin() + 1, words.end()}, params, error))
        {
            return failed(error);
        }
        const std::string list = listText(params);
        return send(whyItDoesNotFit("call", words[0], nullptr, &params),
                    "call " + quoted(words[0]) + (list.empty() ? "" : " ") + list,
                    JsonObject()
                        .addString("event", "call")
                        .addString("name", words[0])
                        .addRaw("params", jsonList(params)),
                    [&] { return m_connection.callFunctionId(words[0], params); });
    }

    // Blocks until the server answers: at most 10 s, which is also how a
    // refusal shows.
    bool mode(bool send, EConnMode mode)
    {
        const char* direction = send ? "send" : "receive";
        if (!eudpOnly(std::string(direction) + "-mode"))
        {
            return false;
        }
        bool agreed = false;
        {
            BusyScope busy(timedOut(std::string(direction) + " mode"), EXIT_TIMEOUT);
            agreed = send ? m_connection.setSendMode(mode) : m_connection.setReceiveMode(mode);
        }
        if (!agreed)
        {
            return failed(std::string("the server did not agree to ") + direction + " mode " +
                          modeName(mode) + " within 10 s");
        }
        m_printer.event(std::string(direction) + " mode " + modeName(mode),
                        JsonObject()
                            .addString("event", "mode")
                            .addString("direction", direction)
                            .addString("mode", modeName(mode)));
        return true;
    }

    bool window(unsigned int size)
    {
        if (!eudpOnly("window"))
        {
            return false;
        }
        bool agreed = false;
        {
            BusyScope busy(timedOut("window"), EXIT_TIMEOUT);
            agreed = m_connection.setWindowSize(size);
        }
        if (!agreed)
        {
            return failed("the server did not agree to window " + std::to_string(size));
        }
        m_printer.event("window " + std::to_string(size),
                        JsonObject().addString("event", "window").addInt("size", size));
        return true;
    }

    // A command that was refused or not understood: said on stderr, and the
    // exit status becomes 1.
    bool failed(const std::string& message)
    {
        m_printer.error(COMMAND, message);
        m_failed = true;
        return false;
    }

    bool anyFailed() const { return m_failed; }

private:
    bool eudpOnly(const std::string& what)
    {
        return m_options.transport == TRANSPORT_EUDP ||
               failed(what + " applies to eudp only (tcp is always reliable)");
    }

    static std::string timedOut(const std::string& what)
    {
        return std::string(COMMAND) + ": --timeout passed while the server considered the " + what +
               " request";
    }

    // The line goes out before the request does, so that no answer can be
    // printed above its question.
    template <typename Send>
    bool send(const std::string& tooLarge, const std::string& text, const JsonObject& json,
              Send sendRequest)
    {
        if (!tooLarge.empty())
        {
            return failed(tooLarge);
        }
        m_printer.event(text, json);
        BusyScope busy(std::string(COMMAND) + ": --timeout passed while sending " + text,
                       EXIT_TIMEOUT, false);
        return sendRequest() || failed("could not send " + text + ": the connection is down");
    }

    const ConnectOptions& m_options;
    WEFTConnection& m_connection;
    Printer& m_printer;
    bool m_failed = false;
};

// Runs one stdin command; false when it asks to stop.
bool runCommand(Requests& requests, Printer& printer, const std::string& line)
{
    std::vector<std::string> words;
    std::string error;
    if (!splitWords(line, words, error))
    {
        requests.failed(error);
        return true;
    }
    if (words.empty())
    {
        return true;
    }
    const std::string verb = words[0];
    static const std::map<std::string, std::string> ONE_ARGUMENT{{"sub", "NAME"},
                                                                 {"unsub", "NAME"},
                                                                 {"send-mode", "MODE"},
                                                                 {"receive-mode", "MODE"},
                                                                 {"window", "N"}};
    const auto argument = ONE_ARGUMENT.find(verb);
    if (argument != ONE_ARGUMENT.end() && words.size() != 2)
    {
        requests.failed("expected: " + verb + " " + argument->second);
    }
    else if (verb == "sub" || verb == "unsub")
    {
        requests.subscribe(words[1], verb == "sub");
    }
    else if (verb == "call")
    {
        requests.call({words.begin() + 1, words.end()});
    }
    else if (verb == "send-mode" || verb == "receive-mode")
    {
        const auto mode = CONNECT_MODES.find(words[1]);
        if (mode == CONNECT_MODES.end())
        {
            requests.failed("mode must be realtime or reliable");
        }
        else
        {
            requests.mode(verb == "send-mode", mode->second);
        }
    }
    else if (verb == "window")
    {
        unsigned int size = 0;
        const std::string& text = words[1];
        const auto result = std::from_chars(text.data(), text.data() + text.size(), size);
        if (result.ec != std::errc() || result.ptr != text.data() + text.size() || size < 1 ||
            size >= EUDP_RING_CAPACITY)
        {
            requests.failed("window must be 1 to " + std::to_string(EUDP_RING_CAPACITY - 1));
        }
        else
        {
            requests.window(size);
        }
    }
    else if (verb == "help")
    {
        printer.line(CONNECT_STDIN_HELP);
    }
    else if (verb == "quit")
    {
        return false;
    }
    else
    {
        requests.failed("unknown command '" + line + "' (try: help)");
    }
    return true;
}

// The options' requests, in order: modes and window first, so that what
// the subscriptions bring already travels the chosen way.
bool sendInitialRequests(const ConnectOptions& options, Requests& requests)
{
    if (options.sendMode != CONN_MODE_DONT_CARE && !requests.mode(true, options.sendMode))
    {
        return false;
    }
    if (options.receiveMode != CONN_MODE_DONT_CARE && !requests.mode(false, options.receiveMode))
    {
        return false;
    }
    if (options.window != 0 && !requests.window(options.window))
    {
        return false;
    }
    for (const std::string& name : options.subscribe)
    {
        if (!requests.subscribe(name, true))
        {
            return false;
        }
    }
    for (const auto& call : options.calls)
    {
        if (!requests.call(call))
        {
            return false;
        }
    }
    return true;
}

} // namespace

std::string checkConnectOptions(const ConnectOptions& options)
{
    std::string host;
    unsigned short port = WEFT_TOOL_DEFAULT_PORT;
    std::string error;
    if (!parseHostPort(options.target, host, port, error))
    {
        return error;
    }
    if (options.transport != TRANSPORT_EUDP &&
        (options.sendMode != CONN_MODE_DONT_CARE || options.receiveMode != CONN_MODE_DONT_CARE ||
         options.window != 0))
    {
        return "--send-mode, --receive-mode and --window apply to --transport eudp only";
    }
    for (const std::string& name : options.subscribe)
    {
        const std::string tooLarge = whyItDoesNotFit("subscribe", name);
        if (!tooLarge.empty())
        {
            return tooLarge;
        }
    }
    for (const auto& call : options.calls)
    {
        ParameterList params;
        if (!parseParameters({call.begin() + 1, call.end()}, params, error))
        {
            return "--call " + call[0] + ": " + error;
        }
        const std::string tooLarge = whyItDoesNotFit("call", call[0], nullptr, &params);
        if (!tooLarge.empty())
        {
            return tooLarge;
        }
    }
    return "";
}

int runConnect(const ConnectOptions& options)
{
    Printer printer(options.json, options.timestamps);
    std::string host;
    unsigned short port = WEFT_TOOL_DEFAULT_PORT;
    std::string error;
    parseHostPort(options.target, host, port, error);
    const std::string where = joinHostPort(host, port);
    Wakeup& wakeup = Wakeup::instance();
    InputLoop::Deadline deadline;
    if (options.timeout.count() > 0)
    {
        deadline = std::chrono::steady_clock::now() + options.timeout;
    }
    wakeup.setDeadline(deadline);

    WEFTConnection connection(options.transport);
    Client client(options, printer, connection, host, port);
    bool connected = false;
    {
        // Either may take seconds: Ctrl-C and --timeout end them at once.
        BusyScope busy(std::string(COMMAND) + ": no connection to " + where + " within --timeout",
                       EXIT_FAILED);
        // Looked up first, so that an unknown name is reported as such, and
        // at once on either transport; the library gets the address.
        tavo::HostAddress address;
        if (!resolveHost(host, options.family, address, error))
        {
            printer.error(COMMAND, error);
            return EXIT_FAILED;
        }
        connected = connection.connect(address.getAddressString(), port, &client);
    }
    if (!connected)
    {
        printer.error(COMMAND, options.transport == TRANSPORT_TCP
                                   ? "cannot connect to " + where +
                                         " over tcp (nothing listens there, or the host is "
                                         "unreachable)"
                                   : "no answer from " + where + " over eudp within " +
                                         std::to_string(EUDP_CONNECT_TIMEOUT_MS / 1000) +
                                         " s (nothing listens there, or the host is unreachable)");
        return EXIT_FAILED;
    }

    Requests requests(options, connection, printer);
    int result = EXIT_OK;
    if (!sendInitialRequests(options, requests))
    {
        result = EXIT_FAILED;
    }
    const bool waitsForSomething = options.count > 0 || deadline;
    InputLoop input(wakeup, InputLoop::stdinUsable());
    for (bool running = result == EXIT_OK; running;)
    {
        if (client.m_lost)
        {
            result = EXIT_FAILED;
            break;
        }
        if (options.count > 0 && client.m_received >= options.count)
        {
            break;
        }
        const InputEvent event = input.next(deadline);
        switch (event.kind)
        {
        case InputEvent::INPUT_LINE:
            running = runCommand(requests, printer, event.text);
            break;
        case InputEvent::INPUT_END:
            running = waitsForSomething;
            break;
        case InputEvent::INPUT_WAKE:
            running = event.text.find(WAKE_SIGNAL) == std::string::npos;
            break;
        case InputEvent::INPUT_TIMEOUT:
            if (options.count > 0)
            {
                printer.error(COMMAND, "timed out after " + std::to_string(client.m_received) +
                                           " of " + std::to_string(options.count) + " messages");
                result = EXIT_TIMEOUT;
            }
            running = false;
            break;
        }
    }
    if (client.m_lost)
    {
        printer.error(COMMAND, "the connection to " + where + " was lost");
        result = EXIT_FAILED;
    }
    if (result == EXIT_OK && requests.anyFailed())
    {
        result = EXIT_FAILED;
    }
    client.m_closing = true;
    connection.disconnect();
    return wakeup.signal() != 0 ? std::max(result, stoppedCode(wakeup.signal())) : result;
}

} // namespace weftcli
