#pragma once

#include <weft/Export.h>

// Brackets every use of the library: weftInit() before anything else,
// weftDeinit() after the last connection and listener are gone.
WEFT_EXPORT void weftInit();
WEFT_EXPORT void weftDeinit();
