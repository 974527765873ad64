// Exception bases of the toolkit. Exception has no std::exception base, so that StdExceptionT is caught as either.
#pragma once

#include <stdexcept>
#include <string>

#include <Export.h>

namespace KORtk {
struct Location {
    char const* file;
    int line;
    char const* function;
};
using ExceptionString = std::string;
class Exception {
public:
    explicit Exception(Location where, ExceptionString text = {}, ExceptionString second = {});
    virtual ~Exception();
    virtual char const* what() const noexcept;
    ExceptionString const& text() const;
    ExceptionString const& second() const;
    Location const& where() const;
};
template <class Tag, class Base>
class ExceptionT : public Base {
public:
    using Base::Base;
};
template <class Std, class Base>
class StdExceptionT : public Std, public Base {
public:
    StdExceptionT(Location l, ExceptionString t) : Std(t), Base(l, t) {}
    char const* what() const noexcept override { return Base::what(); }
};
}  // namespace KORtk
