#include <eFabric/PropertyValue.h>

#include <algorithm>
#include <charconv>
#include <iterator>

#include <KORtk/Text.h>

namespace eFabric::detail {
namespace {

// The bags that wait for their destruction while this thread's outermost DestroyBags runs; null when none does.
thread_local std::vector<OwnedBag>* t_waiting = nullptr;

template <class T>
std::string Decimal(T value) {
    char text[32];  // the shortest form of a double takes 24 characters at most
    auto const end = std::to_chars(text, text + sizeof text, value).ptr;
    return std::string(text, end);
}

PropertyElement TextElement(std::string narrow, std::wstring wide) {
    PropertyElement element;
    element.narrow = std::move(narrow);
    element.wide = std::move(wide);
    return element;
}

PropertyElement WideElement(wchar_t const* v) {
    std::wstring wide(v ? v : L"");
    std::string narrow = KORtk::Utf8Array(wide).str();
    return TextElement(std::move(narrow), std::move(wide));
}

PropertyElement NarrowElement(char const* v) {
    KORtk::Utf8Array const text(v);
    return TextElement(text.str(), text.wstr());
}

template <class T>
PropertyElement NumberElement(T PropertyElement::Number::*field, T value) {
    PropertyElement element;
    element.number.*field = value;
    element.narrow = Decimal(value);
    element.wide.assign(element.narrow.begin(), element.narrow.end());
    return element;
}

PropertyElement DoubleElement(double v) { return NumberElement(&PropertyElement::Number::real, v); }
PropertyElement ULongElement(unsigned long v) { return NumberElement(&PropertyElement::Number::natural, v); }
PropertyElement LongElement(long v) { return NumberElement(&PropertyElement::Number::whole, v); }

PropertyElement BagElement(OwnedBag bag) {
    PropertyElement element;
    element.bag = bag ? std::move(bag) : std::make_unique<KORPropertyBag>();
    return element;
}

}  // namespace

void DestroyBags(std::vector<OwnedBag> bags) {
    if (t_waiting) {
        std::move(bags.begin(), bags.end(), std::back_inserter(*t_waiting));
        return;
    }
    t_waiting = &bags;
    while (!bags.empty()) {
        OwnedBag const last = std::move(bags.back());
        bags.pop_back();
    }
    t_waiting = nullptr;
}

Property::~Property() { Destroy(std::move(m_elements)); }

void Property::Destroy(Elements elements) {
    std::vector<OwnedBag> bags;
    for (auto& element : elements)
        if (element.bag) bags.push_back(std::move(element.bag));
    if (!bags.empty()) DestroyBags(std::move(bags));
}

void Property::Empty() {
    m_type = KORProp_None;
    Destroy(std::exchange(m_elements, {}));
}

bool Property::Set(KORPropType type, PropertyElement element) {
    Elements fresh;
    fresh.push_back(std::move(element));
    m_type = type;
    Destroy(std::exchange(m_elements, std::move(fresh)));
    m_owner.Tell(this, KORPropChange::Changed);
    return true;
}

bool Property::Add(KORPropType type, PropertyElement element) {
    if (m_type != type) Empty();
    m_type = type;
    m_elements.push_back(std::move(element));
    m_owner.Tell(this, KORPropChange::Changed);
    return true;
}

// A bag that is set again while it is an element already stays alive.
void Property::Disown(IKORPropertyBag const* bag) {
    auto const held = std::find_if(m_elements.begin(), m_elements.end(),
                                   [&](PropertyElement const& element) { return bag && element.bag.get() == bag; });
    if (held == m_elements.end()) return;
    static_cast<void>(held->bag.release());
    m_elements.erase(held);
}

bool Property::SetDouble(double v) { return Set(KORProp_Double, DoubleElement(v)); }
bool Property::SetULong(unsigned long v) { return Set(KORProp_ULong, ULongElement(v)); }
bool Property::SetWide(wchar_t const* v) { return Set(KORProp_String, WideElement(v)); }
bool Property::SetNarrow(char const* v) { return Set(KORProp_String, NarrowElement(v)); }
bool Property::SetLong(long v) { return Set(KORProp_Long, LongElement(v)); }

bool Property::SetBag(IKORPropertyBag* owned) {
    Disown(owned);
    return Set(KORProp_Bag, BagElement(OwnedBag(owned)));
}

bool Property::AddDouble(double v) { return Add(KORProp_Double, DoubleElement(v)); }
bool Property::AddULong(unsigned long v) { return Add(KORProp_ULong, ULongElement(v)); }
bool Property::AddWide(wchar_t const* v) { return Add(KORProp_String, WideElement(v)); }
bool Property::AddNarrow(char const* v) { return Add(KORProp_String, NarrowElement(v)); }
bool Property::AddLong(long v) { return Add(KORProp_Long, LongElement(v)); }

bool Property::AddBag(IKORPropertyBag* owned) {
    Disown(owned);
    return Add(KORProp_Bag, BagElement(OwnedBag(owned)));
}

PropertyElement const* Property::At(unsigned i, KORPropType type) const {
    return m_type == type && i < m_elements.size() ? &m_elements[i] : nullptr;
}

PropertyElement const* Property::TextAt(unsigned i) const {
    return m_type != KORProp_Bag && i < m_elements.size() ? &m_elements[i] : nullptr;
}

bool Property::GetDoubleAt(unsigned i, double& v) const {
    auto const* const element = At(i, KORProp_Double);
    if (element) v = element->number.real;
    return element != nullptr;
}

bool Property::GetULongAt(unsigned i, unsigned long& v) const {
    auto const* const element = At(i, KORProp_ULong);
    if (element) v = element->number.natural;
    return element != nullptr;
}

bool Property::GetLongAt(unsigned i, long& v) const {
    auto const* const element = At(i, KORProp_Long);
    if (element) v = element->number.whole;
    return element != nullptr;
}

wchar_t const* Property::GetWideAt(unsigned i) const {
    auto const* const element = TextAt(i);
    return element ? element->wide.c_str() : nullptr;
}

char const* Property::GetNarrowAt(unsigned i) const {
    auto const* const element = TextAt(i);
    return element ? element->narrow.c_str() : nullptr;
}

IKORPropertyBag* Property::GetBagAt(unsigned i) const {
    auto const* const element = At(i, KORProp_Bag);
    return element ? element->bag.get() : nullptr;
}

namespace {

void CopyBag(IKORProperty const& from, unsigned i, IKORProperty& to, BagPairs& nested) {
    to.AddBag(nullptr);
    if (auto const* const source = from.GetBagAt(i)) nested.emplace_back(source, to.GetBagAt(to.GetCount() - 1));
}

// The form that gives the other one too. That is the wide form where it holds what is no character, and where a foreign
// property has no other.
void CopyText(IKORProperty const& from, unsigned i, IKORProperty& to) {
    auto const* const narrow = from.GetNarrowAt(i);
    auto const* const wide = from.GetWideAt(i);
    if (narrow && (!wide || KORtk::Utf8Array(narrow).wstr() == wide))
        to.AddNarrow(narrow);
    else
        to.AddWide(wide);
}

void CopyDouble(IKORProperty const& from, unsigned i, IKORProperty& to) {
    double v = 0;
    if (from.GetDoubleAt(i, v)) to.AddDouble(v);
}

void CopyULong(IKORProperty const& from, unsigned i, IKORProperty& to) {
    unsigned long v = 0;
    if (from.GetULongAt(i, v)) to.AddULong(v);
}

void CopyLong(IKORProperty const& from, unsigned i, IKORProperty& to) {
    long v = 0;
    if (from.GetLongAt(i, v)) to.AddLong(v);
}

void CopyElement(IKORProperty const& from, unsigned i, IKORProperty& to, BagPairs& nested) {
    switch (from.GetType()) {
        case KORProp_String:
            return CopyText(from, i, to);
        case KORProp_Long:
            return CopyLong(from, i, to);
        case KORProp_ULong:
            return CopyULong(from, i, to);
        case KORProp_Double:
            return CopyDouble(from, i, to);
        case KORProp_Bag:
            return CopyBag(from, i, to, nested);
        default:
            return;
    }
}

}  // namespace

void CopyElements(IKORProperty const& from, IKORProperty& to, BagPairs& nested) {
    unsigned const count = from.GetCount();
    for (unsigned i = 0; i < count; ++i) CopyElement(from, i, to, nested);
}

}  // namespace eFabric::detail
