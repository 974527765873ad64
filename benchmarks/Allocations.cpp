#include "benchmarks/Allocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local unsigned long s_allocations = 0;

}  // namespace

unsigned long AllocationsOfThread() { return s_allocations; }

[[gnu::noinline]] void* operator new(std::size_t size) {
    ++s_allocations;
    if (void* const memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
