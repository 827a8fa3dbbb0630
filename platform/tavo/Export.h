#pragma once

// Symbols of the platform layer that the library's public headers rely on are
// exported from libweftlib.so; everything else stays hidden.
#if defined(__GNUC__)
#define TAVO_EXPORT __attribute__((visibility("default")))
#else
#define TAVO_EXPORT
#endif
