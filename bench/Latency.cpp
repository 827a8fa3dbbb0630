#include "Bench.h"
#include "WeftPair.h"

namespace bench
{

namespace
{

// One run on a fresh pair: connect, set the modes, time the round trips.
RunResult weftLatencyRun(EPairMode mode, const Options& options)
{
    WeftPair pair(mode);
    const unsigned short port = pair.listen();
    std::string failure;
    if (port == 0 || !pair.connect(port, 0, failure))
    {
        return RunResult{{}, false, port == 0 ? "listen failed" : failure};
    }
    return weftPingPong(pair, options.latencyRounds, options.latencyWarmup);
}

} // namespace

void runLatency(const Options& options, std::vector<Scenario>& out)
{
    Scenario scenario;
    scenario.name = "latency";
    scenario.title = "Round-trip latency (call answered by a trigger)";
    scenario.columns = {{"p50_us", "p50", "µs", true},
                        {"p99_us", "p99", "µs", true},
                        {"p999_us", "p99.9", "µs", true},
                        {"max_us", "max", "µs", true},
                        {"switches_per_rt", "context switches/round trip", "", true}};
    scenario.repetitions = options.repetitions;
    const int rounds = options.latencyRounds;
    const int warmup = options.latencyWarmup;

    scenario.subjects.push_back(
        subject("plain TCP ping-pong", "",
                [&] { return tcpPingPong(rounds, warmup, LATENCY_MESSAGE_SIZE); }));
    scenario.subjects.push_back(
        subject("plain UDP ping-pong", "",
                [&] { return udpPingPong(rounds, warmup, LATENCY_MESSAGE_SIZE); }));
    scenario.subjects.push_back(subject("weft TCP", "plain TCP ping-pong",
                                        [&] { return weftLatencyRun(EPairMode::TCP, options); }));
    scenario.subjects.push_back(
        subject("weft EUDP real-time", "plain UDP ping-pong",
                [&] { return weftLatencyRun(EPairMode::EUDP_REALTIME, options); }));
    scenario.subjects.push_back(
        subject("weft EUDP reliable", "plain UDP ping-pong",
                [&] { return weftLatencyRun(EPairMode::EUDP_RELIABLE, options); }));
    if (enetAvailable())
    {
        scenario.subjects.push_back(
            subject("ENet reliable", "plain UDP ping-pong",
                    [&] { return enetPingPong(true, rounds, warmup, LATENCY_MESSAGE_SIZE); }));
        scenario.subjects.push_back(
            subject("ENet unreliable", "plain UDP ping-pong",
                    [&] { return enetPingPong(false, rounds, warmup, LATENCY_MESSAGE_SIZE); }));
    }
    measure(scenario);
    out.push_back(std::move(scenario));
}

} // namespace bench
