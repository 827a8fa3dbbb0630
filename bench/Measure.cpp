#include "Bench.h"

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <thread>

namespace bench
{

double percentile(const std::vector<double>& sorted, double fraction)
{
    if (sorted.empty())
    {
        return 0;
    }
    // Nearest rank: the smallest sample with at least `fraction` of all
    // samples at or below it.
    const double rank = std::ceil(fraction * static_cast<double>(sorted.size()));
    const std::size_t index = rank < 1 ? 0 : static_cast<std::size_t>(rank) - 1;
    return sorted[std::min(index, sorted.size() - 1)];
}

double median(std::vector<double> values)
{
    if (values.empty())
    {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

Figures latencyFigures(std::vector<double>& samplesUs)
{
    std::sort(samplesUs.begin(), samplesUs.end());
    return {{"p50_us", percentile(samplesUs, 0.50)},
            {"p99_us", percentile(samplesUs, 0.99)},
            {"p999_us", percentile(samplesUs, 0.999)},
            {"max_us", samplesUs.empty() ? 0 : samplesUs.back()}};
}

Figures roundTripFigures(std::vector<double>& samplesUs, double switches)
{
    Figures figures = latencyFigures(samplesUs);
    figures["switches_per_rt"] = samplesUs.empty() ? 0 : switches / samplesUs.size();
    return figures;
}

RunResult
timeRoundTrips(int rounds, int warmup,
               const std::function<std::string(int i, Clock::time_point& answered)>& roundTrip)
{
    RunResult result;
    std::vector<double> samples;
    samples.reserve(static_cast<std::size_t>(rounds));
    double switchesBefore = contextSwitches();
    for (int i = 0; i < warmup + rounds; ++i)
    {
        const Clock::time_point sent = Clock::now();
        Clock::time_point answered;
        const std::string failure = roundTrip(i, answered);
        if (!failure.empty())
        {
            result = RunResult{{}, false, failure};
            break;
        }
        if (i + 1 == warmup)
        {
            switchesBefore = contextSwitches();
        }
        if (i >= warmup)
        {
            samples.push_back(elapsedUs(sent, answered));
        }
    }
    result.figures = roundTripFigures(samples, contextSwitches() - switchesBefore);
    return result;
}

Figures pushFigures(int sent, int received, int messageSize, double seconds, double cpuUs,
                    double switches)
{
    return {
        {"msgs_per_s", seconds > 0 ? received / seconds : 0},
        {"mb_per_s", seconds > 0 ? static_cast<double>(received) * messageSize / seconds / 1e6 : 0},
        {"lost", sent - received},
        {"cpu_us_per_msg", received > 0 ? cpuUs / received : 0},
        {"switches_per_msg", received > 0 ? switches / received : 0}};
}

Figures scaleFigures(int wanted, double connected, double connectMs, long rssGrowthKb,
                     long threadGrowth, int delivered, double deliverMs)
{
    const double n = wanted;
    return {{"connections", connected},
            {"connect_ms", connectMs},
            {"rss_kb_per_conn", static_cast<double>(rssGrowthKb) / n},
            {"threads_per_conn", static_cast<double>(threadGrowth) / n},
            {"delivered", delivered},
            {"deliver_ms", deliverMs}};
}

void requireDelivered(RunResult& result, int delivered, int wanted, bool allConnected)
{
    if (result.ok && (!allConnected || delivered != wanted))
    {
        result.ok = false;
        result.failure = "delivered to " + std::to_string(delivered) + " of " +
                         std::to_string(wanted) + " connections";
    }
}

namespace
{

std::string& subjectFilter()
{
    static std::string filter;
    return filter;
}

} // namespace

void setSubjectFilter(const std::string& text)
{
    subjectFilter() = text;
}

Subject subject(const std::string& name, const std::string& baseline,
                std::function<RunResult()> run)
{
    return Subject{name, baseline, std::move(run)};
}

void measure(Scenario& scenario)
{
    std::vector<std::map<std::string, std::vector<double>>> samples(scenario.subjects.size());
    scenario.rows.assign(scenario.subjects.size(), Row{});
    for (std::size_t i = 0; i < scenario.subjects.size(); ++i)
    {
        Row& row = scenario.rows[i];
        row.subject = scenario.subjects[i].name;
        row.baseline = scenario.subjects[i].baseline;
        row.skipped = row.subject.find(subjectFilter()) == std::string::npos;
    }
    for (int round = 0; round < scenario.repetitions; ++round)
    {
        for (std::size_t i = 0; i < scenario.subjects.size(); ++i)
        {
            Row& row = scenario.rows[i];
            if (row.skipped)
            {
                continue;
            }
            RunResult result = scenario.subjects[i].run();
            if (!result.ok && row.ok)
            {
                row.ok = false;
                row.failure = result.failure;
            }
            for (const auto& [key, value] : result.figures)
            {
                samples[i][key].push_back(value);
            }
        }
    }
    for (std::size_t i = 0; i < scenario.rows.size(); ++i)
    {
        for (auto& [key, values] : samples[i])
        {
            scenario.rows[i].figures[key] = median(values);
        }
    }
    std::erase_if(scenario.rows, [](const Row& row) { return row.skipped; });
}

double processCpuUs()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto us = [](const timeval& t)
    { return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec); };
    return us(usage.ru_utime) + us(usage.ru_stime);
}

double contextSwitches()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_nvcsw) + static_cast<double>(usage.ru_nivcsw);
}

double elapsedUs(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::micro>(to - from).count();
}

namespace
{

long statusField(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
    {
        if (line.compare(0, name.size(), name) == 0 && line.size() > name.size() &&
            line[name.size()] == ':')
        {
            return std::stol(line.substr(name.size() + 1));
        }
    }
    return -1;
}

} // namespace

long residentKb()
{
    return statusField("VmRSS");
}

long threadCount()
{
    return statusField("Threads");
}

bool waitUntil(const std::function<bool()>& done, Clock::time_point deadline)
{
    while (!done())
    {
        if (Clock::now() >= deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

const std::vector<int>& throughputSizes()
{
    static const std::vector<int> sizes = {16, 256, 1400};
    return sizes;
}

} // namespace bench
