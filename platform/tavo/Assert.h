#pragma once

#include <tavo/Export.h>

namespace tavo
{

// Reports a failed programming-error check and aborts the process. Active in
// every build type: a broken invariant must never run on silently.
[[noreturn]] TAVO_EXPORT void assertionFailed(const char* expression, const char* file, int line,
                                              const char* function);

} // namespace tavo

// Stops the process when `cond` is false, naming the condition.
#define TAVO_ASSERT(cond)                                                                          \
    ((cond) ? static_cast<void>(0) : ::tavo::assertionFailed(#cond, __FILE__, __LINE__, __func__))

// Same, with the condition named by `text` (for conditions whose source form
// differs from the name users know it by).
#define TAVO_ASSERT_TEXT(cond, text)                                                               \
    ((cond) ? static_cast<void>(0) : ::tavo::assertionFailed(text, __FILE__, __LINE__, __func__))
