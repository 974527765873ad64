#include "testing/FailingNew.h"

#include <cstdlib>
#include <new>

#ifndef VELT_NEW_IS_TAKEN

using velt_testing::FailingState;
using velt_testing::t_failing;

namespace {

bool IsToFail() {
    FailingState& state = t_failing;
    if (!state.on || state.spared > 0) return false;
    if (state.left > 0) {
        --state.left;
        return false;
    }
    if (state.failed && !state.forGood) return false;
    return state.failed = true;
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = IsToFail() ? nullptr : std::malloc(size ? size : 1);
    if (!memory) throw std::bad_alloc();
    return memory;
}
// A sanitizer's own one would give memory of another kind than is freed below.
[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return IsToFail() ? nullptr : std::malloc(size ? size : 1);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

#endif
