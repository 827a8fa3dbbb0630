// Counts every allocation of the process, so that a scenario can tell how
// many the library makes per message. Replacing the global operators is the
// one way to see allocations made inside the shared library too.

#include "Bench.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{

std::atomic<unsigned long long> g_allocations{0};

void* allocate(std::size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = std::malloc(size == 0 ? 1 : size))
    {
        return memory;
    }
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t size)
{
    return allocate(size);
}

void* operator new[](std::size_t size)
{
    return allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace bench
{

double allocations()
{
    return static_cast<double>(g_allocations.load(std::memory_order_relaxed));
}

} // namespace bench
