#include "Bench.h"
#include "WeftPair.h"

#include "ImpairmentRelay.h"

namespace bench
{

namespace
{

// Fixed, so that the runs of one loss rate draw the same sequence of decisions.
constexpr uint32_t RELAY_SEED = 20240611;
constexpr int LOSS_MESSAGE_SIZE = 256;
constexpr unsigned int LOSS_WINDOW = 64;
constexpr int LOSS_WARMUP = 10;

RunResult lossRun(double dropRate, const Options& options)
{
    WeftPair pair(EPairMode::EUDP_RELIABLE);
    const unsigned short port = pair.listen();
    if (port == 0)
    {
        return RunResult{{}, false, "listen failed"};
    }
    ImpairmentRelay relay(port, RELAY_SEED);
    // The handshake and the mode requests pass unharmed: their time-outs
    // would measure the set-up, not the transfer.
    std::string failure;
    if (!pair.connect(relay.getPort(), LOSS_WINDOW, failure))
    {
        return RunResult{{}, false, failure};
    }
    Impairment impairment;
    impairment.dropRate = dropRate;
    relay.setImpairment(impairment);

    RunResult push = weftPush(pair, options.lossMessages, LOSS_MESSAGE_SIZE, true);
    RunResult rounds = weftPingPong(pair, options.lossRounds, LOSS_WARMUP);
    RunResult result;
    result.figures["goodput_msgs_per_s"] = push.figures["msgs_per_s"];
    result.figures["goodput_mb_per_s"] = push.figures["mb_per_s"];
    result.figures["p50_us"] = rounds.figures["p50_us"];
    result.figures["p99_us"] = rounds.figures["p99_us"];
    result.figures["in_order"] = push.ok ? 1 : 0;
    result.figures["dropped"] =
        static_cast<double>(relay.getCounts(RelayDirection::ClientToServer).dropped +
                            relay.getCounts(RelayDirection::ServerToClient).dropped);
    result.ok = push.ok && rounds.ok;
    result.failure = !push.ok ? "push: " + push.failure : "round trips: " + rounds.failure;
    relay.setImpairment(Impairment{});
    return result;
}

} // namespace

void runLoss(const Options& options, std::vector<Scenario>& out)
{
    Scenario scenario;
    scenario.name = "loss";
    scenario.title = "EUDP reliable through a lossy relay (both ways), window " +
                     std::to_string(LOSS_WINDOW) + ", " + std::to_string(options.lossMessages) +
                     " messages of " + std::to_string(LOSS_MESSAGE_SIZE) + " bytes, " +
                     std::to_string(options.lossRounds) + " round trips";
    scenario.columns = {{"goodput_msgs_per_s", "goodput messages/s", "", true},
                        {"goodput_mb_per_s", "goodput MB/s", "", true},
                        {"p50_us", "round trip p50", "µs", true},
                        {"p99_us", "round trip p99", "µs", true},
                        {"in_order", "all in order", "", false},
                        {"dropped", "datagrams dropped", "", false}};
    scenario.repetitions = options.repetitions;
    scenario.subjects.push_back(
        subject("weft EUDP reliable, 0% loss", "", [&] { return lossRun(0.0, options); }));
    scenario.subjects.push_back(subject("weft EUDP reliable, 1% loss",
                                        "weft EUDP reliable, 0% loss",
                                        [&] { return lossRun(0.01, options); }));
    scenario.subjects.push_back(subject("weft EUDP reliable, 5% loss",
                                        "weft EUDP reliable, 0% loss",
                                        [&] { return lossRun(0.05, options); }));
    measure(scenario);
    out.push_back(std::move(scenario));
}

} // namespace bench
