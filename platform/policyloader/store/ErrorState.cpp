#include <policyloader/store/ErrorState.h>

#include <algorithm>

#include <KORtk/Text.h>

namespace policyloader {

void ErrorState::Clear() { *this = ErrorState(); }

void ErrorState::Set(KORErrorLevel level, unsigned long code, std::string const& text, std::string const& detail) {
    m_set = true;
    m_level = level;
    m_code = code;
    m_text = KORtk::Utf8Array(text).wstr();
    m_detail = KORtk::Utf8Array(detail).wstr();
    m_attributes.clear();
}

void ErrorState::SetAttribute(std::string name, std::string value) {
    auto const known = std::find_if(m_attributes.begin(), m_attributes.end(),
                                    [&](auto const& attribute) { return attribute.first == name; });
    if (known != m_attributes.end())
        known->second = std::move(value);
    else
        m_attributes.emplace_back(std::move(name), std::move(value));
}

char const* ErrorState::GetAttribute(char const* name) const {
    for (auto const& [known, value] : m_attributes)
        if (name && known == name) return value.c_str();
    return nullptr;
}

char const* ErrorState::FirstAttribute(long& pos) const {
    pos = -1;
    return NextAttribute(pos);
}

char const* ErrorState::NextAttribute(long& pos) const {
    if (pos + 1 < 0 || static_cast<std::size_t>(pos + 1) >= m_attributes.size()) return nullptr;
    return m_attributes[static_cast<std::size_t>(++pos)].first.c_str();
}

}  // namespace policyloader
