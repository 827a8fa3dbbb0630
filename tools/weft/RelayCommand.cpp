#include "RelayCommand.h"

#include "Common.h"
#include "HostLookup.h"
#include "Input.h"
#include "Printer.h"
#include "Signals.h"
#include "ValueSyntax.h"
#include "WireText.h"

#include "ImpairmentRelay.h"
#include "TcpRelay.h"

#include <weft/Constants.h>

#include <tavo/HostAddress.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>

namespace weftcli
{

namespace
{

const char* const COMMAND = "weft relay";

// [HOST:]PORT; all local addresses when no host is given (every IPv4 one,
// or every IPv6 one with -6).
bool parseListen(const std::string& text, tavo::EAddressFamily family, std::string& host,
                 unsigned short& port, std::string& error)
{
    if (text.find(':') == std::string::npos && text.find('[') == std::string::npos)
    {
        host = family == tavo::ADDRESS_FAMILY_IPV6 ? "::" : "0.0.0.0";
        return parsePort(text, true, port, error);
    }
    std::string portText;
    bool hasPort = false;
    if (!splitHostPort(text, host, portText, hasPort, error))
    {
        return false;
    }
    if (!hasPort)
    {
        error = "'" + text + "' has no port (write PORT, HOST:PORT or [IPV6]:PORT)";
        return false;
    }
    return parsePort(portText, true, port, error);
}

std::string percent(double rate)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%g%%", rate * 100);
    return text;
}

std::string milliseconds(std::chrono::microseconds time)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%gms", static_cast<double>(time.count()) / 1000);
    return text;
}

// Prints what the relay reports, on the relay's thread.
class Watcher
{
public:
    Watcher(Printer& printer, bool print) : m_printer(printer), m_print(print) {}

    void onDatagram(const RelayEvent& event)
    {
        if (event.kind != RelayEvent::DATAGRAM)
        {
            const bool opened = event.kind == RelayEvent::SESSION_OPENED;
            client(event.session, opened, opened ? event.client.text() : "",
                   opened ? "" : "idle for " + std::to_string(RELAY_IDLE_TIMEOUT.count()) + " s");
            return;
        }
        // Only data packets carry WEFT messages; an empty one is a keep-alive.
        if (!m_print || event.size <= EUDP_HEADER_SIZE || event.data[0] != EUDP_VERSION ||
            std::memcmp(event.data + 1, "CMD", 3) != 0)
        {
            return;
        }
        const uint32_t seq = event.data[4] | (event.data[5] << 8) | (event.data[6] << 16) |
                             (static_cast<uint32_t>(event.data[7]) << 24);
        std::string fate;
        fate += event.dropped ? "  [dropped]" : "";
        fate += event.duplicated ? "  [duplicated]" : "";
        fate += event.held ? "  [held back]" : "";
        JsonObject extra;
        extra.addInt("seq", seq)
            .addBool("dropped", event.dropped)
            .addBool("duplicated", event.duplicated)
            .addBool("held", event.held);
        message(event.session, event.direction, event.data + EUDP_HEADER_SIZE,
                event.size - EUDP_HEADER_SIZE, "seq " + std::to_string(seq) + "  ", fate, extra);
    }

    void onStream(const TcpRelayEvent& event)
    {
        if (event.kind == TcpRelayEvent::OPENED)
        {
            client(event.connection, true, event.client.text(), "");
            return;
        }
        if (event.kind == TcpRelayEvent::CLOSED)
        {
            m_streams.erase(event.connection);
            client(event.connection, false, "", event.reason);
            return;
        }
        if (!m_print)
        {
            return;
        }
        StreamFramer& framer =
            m_streams[event.connection][event.direction == RelayDirection::ClientToServer ? 0 : 1];
        framer.add(event.data, event.size);
        std::vector<uint8_t> bytes;
        while (framer.next(bytes))
        {
            // An empty message is skipped by every receiver.
            if (!bytes.empty())
            {
                message(event.connection, event.direction, bytes.data(), bytes.size(), "", "",
                        JsonObject());
            }
        }
    }

private:
    void client(uint32_t id, bool opened, const std::string& peer, const std::string& reason)
    {
        const std::string name = "client " + std::to_string(id);
        if (opened)
        {
            m_printer.event(name + " from " + peer, JsonObject()
                                                        .addString("event", "client")
                                                        .addInt("client", id)
                                                        .addString("peer", peer));
            return;
        }
        JsonObject json;
        json.addString("event", "gone").addInt("client", id);
        if (!reason.empty())
        {
            json.addString("reason", reason);
        }
        m_printer.event(name + " gone" + (reason.empty() ? "" : " (" + reason + ")"), json);
    }

    void message(uint32_t id, RelayDirection direction, const uint8_t* data, std::size_t size,
                 const std::string& before, const std::string& after, const JsonObject& extra)
    {
        const bool up = direction == RelayDirection::ClientToServer;
        const std::string client = "client " + std::to_string(id);
        const std::string path = up ? client + " -> server  " : "server -> " + client + "  ";
        DecodedMessage decoded = decodeMessage(data, size);
        if (!decoded.problem.empty())
        {
            decoded.text =
                "malformed message (" + std::to_string(size) + " bytes): " + decoded.problem;
            decoded.json.addString("event", "malformed")
                .addString("problem", decoded.problem)
                .addInt("size", static_cast<long long>(size));
        }
        decoded.json.addString("from", up ? "client" : "server")
            .addInt("client", id)
            .addFields(extra);
        m_printer.event(path + before + decoded.text + after, decoded.json);
    }

    Printer& m_printer;
    const bool m_print;
    // Each TCP connection's two streams, cut into messages.
    std::map<uint32_t, StreamFramer[2]> m_streams;
};

} // namespace

std::string checkRelayOptions(const RelayCommandOptions& options)
{
    std::string host;
    unsigned short port = WEFT_TOOL_DEFAULT_PORT;
    std::string error;
    if (!parseListen(options.listen, options.family, host, port, error) ||
        !parseHostPort(options.to, host, port, error))
    {
        return error;
    }
    if (options.transport == TRANSPORT_TCP &&
        (options.drop > 0 || options.duplicate > 0 || options.reorder > 0))
    {
        return "--drop, --dup and --reorder apply to -t eudp only (TCP repairs loss itself; "
               "--delay works on both)";
    }
    return "";
}

int runRelay(const RelayCommandOptions& options)
{
    Printer printer(options.json, options.timestamps);
    std::string listenHost;
    unsigned short listenPort = 0;
    std::string targetHost;
    unsigned short targetPort = WEFT_TOOL_DEFAULT_PORT;
    std::string error;
    parseListen(options.listen, options.family, listenHost, listenPort, error);
    parseHostPort(options.to, targetHost, targetPort, error);
    tavo::HostAddress listenAddress;
    tavo::HostAddress targetAddress;
    {
        BusyScope busy("", EXIT_FAILED);
        if (!resolveHost(listenHost, options.family, listenAddress, error) ||
            !resolveHost(targetHost, options.family, targetAddress, error))
        {
            printer.error(COMMAND, error);
            return EXIT_FAILED;
        }
    }
    // The relay takes numeric addresses only: the look-up is done.
    const RelayEndpoint listen = RelayEndpoint::parse(listenAddress.getAddressString(), listenPort)
                                     .value_or(RelayEndpoint());
    const RelayEndpoint target = RelayEndpoint::parse(targetAddress.getAddressString(), targetPort)
                                     .value_or(RelayEndpoint());
    const uint32_t seed = options.seed ? *options.seed : std::random_device()();

    Watcher watcher(printer, options.print);
    std::unique_ptr<ImpairmentRelay> datagrams;
    std::unique_ptr<TcpRelay> streams;
    std::string what;
    uint16_t port = 0;
    if (options.transport == TRANSPORT_EUDP)
    {
        RelayOptions relay;
        relay.listen = listen;
        relay.dualStack = options.family != tavo::ADDRESS_FAMILY_IPV6;
        relay.target = target;
        relay.seed = seed;
        relay.impairment.dropRate = options.drop;
        relay.impairment.duplicateRate = options.duplicate;
        relay.impairment.reorderRate = options.reorder;
        relay.impairment.delay = options.delay;
        relay.idleTimeout = RELAY_IDLE_TIMEOUT;
        relay.onEvent = [&watcher](const RelayEvent& event) { watcher.onDatagram(event); };
        datagrams = std::make_unique<ImpairmentRelay>(relay);
        error = datagrams->getError();
        port = datagrams->getPort();
        what = ", drop " + percent(options.drop) + ", dup " + percent(options.duplicate) +
               ", reorder " + percent(options.reorder) + ", seed " + std::to_string(seed);
    }
    else
    {
        TcpRelayOptions relay;
        relay.listen = listen;
        relay.dualStack = options.family != tavo::ADDRESS_FAMILY_IPV6;
        relay.target = target;
        relay.delay = options.delay;
        relay.onEvent = [&watcher](const TcpRelayEvent& event) { watcher.onStream(event); };
        streams = std::make_unique<TcpRelay>(relay);
        error = streams->getError();
        port = streams->getPort();
    }
    if (!error.empty())
    {
        printer.error(COMMAND, error);
        return EXIT_FAILED;
    }
    const char* transport = transportName(options.transport);
    printer.event(
        std::string("relaying ") + transport + " " + joinHostPort(listenHost, port) + " -> " +
            target.text() + what + ", delay " + milliseconds(options.delay),
        JsonObject()
            .addString("event", "listening")
            .addString("transport", transport)
            .addString("host", listenHost)
            .addInt("port", port)
            .addString("to", target.text())
            .addRaw("drop", jsonFloat(static_cast<float>(options.drop)))
            .addRaw("dup", jsonFloat(static_cast<float>(options.duplicate)))
            .addRaw("reorder", jsonFloat(static_cast<float>(options.reorder)))
            .addRaw("delay_ms", jsonFloat(static_cast<float>(options.delay.count()) / 1000))
            .addInt("seed", seed));

    // Nothing to read: the relay runs until a signal.
    InputLoop input(Wakeup::instance(), false);
    while (input.next(std::nullopt).kind != InputEvent::INPUT_WAKE ||
           Wakeup::instance().signal() == 0)
    {
    }

    if (datagrams)
    {
        datagrams->stop();
        const auto counts = [](const RelayCounts& c)
        {
            return std::make_pair(std::to_string(c.received) + " datagrams, " +
                                      std::to_string(c.dropped) + " dropped, " +
                                      std::to_string(c.duplicated) + " duplicated, " +
                                      std::to_string(c.reordered) + " held back",
                                  JsonObject()
                                      .addInt("received", static_cast<long long>(c.received))
                                      .addInt("dropped", static_cast<long long>(c.dropped))
                                      .addInt("duplicated", static_cast<long long>(c.duplicated))
                                      .addInt("held", static_cast<long long>(c.reordered))
                                      .str());
        };
        const auto up = counts(datagrams->getCounts(RelayDirection::ClientToServer));
        const auto down = counts(datagrams->getCounts(RelayDirection::ServerToClient));
        printer.event("stopped: to the server " + up.first + "; to the clients " + down.first,
                      JsonObject()
                          .addString("event", "stopped")
                          .addRaw("to_server", up.second)
                          .addRaw("to_clients", down.second));
    }
    else
    {
        streams->stop();
        const auto up = static_cast<long long>(streams->getBytes(RelayDirection::ClientToServer));
        const auto down = static_cast<long long>(streams->getBytes(RelayDirection::ServerToClient));
        printer.event("stopped: " + std::to_string(up) + " bytes to the server, " +
                          std::to_string(down) + " to the clients",
                      JsonObject()
                          .addString("event", "stopped")
                          .addInt("to_server_bytes", up)
                          .addInt("to_clients_bytes", down));
    }
    return stoppedCode(Wakeup::instance().signal());
}

} // namespace weftcli
