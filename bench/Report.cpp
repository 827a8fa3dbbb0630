#include "Bench.h"

#include "Json.h"

#include <sys/utsname.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

namespace bench
{

namespace
{

// The weft tool's: texts that come from the machine (CPU model, compiler)
// stay valid JSON whatever bytes they hold.
using weftcli::jsonString;

std::string format(double value)
{
    char text[64];
    const double magnitude = std::fabs(value);
    if (magnitude >= 100 || value == std::floor(value))
    {
        std::snprintf(text, sizeof(text), "%.0f", value);
    }
    else if (magnitude >= 10)
    {
        std::snprintf(text, sizeof(text), "%.1f", value);
    }
    else
    {
        std::snprintf(text, sizeof(text), "%.2f", value);
    }
    return text;
}

const Row* findRow(const Scenario& scenario, const std::string& subject)
{
    for (const Row& row : scenario.rows)
    {
        if (row.subject == subject)
        {
            return &row;
        }
    }
    return nullptr;
}

// The figure divided by the baseline's; NaN where there is none.
double ratio(const Scenario& scenario, const Row& row, const Column& column)
{
    const Row* baseline = row.baseline.empty() ? nullptr : findRow(scenario, row.baseline);
    if (!column.ratio || baseline == nullptr)
    {
        return std::nan("");
    }
    const auto mine = row.figures.find(column.key);
    const auto theirs = baseline->figures.find(column.key);
    if (mine == row.figures.end() || theirs == baseline->figures.end() || theirs->second == 0)
    {
        return std::nan("");
    }
    return mine->second / theirs->second;
}

std::string jsonNumber(double value)
{
    if (!std::isfinite(value))
    {
        return "null";
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%.6g", value);
    return text;
}

std::string cpuModel()
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line))
    {
        if (line.rfind("model name", 0) == 0)
        {
            const std::size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    }
    return "unknown";
}

std::string kernel()
{
    utsname name{};
    if (::uname(&name) != 0)
    {
        return "unknown";
    }
    return std::string(name.sysname) + " " + name.release + " " + name.machine;
}

std::string compiler()
{
#if defined(__clang__)
    return std::string("clang ") + __clang_version__;
#elif defined(__GNUC__)
    return std::string("g++ ") + __VERSION__;
#else
    return "unknown";
#endif
}

std::string utcNow()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

} // namespace

std::string machineDescription()
{
    std::ostringstream out;
    out << cpuModel() << ", " << std::thread::hardware_concurrency() << " cores, " << kernel()
        << ", " << compiler();
    return out.str();
}

std::string markdownTable(const std::vector<Scenario>& scenarios)
{
    std::size_t width = 0;
    for (const Scenario& scenario : scenarios)
    {
        width = std::max(width, scenario.columns.size());
    }
    std::ostringstream out;
    out << "| Subject |";
    for (std::size_t i = 0; i < width; ++i)
    {
        out << " |";
    }
    out << "\n|---|";
    for (std::size_t i = 0; i < width; ++i)
    {
        out << "---:|";
    }
    out << "\n";
    for (const Scenario& scenario : scenarios)
    {
        // Each scenario opens with a row that names it and its columns.
        out << "| **" << scenario.title << "** (median of " << scenario.repetitions << ") |";
        for (std::size_t i = 0; i < width; ++i)
        {
            out << " "
                << (i < scenario.columns.size() ? "**" + scenario.columns[i].title + "**" : "")
                << " |";
        }
        out << "\n";
        for (const Row& row : scenario.rows)
        {
            out << "| " << row.subject;
            if (!row.baseline.empty())
            {
                out << " (vs " << row.baseline << ")";
            }
            if (!row.ok)
            {
                out << " **FAILED: " << row.failure << "**";
            }
            out << " |";
            for (std::size_t i = 0; i < width; ++i)
            {
                if (i >= scenario.columns.size())
                {
                    out << " |";
                    continue;
                }
                const Column& column = scenario.columns[i];
                const auto figure = row.figures.find(column.key);
                if (figure == row.figures.end())
                {
                    out << " – |";
                    continue;
                }
                out << " " << format(figure->second);
                if (!column.unit.empty())
                {
                    out << " " << column.unit;
                }
                const double r = ratio(scenario, row, column);
                if (std::isfinite(r))
                {
                    out << " (×" << format(r) << ")";
                }
                out << " |";
            }
            out << "\n";
        }
    }
    return out.str();
}

std::string machineJson()
{
    std::ostringstream out;
    out << "{\"cpu_model\": " << jsonString(cpuModel())
        << ", \"cores\": " << std::thread::hardware_concurrency()
        << ", \"kernel\": " << jsonString(kernel()) << ", \"compiler\": " << jsonString(compiler())
        << ", \"date\": " << jsonString(utcNow()) << "}";
    return out.str();
}

std::string resultsJson(const Options& options, const std::vector<Scenario>& scenarios)
{
    std::ostringstream out;
    out << "{\n  \"machine\": " << machineJson()
        << ",\n  \"quick\": " << (options.quick ? "true" : "false")
        << ",\n  \"repetitions\": " << options.repetitions
        << ",\n  \"enet\": " << (enetAvailable() ? "true" : "false") << ",\n  \"scenarios\": [";
    for (std::size_t s = 0; s < scenarios.size(); ++s)
    {
        const Scenario& scenario = scenarios[s];
        out << (s == 0 ? "" : ",") << "\n    {\"name\": " << jsonString(scenario.name)
            << ", \"title\": " << jsonString(scenario.title)
            << ", \"repetitions\": " << scenario.repetitions << ", \"columns\": [";
        for (std::size_t c = 0; c < scenario.columns.size(); ++c)
        {
            const Column& column = scenario.columns[c];
            out << (c == 0 ? "" : ", ") << "{\"key\": " << jsonString(column.key)
                << ", \"title\": " << jsonString(column.title)
                << ", \"unit\": " << jsonString(column.unit) << "}";
        }
        out << "],\n     \"rows\": [";
        for (std::size_t r = 0; r < scenario.rows.size(); ++r)
        {
            const Row& row = scenario.rows[r];
            out << (r == 0 ? "" : ",") << "\n       {\"subject\": " << jsonString(row.subject)
                << ", \"baseline\": " << (row.baseline.empty() ? "null" : jsonString(row.baseline))
                << ", \"ok\": " << (row.ok ? "true" : "false");
            if (!row.ok)
            {
                out << ", \"failure\": " << jsonString(row.failure);
            }
            out << ", \"figures\": {";
            bool first = true;
            for (const auto& [key, value] : row.figures)
            {
                out << (first ? "" : ", ") << jsonString(key) << ": " << jsonNumber(value);
                first = false;
            }
            out << "}, \"ratios\": {";
            first = true;
            for (const Column& column : scenario.columns)
            {
                const double r2 = ratio(scenario, row, column);
                if (std::isfinite(r2))
                {
                    out << (first ? "" : ", ") << jsonString(column.key) << ": " << jsonNumber(r2);
                    first = false;
                }
            }
            out << "}}";
        }
        out << "]}";
    }
    out << "\n  ]\n}\n";
    return out.str();
}

} // namespace bench
