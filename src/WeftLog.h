#pragma once

#include <tavo/LogManager.h>

#include <ostream>

// The library's one log output, "WEFT". Levels by what they report:
// LOG_LEVEL_ERROR messages that cannot be built or read and failed requests,
// LOG_LEVEL_WARNING received data that is dropped or refused,
// LOG_LEVEL_INFO the listener's end, LOG_LEVEL_DEBUG refused sends,
// duplicates and full buffers.

tavo::LogOutput* weftLogOutput();

// A stream for one line at `level`; the caller ends it with std::endl.
std::ostream& weftLog(tavo::ELogLevel level);
