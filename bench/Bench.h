#pragma once

// Shared pieces of weft-bench: options, results, statistics and the small
// measuring helpers every scenario uses.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench
{

using Clock = std::chrono::steady_clock;

struct Options
{
    bool quick = false;
    // Each figure is the median of this many runs.
    int repetitions = 5;
    // Round trips per latency run, after the warm-up ones.
    int latencyRounds = 20000;
    int latencyWarmup = 1000;
    // Messages per throughput run.
    int throughputMessages = 20000;
    // Round trips and messages per run through the impairment relay.
    int lossRounds = 200;
    int lossMessages = 5000;
    int scaleTcp = 1000;
    int scaleEudp = 1000;
    // Runs only the scenarios whose name contains this text (empty: all).
    std::string only;
    // Runs only the subjects whose name contains this text (empty: all);
    // meant for profiling one of them.
    std::string subject;
    std::string jsonPath;
};

// The figures of one run, by key; the same keys come out of every run of a
// subject, so that medians can be taken key by key.
using Figures = std::map<std::string, double>;

// One measured subject within a scenario: its median figures and the
// subject it is compared with.
struct Row
{
    std::string subject;
    // Subject of the row in the same scenario that this one is compared
    // with; empty for a baseline.
    std::string baseline;
    Figures figures;
    // False when a run failed a check (lost or reordered data where none
    // may be lost, connections that did not come up).
    bool ok = true;
    std::string failure;
    // Left out by the subject filter: neither run nor shown.
    bool skipped = false;
};

// Which figures a scenario shows, in order: key, column title, unit, and
// whether a ratio to the baseline means something for it.
struct Column
{
    std::string key;
    std::string title;
    std::string unit;
    bool ratio;
};

// The outcome of one run: its figures, or what went wrong.
struct RunResult
{
    Figures figures;
    bool ok = true;
    std::string failure;
};

// Something to measure: one run of it gives one set of figures.
struct Subject
{
    std::string name;
    std::string baseline;
    std::function<RunResult()> run;
};

Subject subject(const std::string& name, const std::string& baseline,
                std::function<RunResult()> run);

struct Scenario
{
    std::string name;  // stable identifier, as in the JSON
    std::string title; // shown in the table
    std::vector<Column> columns;
    std::vector<Subject> subjects;
    // Filled in by measure(), one per subject, in the same order.
    std::vector<Row> rows;
    int repetitions = 0;
};

// Subjects whose name lacks this text are skipped by measure().
void setSubjectFilter(const std::string& text);

// Runs every subject once per round, `repetitions` rounds, and keeps the
// median of every figure. Rounds rather than one subject's runs in a row: a
// passing disturbance of the machine then touches every subject alike
// instead of one. A row fails when any of its runs failed.
void measure(Scenario& scenario);

// Percentiles of a set of durations in microseconds: p50_us, p99_us,
// p999_us, max_us.
Figures latencyFigures(std::vector<double>& samplesUs);
// The figures of a round-trip run: latencyFigures and switches_per_rt.
Figures roundTripFigures(std::vector<double>& samplesUs, double switches);
// Times round trips: `warmup` untimed ones, then `rounds` timed ones, each
// from just before `roundTrip(i)` is called to the time it sets in
// `answered`. `roundTrip` returns an empty text, or why the run broke off (the
// round trips before still give figures). Context switches count from the
// first timed round trip on.
RunResult
timeRoundTrips(int rounds, int warmup,
               const std::function<std::string(int i, Clock::time_point& answered)>& roundTrip);
// The figures of a push of `sent` messages of `messageSize` bytes, of which
// `received` arrived over `seconds`, costing `cpuUs` and `switches`.
Figures pushFigures(int sent, int received, int messageSize, double seconds, double cpuUs,
                    double switches);
// The figures of a scale run: `connected` of `wanted` connections came up in
// `connectMs`, growing the process by `rssGrowthKb` and `threadGrowth`, and
// `delivered` messages reached them, one each, in `deliverMs`.
Figures scaleFigures(int wanted, double connected, double connectMs, long rssGrowthKb,
                     long threadGrowth, int delivered, double deliverMs);
// Fails a scale run that has not failed yet when not all of `wanted`
// connections came up or got their message.
void requireDelivered(RunResult& result, int delivered, int wanted, bool allConnected = true);
double percentile(const std::vector<double>& sorted, double fraction);
double median(std::vector<double> values);

// User plus system CPU time of the whole process, in microseconds.
double processCpuUs();
// Context switches of the whole process so far, voluntary or not: each
// thread hand-off that puts a thread to sleep shows up here.
double contextSwitches();
// Allocations the whole process has made so far (operator new).
double allocations();
double elapsedUs(Clock::time_point from, Clock::time_point to);

// Fields of /proc/self/status.
long residentKb();
long threadCount();

// Sleeps until `deadline` or `done()` holds, checking every millisecond;
// true when done() held.
bool waitUntil(const std::function<bool()>& done, Clock::time_point deadline);

// Message sizes of the throughput scenarios: bytes the transport carries per
// message (the whole protocol message, header included).
const std::vector<int>& throughputSizes();

// ---- scenarios: each adds its scenarios to the list ----
void runLatency(const Options& options, std::vector<Scenario>& out);
void runThroughput(const Options& options, std::vector<Scenario>& out);
void runLoss(const Options& options, std::vector<Scenario>& out);
void runScale(const Options& options, std::vector<Scenario>& out);

// Baselines, one run each.
RunResult tcpPingPong(int rounds, int warmup, int messageSize);
RunResult udpPingPong(int rounds, int warmup, int messageSize);
RunResult tcpBlast(int messages, int messageSize);
RunResult udpBlast(int messages, int messageSize);
RunResult plainTcpScale(int connections);
RunResult plainUdpScale(int connections);

// ENet, where it was found at build time.
bool enetAvailable();
RunResult enetPingPong(bool reliable, int rounds, int warmup, int messageSize);
RunResult enetBlast(bool reliable, int messages, int messageSize);

// Size of the small message that each latency baseline sends each way: about
// what a function call and its answering trigger carry.
constexpr int LATENCY_MESSAGE_SIZE = 16;

// ---- reporting ----
std::string markdownTable(const std::vector<Scenario>& scenarios);
std::string machineJson();
std::string resultsJson(const Options& options, const std::vector<Scenario>& scenarios);
std::string machineDescription();

} // namespace bench
