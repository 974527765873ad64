// InternedString: one pointer to a text that the policy store keeps for ever. Equal texts are equal pointers.
#pragma once

namespace eFabric {
class InternedString {
public:
    constexpr InternedString() : m_p(nullptr) {}
    explicit constexpr InternedString(char const* p) : m_p(p) {}
    char const* c_str() const { return m_p; }
    explicit operator bool() const { return m_p; }
    friend bool operator==(InternedString a, InternedString b) { return a.m_p == b.m_p; }

private:
    char const* m_p;
};
static_assert(sizeof(InternedString) == sizeof(void*));
}  // namespace eFabric
using eFabric::InternedString;
