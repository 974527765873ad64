#include <KORtk/Exception.h>

#include <utility>

namespace KORtk {

Exception::Exception(Location where, ExceptionString text, ExceptionString second)
    : m_text(std::move(text)), m_second(std::move(second)), m_where(where) {}

Exception::~Exception() = default;

char const* Exception::what() const noexcept { return m_text.c_str(); }

}  // namespace KORtk
