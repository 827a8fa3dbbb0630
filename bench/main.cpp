// weft-bench: latency, throughput, loss, scale and CPU cost of weft over TCP
// and EUDP on loopback, each beside a plain-socket baseline (and ENet where
// it is installed). Prints one Markdown table; --json writes the same figures.
#include "Bench.h"

#include <weft/Init.h>

#include <tavo/LogManager.h>

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

namespace
{

void usage()
{
    std::printf("usage: weft-bench [--quick] [--json FILE] [--repetitions N] [--only NAME]\n"
                "                  [--subject TEXT]\n"
                "  --quick          every scenario briefly (a few seconds in all)\n"
                "  --json FILE      also write the figures and the machine to FILE\n"
                "  --repetitions N  runs per figure; each figure is their median\n"
                "  --only NAME      only scenarios whose name contains NAME\n"
                "                   (latency, throughput, loss, scale)\n"
                "  --subject TEXT   only subjects whose name contains TEXT (for profiling)\n");
}

bool parse(int argc, char** argv, bench::Options& options)
{
    int repetitions = 0;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--quick")
        {
            options.quick = true;
        }
        else if (arg == "--json" && hasValue)
        {
            options.jsonPath = argv[++i];
        }
        else if (arg == "--repetitions" && hasValue)
        {
            repetitions = std::atoi(argv[++i]);
            if (repetitions < 1)
            {
                return false;
            }
        }
        else if (arg == "--only" && hasValue)
        {
            options.only = argv[++i];
        }
        else if (arg == "--subject" && hasValue)
        {
            options.subject = argv[++i];
        }
        else
        {
            return false;
        }
    }
    if (options.quick)
    {
        options.repetitions = 1;
        options.latencyRounds = 1000;
        options.latencyWarmup = 100;
        options.throughputMessages = 2000;
        options.lossRounds = 20;
        options.lossMessages = 300;
        options.scaleTcp = 50;
        options.scaleEudp = 20;
    }
    if (repetitions > 0)
    {
        options.repetitions = repetitions;
    }
    return true;
}

// 1000 connections with both ends here need two descriptors each.
void raiseDescriptorLimit(int needed)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= static_cast<rlim_t>(needed))
    {
        return;
    }
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, static_cast<rlim_t>(needed));
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// The library's log lines are counted, not printed: a benchmark that loses
// datagrams on purpose would otherwise flood the terminal.
struct LogCounts
{
    std::array<std::atomic<long>, 8> byLevel{};
    std::mutex mutex;
    std::string firstError;
};

} // namespace

int main(int argc, char** argv)
{
    bench::Options options;
    if (!parse(argc, argv, options))
    {
        usage();
        return 2;
    }
    raiseDescriptorLimit(2 * std::max(options.scaleTcp, options.scaleEudp) + 256);
    bench::setSubjectFilter(options.subject);
    weftInit();
    LogCounts logs;
    tavo::LogManager::getInstance()->setSink(
        [&logs](const std::string&, int level, const std::string& line)
        {
            logs.byLevel[static_cast<std::size_t>(std::clamp(level, 0, 7))].fetch_add(1);
            if (level <= tavo::LOG_LEVEL_ERROR)
            {
                std::lock_guard<std::mutex> lock(logs.mutex);
                if (logs.firstError.empty())
                {
                    logs.firstError = line;
                }
            }
        });

    std::printf("# weft-bench\n\nMachine: %s\n\n", bench::machineDescription().c_str());
    std::printf("Each figure is the median of %d run%s%s. Ratios (×) divide a figure by "
                "the same figure of the baseline named in its row.\n\n",
                options.repetitions, options.repetitions == 1 ? "" : "s",
                options.quick ? " (quick: short runs, for checking only)" : "");
    std::fflush(stdout);

    std::vector<bench::Scenario> scenarios;
    const auto wanted = [&](const char* name)
    { return options.only.empty() || std::string(name).find(options.only) != std::string::npos; };
    const struct
    {
        const char* name;
        void (*run)(const bench::Options&, std::vector<bench::Scenario>&);
    } groups[] = {{"latency", bench::runLatency},
                  {"throughput", bench::runThroughput},
                  {"loss", bench::runLoss},
                  {"scale", bench::runScale}};
    for (const auto& group : groups)
    {
        if (wanted(group.name))
        {
            const auto start = bench::Clock::now();
            group.run(options, scenarios);
            std::fprintf(stderr, "weft-bench: %s done in %.1f s\n", group.name,
                         bench::elapsedUs(start, bench::Clock::now()) / 1e6);
        }
    }

    std::printf("%s\n", bench::markdownTable(scenarios).c_str());
    std::printf("Library log lines while measuring: %ld errors, %ld warnings (dropped or "
                "lost data)%s%s\n",
                logs.byLevel[tavo::LOG_LEVEL_ERROR].load(),
                logs.byLevel[tavo::LOG_LEVEL_WARNING].load(),
                logs.firstError.empty() ? "" : "; first error: ", logs.firstError.c_str());

    bool ok = true;
    for (const bench::Scenario& scenario : scenarios)
    {
        for (const bench::Row& row : scenario.rows)
        {
            if (!row.ok)
            {
                std::fprintf(stderr, "weft-bench: FAILED: %s / %s: %s\n", scenario.name.c_str(),
                             row.subject.c_str(), row.failure.c_str());
                ok = false;
            }
        }
    }
    if (!options.jsonPath.empty())
    {
        std::ofstream json(options.jsonPath);
        json << bench::resultsJson(options, scenarios);
        if (!json)
        {
            std::fprintf(stderr, "weft-bench: cannot write %s\n", options.jsonPath.c_str());
            ok = false;
        }
    }
    tavo::LogManager::getInstance()->setSink(nullptr);
    weftDeinit();
    return ok ? 0 : 1;
}
