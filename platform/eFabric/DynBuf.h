// DynBuf: a growing array that a caller hands over an interface for the callee to fill. Not for several threads.
#pragma once

#include <cstddef>
#include <vector>

template <class T>
class DynBuf {
public:
    T* data() { return m_v.data(); }
    T const* data() const { return m_v.data(); }
    std::size_t size() const { return m_v.size(); }
    void resize(std::size_t n) { m_v.resize(n); }  // new elements are zero
    void append(T const* first, std::size_t n) {
        std::vector<T> const copy(first, first + n);  // `first` may point into this very buffer
        m_v.insert(m_v.end(), copy.begin(), copy.end());
    }

private:
    std::vector<T> m_v;
};
