#include "Bench.h"
#include "WeftPair.h"

namespace bench
{

namespace
{

constexpr auto SCALE_LIMIT = std::chrono::seconds(60);

RunResult weftScale(ETransport transport, int connections)
{
    BenchServer server;
    BenchConnector connector(&server);
    BenchClient client;
    WEFTListener listener(transport);
    listener.listen("127.0.0.1", 0, &connector);
    if (!listener.waitForListen(5000))
    {
        return RunResult{{}, false, "listen failed"};
    }
    const unsigned short port = listener.getLocalPort();
    const long rssBefore = residentKb();
    const long threadsBefore = threadCount();

    std::vector<WEFTConnection*> clients;
    RunResult result;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < connections; ++i)
    {
        auto* connection = new WEFTConnection(transport);
        if (!connection->connect("127.0.0.1", port, &client))
        {
            delete connection;
            result.ok = false;
            result.failure = "connection " + std::to_string(i) + " failed";
            break;
        }
        clients.push_back(connection);
    }
    const bool allAccepted = connector.waitFor(clients.size(), Clock::now() + SCALE_LIMIT);
    const double connectMs = elapsedUs(start, Clock::now()) / 1e3;
    const long rssAfter = residentKb();
    const long threadsAfter = threadCount();

    // One trigger from the server side of every connection to its client.
    const std::size_t accepted = connector.count();
    const Clock::time_point sendStart = Clock::now();
    for (std::size_t i = 0; i < accepted; ++i)
    {
        connector.connection(i)->trigger("ping", ParameterValue(static_cast<int>(i)));
    }
    client.waitTriggers(static_cast<int>(accepted), Clock::now() + SCALE_LIMIT);
    const double deliverMs = elapsedUs(sendStart, Clock::now()) / 1e3;
    const int delivered = client.triggers();

    closeConnections(clients);
    connector.closeAll();
    listener.shutdown(-1);

    result.figures = scaleFigures(connections, static_cast<double>(accepted), connectMs,
                                  rssAfter - rssBefore, threadsAfter - threadsBefore, delivered,
                                  deliverMs);
    requireDelivered(result, delivered, connections, allAccepted);
    return result;
}

Scenario scaleScenario(const std::string& name, const std::string& title, int repetitions)
{
    Scenario scenario;
    scenario.name = name;
    scenario.title = title;
    scenario.columns = {{"connect_ms", "connect all", "ms", true},
                        {"rss_kb_per_conn", "RSS/conn", "KiB", true},
                        {"threads_per_conn", "threads/conn", "", false},
                        {"delivered", "messages arrived", "", false},
                        {"deliver_ms", "one to each", "ms", true}};
    scenario.repetitions = repetitions;
    return scenario;
}

} // namespace

void runScale(const Options& options, std::vector<Scenario>& out)
{
    const int tcp = options.scaleTcp;
    const int eudp = options.scaleEudp;

    Scenario tcpScenario =
        scaleScenario("scale_tcp",
                      "Scale: " + std::to_string(tcp) +
                          " TCP connections to one server, both ends in this process",
                      options.repetitions);
    tcpScenario.subjects.push_back(
        subject("plain TCP sockets", "", [&] { return plainTcpScale(tcp); }));
    tcpScenario.subjects.push_back(
        subject("weft TCP", "plain TCP sockets", [&] { return weftScale(TRANSPORT_TCP, tcp); }));
    measure(tcpScenario);
    out.push_back(std::move(tcpScenario));

    Scenario eudpScenario =
        scaleScenario("scale_eudp",
                      "Scale: " + std::to_string(eudp) +
                          " EUDP connections to one server, both ends in this process",
                      options.repetitions);
    eudpScenario.subjects.push_back(
        subject("plain UDP socket pairs", "", [&] { return plainUdpScale(eudp); }));
    eudpScenario.subjects.push_back(subject("weft EUDP", "plain UDP socket pairs",
                                            [&] { return weftScale(TRANSPORT_EUDP, eudp); }));
    measure(eudpScenario);
    out.push_back(std::move(eudpScenario));
}

} // namespace bench
