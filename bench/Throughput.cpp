#include "Bench.h"
#include "WeftPair.h"

#include <functional>

namespace bench
{

namespace
{

RunResult weftPushRun(EPairMode mode, unsigned int window, int messages, int messageSize)
{
    WeftPair pair(mode);
    const unsigned short port = pair.listen();
    std::string failure;
    if (port == 0 || !pair.connect(port, window, failure))
    {
        return RunResult{{}, false, port == 0 ? "listen failed" : failure};
    }
    return weftPush(pair, messages, messageSize, mode != EPairMode::EUDP_REALTIME);
}

// The baselines' allocations per message pushed, counted the same way (both
// ends are in this process), so every row has the figure.
RunResult countingAllocations(const std::function<RunResult()>& run, int messages)
{
    const double before = allocations();
    RunResult result = run();
    if (result.figures.count("allocs_per_msg") == 0)
    {
        result.figures["allocs_per_msg"] = messages > 0 ? (allocations() - before) / messages : 0;
    }
    return result;
}

} // namespace

void runThroughput(const Options& options, std::vector<Scenario>& out)
{
    const int messages = options.throughputMessages;
    for (const int size : throughputSizes())
    {
        Scenario scenario;
        scenario.name = "throughput_" + std::to_string(size);
        scenario.title = "Throughput, " + std::to_string(size) + "-byte messages, " +
                         std::to_string(messages) + " pushed";
        scenario.columns = {{"msgs_per_s", "messages/s", "", true},
                            {"mb_per_s", "MB/s", "", true},
                            {"lost", "lost", "", false},
                            {"cpu_us_per_msg", "CPU/msg", "µs", true},
                            {"switches_per_msg", "context switches/msg", "", true},
                            {"allocs_per_msg", "allocations/msg", "", true}};
        scenario.repetitions = options.repetitions;
        scenario.subjects.push_back(subject(
            "plain TCP blaster", "",
            [&]
            { return countingAllocations([&] { return tcpBlast(messages, size); }, messages); }));
        scenario.subjects.push_back(subject(
            "plain UDP blaster", "",
            [&]
            { return countingAllocations([&] { return udpBlast(messages, size); }, messages); }));
        scenario.subjects.push_back(
            subject("weft TCP", "plain TCP blaster",
                    [&] { return weftPushRun(EPairMode::TCP, 0, messages, size); }));
        scenario.subjects.push_back(
            subject("weft EUDP real-time", "plain UDP blaster",
                    [&] { return weftPushRun(EPairMode::EUDP_REALTIME, 0, messages, size); }));
        for (const unsigned int window : {10u, 64u, 512u})
        {
            scenario.subjects.push_back(
                subject("weft EUDP reliable, window " + std::to_string(window), "plain UDP blaster",
                        // The window by value: the loop's variable is gone when the
                        // subjects run.
                        [&, window]
                        { return weftPushRun(EPairMode::EUDP_RELIABLE, window, messages, size); }));
        }
        if (enetAvailable())
        {
            scenario.subjects.push_back(
                subject("ENet reliable", "plain UDP blaster",
                        [&] {
                            return countingAllocations(
                                [&] { return enetBlast(true, messages, size); }, messages);
                        }));
            scenario.subjects.push_back(
                subject("ENet unreliable", "plain UDP blaster",
                        [&] {
                            return countingAllocations(
                                [&] { return enetBlast(false, messages, size); }, messages);
                        }));
        }
        measure(scenario);
        out.push_back(std::move(scenario));
    }
}

} // namespace bench
