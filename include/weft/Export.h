#pragma once

// Only the public interface is exported from libweftlib.so; the rest is built
// with hidden visibility.
#if defined(__GNUC__)
#define WEFT_EXPORT __attribute__((visibility("default")))
#else
#define WEFT_EXPORT
#endif
