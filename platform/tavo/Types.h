#pragma once

#include <cstdint>

// Fixed-width integers of the interfaces. They are global so that the public
// headers can use them unqualified; glibc's own `uint` names the same type.
typedef std::uint8_t uint8;
typedef std::uint16_t uint16;
typedef unsigned int uint;

static_assert(sizeof(uint) == 4, "uint must be 32 bits wide");
