#include <cstring>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include <eFabric/Property.h>
#include <eFabric/PropertyValue.h>

using eFabric::detail::Property;
using eFabric::detail::PropertyOwner;

namespace {

constexpr std::size_t kWalked = 64;  // properties at most that are found without an index

}  // namespace

struct KORPropertyBag::Impl {
    using Properties = std::vector<std::unique_ptr<Property>>;

    explicit Impl(KORPropertyBag& self) : owner{self} {}

    Property* Find(char const* name) const {
        if (!name) return nullptr;
        if (!byName.empty()) {
            auto const found = byName.find(name);
            return found == byName.end() ? nullptr : found->second;
        }
        for (auto const& property : properties)
            if (std::strcmp(property->GetName(), name) == 0) return property.get();
        return nullptr;
    }

    Property* At(long index) const {
        bool const inside = index >= 0 && static_cast<std::size_t>(index) < properties.size();
        return inside ? properties[static_cast<std::size_t>(index)].get() : nullptr;
    }

    Property* Make(char const* name) {
        properties.push_back(std::make_unique<Property>(owner, name));
        Index(*properties.back());
        owner.Tell(properties.back().get(), KORPropChange::Added);
        return properties.back().get();
    }

    // Made with the property and not with the look-up, which other threads may do at the same time. Without the memory
    // for it the bag is walked.
    void Index(Property& made) {
        if (byName.empty() && properties.size() <= kWalked) return;
        try {
            if (byName.empty())
                for (auto const& property : properties) byName.emplace(property->GetName(), property.get());
            else
                byName.emplace(made.GetName(), &made);
        } catch (std::bad_alloc const&) {
            byName.clear();
        }
    }

    bool Delete(Properties::iterator at) {
        auto const gone = std::move(*at);
        byName.erase(gone->GetName());
        properties.erase(at);
        owner.Tell(gone.get(), KORPropChange::Deleted);
        return true;
    }

    PropertyOwner owner;
    Properties properties;                         // in order of making
    std::map<std::string_view, Property*> byName;  // all of them, or empty
};

namespace {

using eFabric::detail::BagPairs;

// One level of a copy: the bags inside go to `pending`. Of several properties of one name in a foreign bag the first
// counts, as for GetProperty.
void CopyLevel(IKORPropertyBag const& from, IKORPropertyBag& to, BagPairs& pending) {
    std::unordered_set<std::string> seen;
    long const size = from.Size();
    for (long i = 0; i < size; ++i) {
        auto const* const source = from.GetProperty(i);
        if (!source || !seen.insert(source->GetName()).second) continue;
        eFabric::detail::CopyElements(*source, *to.NewProperty(source->GetName()), pending);
    }
}

void CopyDeep(IKORPropertyBag const& from, IKORPropertyBag& to) {
    BagPairs pending{{&from, &to}};
    while (!pending.empty()) {
        auto const [source, target] = pending.back();
        pending.pop_back();
        CopyLevel(*source, *target, pending);
    }
}

}  // namespace

KORPropertyBag::KORPropertyBag() : m_impl(std::make_unique<Impl>(*this)) {}

KORPropertyBag::KORPropertyBag(KORPropertyBag const& other) : KORPropertyBag() { CopyDeep(other, *this); }

KORPropertyBag& KORPropertyBag::operator=(KORPropertyBag const& other) {
    if (this == &other) return *this;
    KORPropertyBag const copy(other);  // `other` may be a bag inside this one
    Clear();
    CopyDeep(copy, *this);
    return *this;
}

KORPropertyBag::~KORPropertyBag() = default;

IKORProperty* KORPropertyBag::NewProperty(char const* name) {
    if (!name) return nullptr;
    auto* const known = m_impl->Find(name);
    if (!known) return m_impl->Make(name);
    known->Empty();
    m_impl->owner.Tell(known, KORPropChange::Changed);
    return known;
}

IKORProperty* KORPropertyBag::NewPropertyBagProperty(char const* name) {
    auto* const property = NewProperty(name);
    if (property) property->SetBag(nullptr);
    return property;
}

bool KORPropertyBag::CopyProperties(IKORPropertyBag const* other) {
    if (!other) return false;
    if (other == this) return true;
    KORPropertyBag copy;  // `other` may be a bag inside this one, which replacing a property would destroy
    CopyDeep(*other, copy);
    CopyDeep(copy, *this);
    return true;
}

IKORProperty const* KORPropertyBag::GetProperty(char const* name) const { return m_impl->Find(name); }
IKORProperty* KORPropertyBag::GetProperty(char const* name) { return m_impl->Find(name); }
IKORProperty const* KORPropertyBag::GetProperty(long index) const { return m_impl->At(index); }
IKORProperty* KORPropertyBag::GetProperty(long index) { return m_impl->At(index); }
long KORPropertyBag::Size() const { return static_cast<long>(m_impl->properties.size()); }

bool KORPropertyBag::DeleteProperty(char const* name) {
    auto& properties = m_impl->properties;
    auto const* const wanted = m_impl->Find(name);
    for (auto at = properties.begin(); wanted && at != properties.end(); ++at)
        if (at->get() == wanted) return m_impl->Delete(at);
    return false;
}

bool KORPropertyBag::DeleteProperty(long index) {
    return m_impl->At(index) && m_impl->Delete(m_impl->properties.begin() + index);
}

void KORPropertyBag::Clear() {
    m_impl->byName.clear();
    auto const gone = std::exchange(m_impl->properties, {});
    m_impl->owner.Tell(nullptr, KORPropChange::Cleared);
}

void KORPropertyBag::PropertiesHaveChanged(IKORProperty*, KORPropChange) {}

void KORPropertyBag::SetEnableCallbacks(bool on) { m_impl->owner.callbacks = on; }
