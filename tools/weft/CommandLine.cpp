// The command line of every subcommand: its options, their checks and its
// help. Kept in one file because CLI11 is header-only and heavy to compile;
// the subcommands themselves live in their own files.
#include "Choice.h"
#include "Common.h"
#include "ConnectCommand.h"
#include "DemoCommand.h"
#include "Options.h"
#include "RelayCommand.h"
#include "ServeCommand.h"

#include <weft/Constants.h>

#include <CLI/CLI.hpp>

#include <climits>
#include <string>
#include <utility>
#include <vector>

namespace weftcli
{

CLI::App* addConnectCommand(CLI::App& app, ConnectOptions& options)
{
    CLI::App* connect = app.add_subcommand(
        "connect", "Connect to a server, subscribe and call functions, and print every "
                   "trigger and state update that arrives.");
    connect
        ->add_option("target", options.target,
                     "HOST or HOST:PORT, [IPV6]:PORT for an IPv6 address with a port (port " +
                         std::to_string(WEFT_TOOL_DEFAULT_PORT) + " when none is given)")
        ->required();
    addChoice<ETransport>(*connect, "-t,--transport", options.transport,
                          {{"tcp", TRANSPORT_TCP}, {"eudp", TRANSPORT_EUDP}}, "transport")
        ->default_str("tcp");
    addFamilyFlags(*connect, options.family);
    connect->add_option("-s,--subscribe", options.subscribe, "subscribe to NAME (repeatable)")
        ->type_name("NAME");
    connect
        ->add_option("-c,--call", options.calls,
                     "call NAME with NAME=VALUE parameters (repeatable)")
        ->type_name("NAME [K=VALUE ...]")
        ->expected(1, CLI::detail::expected_max_vector_size);
    const std::vector<std::pair<std::string, EConnMode>> modes(CONNECT_MODES.begin(),
                                                               CONNECT_MODES.end());
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
    addTimeOption(*connect, "--timeout", options.timeout, false,
                  "stop after TIME, the connect included (2, 1.5s, 500ms); exit 3 if --count "
                  "was not reached, 1 if the connection was not made");
    connect->add_flag("--json", options.json, "print one JSON object per event (JSON Lines)");
    addTimestampsFlag(*connect, options.timestamps);
    connect->footer(std::string(CONNECT_STDIN_HELP) + R"(

Values are typed (i:5 f:0.5 b:on s:text) or inferred (42, 0.5, on/off/
true/false, anything else a string); strings print in double quotes. Put HOST
before --call, whose parameters run to the next option. A message carries at
most 1488 bytes after its header: the name and its zero byte, then the value
(a string takes its length plus 2) or the parameters. A request that does not
fit is refused, never sent cut short.

The client ends at the end of stdin, unless --count or --timeout says what to
wait for. Exit status: 0 done, 1 the connection failed or dropped, or a
request was refused or not understood, 2 bad arguments (a request too large
on the command line too), 3 --timeout passed first, 130 Ctrl-C. SIGTERM ends
it cleanly with the status it would have had (143 while a connect or a mode
request still waits).

examples:
  weft connect localhost --subscribe level
  weft connect 127.0.0.1:7420 -s level -n 1 --json < /dev/null
  weft connect '[::1]:7420' -t eudp -s level
  weft connect studio:7420 --call play clip=intro loop=on gain=f:0.5
  weft connect localhost -t eudp --send-mode reliable --window 32 -s level
  echo 'call stop' | weft connect localhost)");
    return connect;
}

CLI::App* addServeCommand(CLI::App& app, ServeOptions& options)
{
    CLI::App* serve = app.add_subcommand(
        "serve", "Run a server that prints every connection, subscription and call, keeps the "
                 "last value of each item and pushes values typed on stdin.");
    addChoice<ETransport>(*serve, "-t,--transport", options.transport,
                          {{"tcp", TRANSPORT_TCP}, {"eudp", TRANSPORT_EUDP}}, "transport")
        ->default_str("tcp");
    serve
        ->add_option("-H,--host", options.host,
                     "address to listen on; :: for every address of this host (IPv4 ones "
                     "too), 0.0.0.0 for every IPv4 one")
        ->default_str("127.0.0.1, ::1 with -6");
    addFamilyFlags(*serve, options.family);
    serve->add_option("--allow", options.allowFrom,
                      "take clients only from these networks, comma-separated CIDR "
                      "(10.0.0.0/8,192.168.1.7,fd00::/8)");
    serve
        ->add_option("--max-clients", options.maxClients,
                     "at most this many clients at once; more are closed at once (0: no limit)")
        ->capture_default_str();
    serve
        ->add_option("--max-subscriptions", options.maxSubscriptions,
                     "items one client may subscribe to at once; more are refused")
        ->capture_default_str();
    options.port = WEFT_TOOL_DEFAULT_PORT;
    addPortOption(*serve, "-p,--port", options.port, "port to listen on; 0 picks a free one")
        ->default_str(std::to_string(WEFT_TOOL_DEFAULT_PORT));
    const std::vector<std::pair<std::string, EAllowModes>> modes{
        {"realtime", ALLOW_REALTIME}, {"reliable", ALLOW_RELIABLE}, {"both", ALLOW_BOTH}};
    addChoice(*serve, "--allow-send", options.allowSend, modes,
              "EUDP: the modes a client may ask this server to send in")
        ->default_str("both");
    addChoice(*serve, "--allow-receive", options.allowReceive, modes,
              "EUDP: the modes a client may ask this server to receive in")
        ->default_str("both");
    serve->add_flag("--json", options.json, "print one JSON object per event (JSON Lines)");
    addTimestampsFlag(*serve, options.timestamps);
    serve->footer(std::string(SERVE_STDIN_HELP) + R"(

The server listens on loopback (127.0.0.1, or ::1 with -6) unless --host
says otherwise, so only programs on this host reach it; --host :: opens it to
the network on IPv6 and IPv4 (IPv6 only with -6), --host 0.0.0.0 on IPv4, and
--allow narrows who may then connect. IPv4 clients of a server on :: show
with their plain IPv4 address.

The first line says where the server listens: "listening on tcp 127.0.0.1:7420"
or "listening on tcp [::1]:7420" (with --json: {"event":"listening",...}).
Then one line per connection, subscription, call, EUDP mode or window request
(granted or refused) and disconnection.

Values are typed (i:5 f:0.5 b:on s:text n:) or inferred (42, 0.5, on/off/
true/false, anything else a string); strings print in double quotes. A
message carries at most 1488 bytes after its header (the name and its zero
byte, then the value: a string takes its length plus 2); a push that does
not fit is refused and the server goes on.

The server runs on after the end of stdin. Ctrl-C stops it (exit 130),
SIGTERM too (exit 0); each disconnects its clients first.

examples:
  weft serve --port 7420
  weft serve --transport eudp --host 127.0.0.1 --port 0 --json
  weft serve --host ::                         # IPv6 and IPv4 clients from anywhere
  weft serve -t eudp --allow-send realtime     # refuse reliable sending
  printf 'update level 0.5\n' | weft serve     # preset a value)");
    return serve;
}

CLI::App* addDemoCommand(CLI::App& app, DemoOptions& options)
{
    CLI::App* demo = app.add_subcommand(
        "demo", "Run a server and a client in this process and show their conversation over "
                "loopback: TCP, then EUDP.");
    addChoice<std::string>(*demo, "-t,--transport", options.transport,
                           {{"tcp", "tcp"}, {"eudp", "eudp"}, {"both", "both"}},
                           "which conversations to run")
        ->default_str("both");
    demo->footer(R"text(Lines "client -> server  ..." are requests as they are sent; lines
"server: on...(...)" are the callbacks that received them. The demo waits for
each callback and exits 1 naming the step that did not happen.

examples:
  weft demo
  weft demo --transport eudp -v)text");
    return demo;
}

CLI::App* addRelayCommand(CLI::App& app, RelayCommandOptions& options)
{
    CLI::App* relay = app.add_subcommand(
        "relay", "Stand between clients and a server, pass their traffic on (with loss, "
                 "duplication, reordering or delay if asked) and print what passes.");
    relay
        ->add_option("--listen", options.listen,
                     "[HOST:]PORT to take clients on (all IPv4 addresses when no HOST, all "
                     "IPv6 ones with -6; [::]:PORT takes both; port 0 picks a free one)")
        ->required()
        ->type_name("[HOST:]PORT");
    relay
        ->add_option("--to", options.to,
                     "HOST[:PORT] of the server (port " + std::to_string(WEFT_TOOL_DEFAULT_PORT) +
                         " when none is given)")
        ->required()
        ->type_name("HOST[:PORT]");
    addChoice<ETransport>(*relay, "-t,--transport", options.transport,
                          {{"tcp", TRANSPORT_TCP}, {"eudp", TRANSPORT_EUDP}}, "transport")
        ->default_str("tcp");
    addFamilyFlags(*relay, options.family);
    addPercentOption(*relay, "--drop", options.drop, "EUDP: drop this share of the datagrams");
    addPercentOption(*relay, "--dup", options.duplicate,
                     "EUDP: send this share of the datagrams twice");
    addPercentOption(*relay, "--reorder", options.reorder,
                     "EUDP: hold this share of the datagrams back behind the next one");
    addTimeOption(*relay, "--delay", options.delay, true,
                  "delay everything by TIME (20ms, 0.1s), both ways");
    relay->add_option_function<uint32_t>(
        "--seed", [&options](uint32_t seed) { options.seed = seed; },
        "start the random choices from N, to repeat a run (default: a new seed, printed)");
    relay->add_flag("--print", options.print,
                    "print every message that passes, both ways (a retransmission again)");
    relay->add_flag("--json", options.json, "print one JSON object per event (JSON Lines)");
    addTimestampsFlag(*relay, options.timestamps);
    relay->footer(R"(Each direction is impaired on its own, by the same rates. An EUDP relay
follows each client to the port its connection was accepted on, like a NAT,
and forgets a client after 30 s of silence. A TCP relay passes each
connection on to a new one; TCP repairs loss itself, so --delay is the one
impairment it takes.

The first line says where the relay listens and what it does:
"relaying eudp 0.0.0.0:7421 -> 127.0.0.1:7420, drop 5%, ...". Then one line
per client, and with --print one per message: 'client 1 -> server  seq 4
subscribe "level"  [dropped]' (EUDP: the datagram's sequence number and what
the relay did with it). Ctrl-C stops it (exit 130), SIGTERM too (exit 0),
each after a line with what passed each way.

examples:
  weft relay --listen 7421 --to localhost:7420 --print
  weft relay -t eudp --listen 7421 --to studio:7420 --drop 5% --delay 20ms
  weft relay -t eudp --listen 127.0.0.1:0 --to 127.0.0.1 --dup 1% --reorder 2% --seed 7 --json
  weft relay -t eudp --listen '[::1]:7421' --to '[::1]:7420' --drop 5%)");
    return relay;
}

} // namespace weftcli
