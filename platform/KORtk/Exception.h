// Exception bases of the toolkit.
// Exception has no std::exception base, so that StdExceptionT, which has both, is caught as either. So a handler for
// std::exception does not see a plain Exception: catch both at the top of a thread.
// Owner: thrown by value. Threads: any. Failure: what() is never null.
#pragma once

#include <string>
#if defined(__has_builtin)
#if __has_builtin(__builtin_source_location) || !defined(__clang__)
#define KORTK_SOURCE_LOCATION 1
#include <source_location>
#endif
#endif

#include <Export.h>

namespace KORtk {

// A place in the source. The texts are literals, or outlive whoever holds the Location.
struct Location {
    char const* file;
    int line;
    char const* function;
};

// The caller's place: f(int x, Location where = Here()). The function's name is the full one where the compiler knows
// it.
#ifdef KORTK_SOURCE_LOCATION
constexpr Location Here(std::source_location where = std::source_location::current()) {
    return {where.file_name(), static_cast<int>(where.line()), where.function_name()};
}
#else
constexpr Location Here(char const* file = __builtin_FILE(), int line = __builtin_LINE(),
                        char const* function = __builtin_FUNCTION()) {
    return {file, line, function};
}
#endif

using ExceptionString = std::string;

class VELTPLATFORM_API Exception {
public:
    explicit Exception(Location where, ExceptionString text = {}, ExceptionString second = {});
    Exception(Exception const&) = default;
    Exception& operator=(Exception const&) = default;
    virtual ~Exception();

    virtual char const* what() const noexcept;  // the text
    ExceptionString const& text() const { return m_text; }
    ExceptionString const& second() const { return m_second; }
    Location const& where() const { return m_where; }

private:
    ExceptionString m_text;
    ExceptionString m_second;
    Location m_where;
};

// A kind of its own below Base, told apart by its tag.
template <class Tag, class Base>
class VELTPLATFORM_API ExceptionT : public Base {
public:
    using Base::Base;
};

// A kind that is caught as Std too.
template <class Std, class Base>
class VELTPLATFORM_API StdExceptionT : public Std, public Base {
public:
    StdExceptionT(Location where, ExceptionString text) : Std(text), Base(where, text) {}
    char const* what() const noexcept override { return Base::what(); }
};

}  // namespace KORtk
