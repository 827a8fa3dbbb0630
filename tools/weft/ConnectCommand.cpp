#include "ConnectCommand.h"

#include "Choice.h"
#include "Common.h"
#include "Input.h"
#include "Printer.h"
#include "Signals.h"
#include "ValueSyntax.h"

#include <weft/Constants.h>
#include <weft/IWEFTClient.h>
#include <weft/WEFTConnection.h>

#include <CLI/CLI.hpp>

#include <atomic>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <map>

namespace weftcli
{

namespace
{

const char* const COMMAND = "weft connect";

const char* const COMMANDS_HELP = R"(commands on stdin (one per line; quote words with spaces):
  sub NAME                 subscribe to NAME
  unsub NAME               unsubscribe from NAME
  call NAME [K=VALUE ...]  call the function NAME with a parameter list
  send-mode MODE           EUDP: ask the server to send in MODE (realtime or reliable)
  receive-mode MODE        EUDP: ask the server to receive in MODE
  window N                 EUDP: let the server have N messages in flight
  help                     this list
  quit                     disconnect and exit)";

const std::map<std::string, EConnMode> MODES{{"realtime", CONN_MODE_REALTIME},
                                             {"reliable", CONN_MODE_RELIABLE}};

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
        const std::string peer = m_host + ":" + std::to_string(m_port);
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
        const bool sent = on ? m_connection.subscribe(name) : m_connection.unsubscribe(name);
        return report(sent, std::string(on ? "subscribe " : "unsubscribe ") + quoted(name),
                      JsonObject()
                          .addString("event", on ? "subscribe" : "unsubscribe")
                          .addString("name", name));
    }

    bool call(const std::vector<std::string>& words)
    {
        ParameterList params;
        std::string error;
        if (words.empty())
        {
            m_printer.error(COMMAND, "call needs a function name");
            return false;
        }
        if (!parseParameters({words.begin() + 1, words.end()}, params, error))
        {
            m_printer.error(COMMAND, error);
            return false;
        }
        const std::string list = listText(params);
        return report(m_connection.callFunctionId(words[0], params),
                      "call " + quoted(words[0]) + (list.empty() ? "" : " ") + list,
                      JsonObject()
                          .addString("event", "call")
                          .addString("name", words[0])
                          .addRaw("params", jsonList(params)));
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
        const bool agreed =
            send ? m_connection.setSendMode(mode) : m_connection.setReceiveMode(mode);
        if (!agreed)
        {
            m_printer.error(COMMAND, std::string("the server did not agree to ") + direction +
                                         " mode " + modeName(mode) + " within 10 s");
            return false;
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
        if (!m_connection.setWindowSize(size))
        {
            m_printer.error(COMMAND, "the server did not agree to window " + std::to_string(size));
            return false;
        }
        m_printer.event("window " + std::to_string(size),
                        JsonObject().addString("event", "window").addInt("size", size));
        return true;
    }

private:
    bool eudpOnly(const std::string& what)
    {
        if (m_options.transport != TRANSPORT_EUDP)
        {
            m_printer.error(COMMAND, what + " applies to eudp only (tcp is always reliable)");
            return false;
        }
        return true;
    }

    bool report(bool sent, const std::string& text, JsonObject json)
    {
        if (!sent)
        {
            m_printer.error(COMMAND, "could not send " + text);
            return false;
        }
        m_printer.event(text, json);
        return true;
    }

    const ConnectOptions& m_options;
    WEFTConnection& m_connection;
    Printer& m_printer;
};

// Runs one stdin command; false when it asks to stop.
bool runCommand(Requests& requests, Printer& printer, const std::string& line)
{
    std::vector<std::string> words;
    if (!commandWords(line, printer, COMMAND, words))
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
        printer.error(COMMAND, "expected: " + verb + " " + argument->second);
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
        const auto mode = MODES.find(words[1]);
        if (mode == MODES.end())
        {
            printer.error(COMMAND, "mode must be realtime or reliable");
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
            printer.error(COMMAND, "window must be 1 to " + std::to_string(EUDP_RING_CAPACITY - 1));
        }
        else
        {
            requests.window(size);
        }
    }
    else if (verb == "help")
    {
        printer.line(COMMANDS_HELP);
    }
    else if (verb == "quit")
    {
        return false;
    }
    else
    {
        printer.error(COMMAND, "unknown command '" + line + "' (try: help)");
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

CLI::App* addConnectCommand(CLI::App& app, ConnectOptions& options)
{
    CLI::App* connect = app.add_subcommand(
        "connect", "Connect to a server, subscribe and call functions, and print every "
                   "trigger and state update that arrives.");
    connect
        ->add_option("target", options.target,
                     "HOST or HOST:PORT (port " + std::to_string(WEFT_TOOL_DEFAULT_PORT) +
                         " when none is given)")
        ->required();
    addChoice<ETransport>(*connect, "-t,--transport", options.transport,
                          {{"tcp", TRANSPORT_TCP}, {"eudp", TRANSPORT_EUDP}}, "transport")
        ->default_str("tcp");
    connect->add_option("-s,--subscribe", options.subscribe, "subscribe to NAME (repeatable)")
        ->type_name("NAME");
    connect
        ->add_option("-c,--call", options.calls,
                     "call NAME with NAME=VALUE parameters (repeatable)")
        ->type_name("NAME [K=VALUE ...]")
        ->expected(1, CLI::detail::expected_max_vector_size);
    const std::vector<std::pair<std::string, EConnMode>> modes(MODES.begin(), MODES.end());
    addChoice(*connect, "--send-mode", options.sendMode, modes,
              "EUDP: the mode the server sends to this client in");
    addChoice(*connect, "--receive-mode", options.receiveMode, modes,
              "EUDP: the mode the server receives from this client in");
    connect
        ->add_option("--window", options.window,
                     "EUDP: how many messages the server may have in flight")
        ->check(CLI::Range(1u, EUDP_RING_CAPACITY - 1));
    connect->add_option("-n,--count", options.count, "exit 0 after N triggers and updates")
        ->check(CLI::Range(1, INT_MAX));
    connect
        ->add_option("--timeout", options.timeout,
                     "stop after S seconds (exit 3 if --count was not reached)")
        ->type_name("S")
        ->check(CLI::Validator(
            [](std::string& text) {
                return std::strtod(text.c_str(), nullptr) > 0 ? std::string()
                                                              : "the time must be more than 0";
            },
            ""));
    connect->add_flag("--json", options.json, "print one JSON object per event (JSON Lines)");
    connect->footer(std::string(COMMANDS_HELP) + R"(

Values are typed (i:5 f:0.5 b:on s:text) or inferred (42, 0.5, on/off/
true/false, anything else a string). Put HOST before --call, whose parameters
run to the next option.

The client ends at the end of stdin, unless --count or --timeout says what to
wait for. Exit status: 0 done, 1 the connection failed or dropped (or the
server refused a mode or window), 2 bad arguments, 3 --timeout passed first.

examples:
  weft connect localhost --subscribe level
  weft connect 127.0.0.1:7420 -s level -n 1 --json < /dev/null
  weft connect studio:7420 --call play clip=intro loop=on gain=f:0.5
  weft connect localhost -t eudp --send-mode reliable --window 32 -s level
  echo 'call stop' | weft connect localhost)");
    return connect;
}

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
    for (const auto& call : options.calls)
    {
        ParameterList params;
        if (!parseParameters({call.begin() + 1, call.end()}, params, error))
        {
            return "--call " + call[0] + ": " + error;
        }
    }
    return "";
}

int runConnect(const ConnectOptions& options)
{
    Printer printer(options.json);
    std::string host;
    unsigned short port = WEFT_TOOL_DEFAULT_PORT;
    std::string error;
    parseHostPort(options.target, host, port, error);
    if (!Wakeup::instance().open())
    {
        printer.error(COMMAND, "cannot create the wake-up pipe");
        return EXIT_FAILED;
    }

    WEFTConnection connection(options.transport);
    Client client(options, printer, connection, host, port);
    if (!connection.connect(host, port, &client))
    {
        const std::string where = host + ":" + std::to_string(port);
        printer.error(
            COMMAND,
            options.transport == TRANSPORT_TCP
                ? "cannot connect to " + where +
                      " over tcp (nothing listens there, or the host is unknown or unreachable)"
                : "no answer from " + where + " over eudp within " +
                      std::to_string(EUDP_CONNECT_TIMEOUT_MS / 1000) +
                      " s (nothing listens there, or the host is unknown or unreachable)");
        return EXIT_FAILED;
    }

    Requests requests(options, connection, printer);
    int result = EXIT_OK;
    if (!sendInitialRequests(options, requests))
    {
        result = EXIT_FAILED;
    }
    InputLoop::Deadline deadline;
    if (options.timeout > 0)
    {
        deadline = std::chrono::steady_clock::now() +
                   std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                       std::chrono::duration<double>(options.timeout));
    }
    const bool waitsForSomething = options.count > 0 || options.timeout > 0;
    InputLoop input(Wakeup::instance(), InputLoop::stdinUsable());
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
        printer.error(COMMAND,
                      "the connection to " + host + ":" + std::to_string(port) + " was lost");
        result = EXIT_FAILED;
    }
    client.m_closing = true;
    connection.disconnect();
    return result;
}

} // namespace weftcli
