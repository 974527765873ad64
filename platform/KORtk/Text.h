// Text of the toolkit: borrowed character ranges, UTF-8 texts with a wide view, and the wildcard translation.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include <Export.h>

namespace KORtk {
struct NullType {};
namespace CharBufPolicy {
template <class C, class Tr>
struct CString {};
}  // namespace CharBufPolicy
template <class C, class Policy, class Tr>
class CharBuf {  // pointer + length + optional shared owner
public:
    CharBuf() noexcept;
    CharBuf(C* text);  // borrows, owns nothing
    CharBuf(C* text, std::size_t n, std::shared_ptr<void const> owner = {});
    C* data() const;
    std::size_t size() const;
    bool empty() const;
    C* begin() const;
    C* end() const;
    std::basic_string<std::remove_const_t<C>, Tr> str() const;
};
class Utf8Array {  // UTF-8 text; wide view on demand
public:
    Utf8Array();
    Utf8Array(char const* utf8);
    Utf8Array(std::string const& utf8);
    Utf8Array(wchar_t const* text);
    Utf8Array(std::wstring const& text);
    char const* c_str() const;
    std::size_t size() const;
    bool empty() const;
    std::string const& str() const;
    std::wstring wstr() const;
    bool operator==(Utf8Array const&) const = default;

private:
    std::string m_text;
};
std::string dos_to_regex_pattern(std::string_view wildcard);  // * -> .*  ? -> .  every other metachar escaped
}  // namespace KORtk
