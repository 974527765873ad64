// KORProperty: the property of a KORPropertyBag. Private to this folder.
// Owner: its bag, to which it reports each change. An element holds its value and, unless it is a bag, both its texts,
// made when it is set, so that reading writes nothing.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <eFabric/Property.h>

namespace eFabric::detail {

using OwnedBag = std::unique_ptr<IKORPropertyBag>;

// Destroys bags without recursion: a bag destroyed while another destruction runs on this thread waits for its turn.
void DestroyBags(std::vector<OwnedBag> bags);

struct PropertyElement {
    union Number {
        long whole;
        unsigned long natural;
        double real;
    } number{};
    std::string narrow;
    std::wstring wide;
    OwnedBag bag;
};

// Who is told of changes, and whether it wants to be.
struct PropertyOwner {
    KORPropertyBag& bag;
    bool callbacks = false;
    void Tell(IKORProperty* property, KORPropChange change) const {
        if (callbacks) bag.PropertiesHaveChanged(property, change);
    }
};

class Property final : public IKORProperty {
public:
    Property(PropertyOwner const& owner, std::string name) : m_owner(owner), m_name(std::move(name)) {}
    ~Property() override;
    Property(Property const&) = delete;
    Property& operator=(Property const&) = delete;

    int GetType() const override { return m_type; }
    bool SetDouble(double v) override;
    bool SetULong(unsigned long v) override;
    bool SetWide(wchar_t const* v) override;
    bool SetNarrow(char const* v) override;
    bool SetLong(long v) override;
    bool SetBag(IKORPropertyBag* owned) override;
    bool GetULong(unsigned long& v) const override { return GetULongAt(0, v); }
    wchar_t const* GetWide() const override { return GetWideAt(0); }
    char const* GetNarrow() const override { return GetNarrowAt(0); }
    bool GetLong(long& v) const override { return GetLongAt(0, v); }
    IKORPropertyBag* GetBag() const override { return GetBagAt(0); }
    char const* GetName() const override { return m_name.c_str(); }
    bool AddDouble(double v) override;
    bool AddULong(unsigned long v) override;
    bool AddWide(wchar_t const* v) override;
    bool AddLong(long v) override;
    bool AddBag(IKORPropertyBag* owned) override;
    unsigned GetCount() const override { return static_cast<unsigned>(m_elements.size()); }
    bool GetDoubleAt(unsigned i, double& v) const override;
    bool GetULongAt(unsigned i, unsigned long& v) const override;
    wchar_t const* GetWideAt(unsigned i) const override;
    bool GetLongAt(unsigned i, long& v) const override;
    IKORPropertyBag* GetBagAt(unsigned i) const override;
    bool GetDouble(double& v) const override { return GetDoubleAt(0, v); }
    char const* GetNarrowAt(unsigned i) const override;
    bool AddNarrow(char const* v) override;

    void Empty();  // no type, no elements, and nobody told

private:
    using Elements = std::vector<PropertyElement>;

    PropertyElement const* At(unsigned i, KORPropType type) const;
    PropertyElement const* TextAt(unsigned i) const;
    bool Set(KORPropType type, PropertyElement element);
    bool Add(KORPropType type, PropertyElement element);
    void Disown(IKORPropertyBag const* bag);
    static void Destroy(Elements elements);

    PropertyOwner const& m_owner;
    std::string const m_name;
    KORPropType m_type = KORProp_None;
    Elements m_elements;
};

// Copies all of `from` into `to`, which is empty; bags inside are not copied, but listed with their empty copies.
using BagPairs = std::vector<std::pair<IKORPropertyBag const*, IKORPropertyBag*>>;
void CopyElements(IKORProperty const& from, IKORProperty& to, BagPairs& nested);

}  // namespace eFabric::detail
