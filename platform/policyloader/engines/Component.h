// Component: one thing that a scan looked at: the object itself, a message, a part, an entry of an archive. They form a
// tree. Owner: the ComponentTree of a scan's results.  Threads: the scan's; read-only after it.  Units: bytes of the
// object as it came in.  Failure: none; a name that is not there is null.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <eFabric/Result.h>

namespace policyloader {

class Component final : public IKORScanPolContextElement {
public:
    enum Kind { Object = 0, Message = 1, Multipart = 2, Part = 3, Entry = 4 };
    // Where it stands in the object; only what stands there unencoded has a range.
    struct Range {
        std::uint64_t headBegin = 0, bodyBegin = 0, bodyEnd = 0;
        bool known = false;
    };

    Component(Component* parent, Kind kind, std::wstring name, long index);

    Range& range() { return m_range; }
    Range const& range() const { return m_range; }
    Kind kind() const { return m_kind; }
    unsigned depth() const { return m_depth; }
    bool hasName() const { return !m_name.empty(); }
    void markInfected() { m_infected = true; }
    // Itself or the nearest one around it that can be cut out of the object; null: none.
    Component const* replaceable() const;

    bool IsChildOf(IKORScanPolContextElement const* other) const override;  // at any depth
    long GetComponentIndex() const override { return m_index; }             // in the order met, from 0
    int GetComponentType() const override { return m_kind; }
    wchar_t const* GetComponentName() const override { return m_name.empty() ? nullptr : m_name.c_str(); }
    wchar_t const* GetScanContextString(wchar_t* buffer, int size, wchar_t sep, wchar_t namesep) const override;
    IKORScanPolContextElement const* GetParent() const override { return m_parent; }
    IKORScanPolContextElement const* GetFirstChild(long& pos) const override;
    IKORScanPolContextElement const* GetNextChild(long& pos) const override;
    bool CheckInContext(char const* kind, bool self, bool parents) const override;  // kind by its name, as "Part"
    int GetInfectedStatus() const override { return m_infected ? 1 : 0; }
    bool IsTopLevel() const override { return !m_parent; }
    bool StateReset() const override { return false; }

private:
    Component* m_parent;
    Kind m_kind;
    unsigned m_depth;
    long m_index;
    std::wstring m_name;
    Range m_range;
    std::vector<Component*> m_children;
    bool m_infected = false;
};

class ComponentTree {
public:
    Component& add(Component* parent, Component::Kind kind, std::string const& name);
    Component* root() { return m_all.empty() ? nullptr : &m_all.front(); }
    Component const* root() const { return m_all.empty() ? nullptr : &m_all.front(); }
    std::size_t size() const { return m_all.size(); }
    void clear() { m_all.clear(); }

private:
    std::deque<Component> m_all;  // elements stay where they are
};

}  // namespace policyloader
