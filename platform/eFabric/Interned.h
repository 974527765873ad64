// InternedString: one pointer to a NUL-terminated text that the policy store keeps until the process ends.
// Equal texts of one store are equal pointers, so comparing costs one instruction. A plain value: copy it freely, from
// any thread. The default value is null and means "none"; its text must not be read.
#pragma once

#include <Export.h>

namespace eFabric {
class VELTPLATFORM_API InternedString {
public:
    constexpr InternedString() : m_p(nullptr) {}
    explicit constexpr InternedString(char const* p) : m_p(p) {}
    constexpr char const* c_str() const { return m_p; }
    explicit constexpr operator bool() const { return m_p != nullptr; }
    friend constexpr bool operator==(InternedString a, InternedString b) { return a.m_p == b.m_p; }

private:
    char const* m_p;
};
static_assert(sizeof(InternedString) == sizeof(void*));
}  // namespace eFabric
using eFabric::InternedString;
