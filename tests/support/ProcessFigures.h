#pragma once

#include <tavo/Timer.h>

#include <fstream>
#include <sstream>
#include <string>

// Figures of this process as the kernel reports them in /proc/self/status,
// for tests that measure what a connection costs and check that it is given
// back.

// The number after `field` (such as "Threads:" or "VmRSS:"), or -1.
inline long procStatusField(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
    {
        if (line.compare(0, field.size(), field) == 0)
        {
            std::istringstream value(line.substr(field.size()));
            long number = -1;
            value >> number;
            return number;
        }
    }
    return -1;
}

inline long threadCount()
{
    return procStatusField("Threads:");
}

// The thread count to come back to once every connection has ended. The
// platform's timer thread starts on first use and stays for good, so it is
// started here and does not count against the connections.
inline long baselineThreadCount()
{
    tavo::Timer timer;
    timer.isRunning();
    return threadCount();
}

// Resident memory in KiB.
inline long residentKb()
{
    return procStatusField("VmRSS:");
}
