// EmailAddr: the mail address in a text such as "<a@b>", "Name <a@b>" or "a@b". Value; threads: any.
// Comments in parentheses and an old source route ("@relay:a@b") are dropped. A quoted local part loses its quotes
// where it needs none, so that "joe"@x and joe@x are one address to a rule.
// Failure: none; a text without "@" is a local part alone, and the empty text the null sender.
#pragma once

#include <string>

#include <Export.h>

namespace KORnet {

class VELTPLATFORM_API EmailAddr {
public:
    explicit EmailAddr(std::string const& text);

    std::string const& local() const { return m_local; }
    std::string const& domain() const { return m_domain; }
    std::string asPlainString(bool lower_domain) const;  // "local@domain"; ASCII letters of the domain lowered if asked

private:
    std::string m_local;
    std::string m_domain;
};

}  // namespace KORnet
