// The start every fuzz target shares: the library once, with its log off.
// Linked into every target as a weak definition, so that a target with more
// to set up (a listening transport, a peer) defines its own and that one wins.

#include "FuzzSupport.h"

extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startQuietly();
    return 0;
}
