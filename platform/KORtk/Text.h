// Text of the toolkit: character ranges with an optional owner, UTF-8 texts with a wide view, wildcard translation.
// Owner: values, copied freely. Threads: as std::string. Units: sizes count characters, without the closing zero.
// Failure: nothing here throws but std::bad_alloc; text that is not well-formed reads as U+FFFD in the other form.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include <Export.h>

namespace KORtk {

struct VELTPLATFORM_API NullType {};  // "no type here", such as the reason of an event that has none

namespace CharBufPolicy {
template <class C, class Tr>
struct CString {  // the text is closed by a zero
    static C* Empty() noexcept {
        static std::remove_const_t<C> nul{};
        return &nul;
    }
    static std::size_t Length(C const* text) { return Tr::length(text); }
};
}  // namespace CharBufPolicy

// A pointer and a length. What it points at belongs to whoever made it, or to the shared owner handed in with it.
template <class C, class Policy, class Tr>
class CharBuf {
public:
    using string_type = std::basic_string<std::remove_const_t<C>, Tr>;
    using view_type = std::basic_string_view<std::remove_const_t<C>, Tr>;

    CharBuf() noexcept : m_text(Policy::Empty()), m_size(0) {}
    CharBuf(C* text)  // borrows up to the closing zero; null is the empty text
        : m_text(text ? text : Policy::Empty()), m_size(text ? Policy::Length(text) : 0) {}
    CharBuf(C* text, std::size_t n, std::shared_ptr<void const> owner = {})
        : m_text(text), m_size(n), m_owner(std::move(owner)) {}

    C* data() const { return m_text; }
    C* c_str() const { return m_text; }
    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    C* begin() const { return m_text; }
    C* end() const { return m_text + m_size; }
    string_type str() const { return string_type(m_text, m_size); }
    view_type view() const { return view_type(m_text, m_size); }

    friend bool operator==(CharBuf const& a, CharBuf const& b) { return a.view() == b.view(); }

private:
    C* m_text;
    std::size_t m_size;
    std::shared_ptr<void const> m_owner;
};

// Text kept as UTF-8. The bytes are kept as they came; the wide view is made anew by each wstr().
class VELTPLATFORM_API Utf8Array {
public:
    Utf8Array() = default;
    Utf8Array(char const* utf8);  // null is the empty text
    Utf8Array(std::string const& utf8);
    Utf8Array(wchar_t const* text);  // null is the empty text
    Utf8Array(std::wstring const& text);

    char const* c_str() const { return m_text.c_str(); }
    std::size_t size() const { return m_text.size(); }  // in bytes
    bool empty() const { return m_text.empty(); }
    std::string const& str() const { return m_text; }
    std::wstring wstr() const;
    bool operator==(Utf8Array const&) const = default;

private:
    std::string m_text;
};

// The expression (perl form, without anchors) that matches what the wildcard text matches: "*" any run of characters,
// "?" one character, everything else itself.
VELTPLATFORM_API std::string dos_to_regex_pattern(std::string_view wildcard);

}  // namespace KORtk
