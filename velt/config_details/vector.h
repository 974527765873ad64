// vector: a read-only view of a list setting, one pointer wide and copied at will.
// Owner: the store owns the list for the life of the process. Threads: any.
// Failure: at() beyond the end throws; an element that cannot be converted is s_null (0 or an empty text).
#pragma once

#include <KORtk/Exception.h>
#include <KORtk/Text.h>
#include <eFabric/Policy.h>

#include <cstddef>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

#include <velt/Export.h>

namespace VELT {

struct velt_exception_tag;

// The text of a setting: it borrows from the store, which keeps its texts for ever.
using CharBuf = KORtk::CharBuf<char const, KORtk::CharBufPolicy::CString<char const, std::char_traits<char>>,
                               std::char_traits<char>>;

namespace config_types {

// What at() throws, caught as std::out_of_range or as KORtk::Exception.
using out_of_range_error =
    KORtk::StdExceptionT<std::out_of_range, KORtk::ExceptionT<velt_exception_tag, KORtk::Exception>>;

namespace detail {

[[noreturn]] VELT_API void ThrowOutOfRange(std::size_t index, std::size_t size, char const* function);

// Converts one element; Raw is the type that the store delivers. convert() is false when the store cannot.
template <class T, class Raw>
struct mock_vector_cfg;

template <>
struct mock_vector_cfg<unsigned short, unsigned int> {
    using raw_type = unsigned int;
    VELT_API static bool convert(eFabric::IProductValue const& element, unsigned short& out);
};

template <>
struct mock_vector_cfg<CharBuf, char const*> {
    using raw_type = char const*;
    VELT_API static bool convert(eFabric::IProductValue const& element, CharBuf& out);
};

// The converter of an element type.
template <class T>
struct element_converter;
template <>
struct element_converter<unsigned short> {
    using type = mock_vector_cfg<unsigned short, unsigned int>;
};
template <>
struct element_converter<CharBuf> {
    using type = mock_vector_cfg<CharBuf, char const*>;
};

template <class T, class EFCMConverter>
class vector_iterator;

}  // namespace detail

template <class T, class EFCMConverter>
class vector {
public:
    using value_type = T;
    using reference = T;
    using const_reference = T;
    using size_type = std::size_t;
    using iterator = detail::vector_iterator<T, EFCMConverter>;
    using const_iterator = iterator;

    static inline T const s_null{};  // what an absent or inconvertible element reads as

    constexpr vector() = default;
    explicit constexpr vector(eFabric::IProductValue const* list) : m_list(list) {}

    size_type size() const { return m_list ? m_list->size() : 0; }
    bool empty() const { return size() == 0; }
    T at(size_type index) const;
    iterator begin() const { return iterator(*this, 0); }
    iterator end() const { return iterator(*this, size()); }

private:
    eFabric::IProductValue const* m_list = nullptr;  // null: the setting is absent
};

template <class T, class EFCMConverter>
T vector<T, EFCMConverter>::at(size_type index) const {
    size_type const count = size();
    if (index >= count) detail::ThrowOutOfRange(index, count, __PRETTY_FUNCTION__);
    eFabric::IProductValue const* const element = m_list->at(static_cast<unsigned>(index));
    T value{};
    if (!element || !EFCMConverter::convert(*element, value)) return s_null;
    return value;
}

namespace detail {

// Walks a vector by index; elements are read when they are asked for.
template <class T, class EFCMConverter>
class vector_iterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = T;
    using size_type = std::size_t;

    vector_iterator(vector<T, EFCMConverter> view, size_type index) : m_view(view), m_index(index) {}

    reference operator*() const { return m_view.at(m_index); }
    vector_iterator& operator++() {
        ++m_index;
        return *this;
    }
    vector_iterator operator++(int) { return vector_iterator(m_view, m_index++); }
    bool operator==(vector_iterator const& other) const { return m_index == other.m_index; }

private:
    vector<T, EFCMConverter> m_view;
    size_type m_index;
};

}  // namespace detail
}  // namespace config_types
}  // namespace VELT
