#include <policyloader/engines/Component.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

#include <KORtk/Text.h>

namespace policyloader {
namespace {

constexpr char const* kKindNames[] = {"Object", "Message", "Multipart", "Part", "Entry"};

}  // namespace

Component::Component(Component* parent, Kind kind, std::wstring name, long index)
    : m_parent(parent),
      m_kind(kind),
      m_depth(parent ? parent->m_depth + 1 : 0),
      m_index(index),
      m_name(std::move(name)) {
    if (parent) parent->m_children.push_back(this);
}

Component const* Component::replaceable() const {
    auto const* at = this;
    while (at && !at->m_range.known) at = at->m_parent;
    return at;
}

bool Component::IsChildOf(IKORScanPolContextElement const* other) const {
    auto const* at = m_parent;
    while (at && at != other) at = at->m_parent;
    return at && other;
}

wchar_t const* Component::GetScanContextString(wchar_t* buffer, int size, wchar_t sep, wchar_t namesep) const {
    if (!buffer || size < 1) return buffer;
    std::wstring text;
    for (auto const* at = this; at; at = at->m_parent) {
        std::string const kind = kKindNames[at->m_kind];
        std::wstring step(kind.begin(), kind.end());
        if (!at->m_name.empty()) step.append(1, namesep).append(at->m_name);
        text = text.empty() ? step : step.append(1, sep).append(text);
    }
    std::size_t const length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
    std::wmemcpy(buffer, text.data(), length);
    buffer[length] = L'\0';
    return buffer;
}

IKORScanPolContextElement const* Component::GetFirstChild(long& pos) const {
    pos = -1;
    return GetNextChild(pos);
}

IKORScanPolContextElement const* Component::GetNextChild(long& pos) const {
    ++pos;
    bool const there = pos >= 0 && static_cast<std::size_t>(pos) < m_children.size();
    return there ? m_children[static_cast<std::size_t>(pos)] : nullptr;
}

bool Component::CheckInContext(char const* kind, bool self, bool parents) const {
    if (!kind) return false;
    if (self && std::strcmp(kKindNames[m_kind], kind) == 0) return true;
    return parents && m_parent && m_parent->CheckInContext(kind, true, true);
}

Component& ComponentTree::add(Component* parent, Component::Kind kind, std::string const& name) {
    m_all.emplace_back(parent, kind, KORtk::Utf8Array(name).wstr(), static_cast<long>(m_all.size()));
    return m_all.back();
}

}  // namespace policyloader
