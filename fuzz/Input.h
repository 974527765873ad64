// Input: cuts the bytes of a fuzzer into numbers and texts, and Require stops the process where a check fails.
// Owner: the target. Thread: one. Failure: an input that has run out gives zeros and empty texts.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace velt_fuzz {

inline void Require(bool holds, char const* what) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) : m_at(data), m_left(size) {}

    bool empty() const { return m_left == 0; }
    unsigned Byte() {
        if (m_left == 0) return 0;
        --m_left;
        return *m_at++;
    }
    std::string Text(std::size_t length) {
        std::size_t const taken = std::min(length, m_left);
        std::string text(reinterpret_cast<char const*>(m_at), taken);
        m_at += taken;
        m_left -= taken;
        return text;
    }
    std::string Rest() { return Text(m_left); }
    // Up to the next line feed, which is dropped.
    std::string Line() {
        std::uint8_t const* const end = std::find(m_at, m_at + m_left, '\n');
        std::string text = Text(static_cast<std::size_t>(end - m_at));
        Byte();
        return text;
    }

private:
    std::uint8_t const* m_at;
    std::size_t m_left;
};

}  // namespace velt_fuzz

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);
