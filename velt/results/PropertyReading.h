// How results are read: a property counts only when it is of the type that is asked for; of another it is absent.
// Texts that come back are borrowed from the bag. A null bag is an empty one. Any thread; no failure but null or none.
#pragma once

#include <KORtk/Text.h>
#include <eFabric/Property.h>

#include <boost/optional.hpp>

#include <string>

namespace VELT::results {

inline IKORProperty const* FindAny(IKORPropertyBag const* bag, char const* name) {
    return bag ? bag->GetProperty(name) : nullptr;
}

inline IKORProperty const* Find(IKORPropertyBag const* bag, char const* name, KORPropType type) {
    IKORProperty const* const property = FindAny(bag, name);
    return property && property->GetType() == type ? property : nullptr;
}

inline boost::optional<unsigned long> ULongOf(IKORPropertyBag const* bag, char const* name) {
    IKORProperty const* const property = Find(bag, name, KORProp_ULong);
    unsigned long value = 0;
    if (!property || !property->GetULong(value)) return boost::none;
    return value;
}

inline boost::optional<double> DoubleOf(IKORPropertyBag const* bag, char const* name) {
    IKORProperty const* const property = Find(bag, name, KORProp_Double);
    double value = 0.0;
    if (!property || !property->GetDouble(value)) return boost::none;
    return value;
}

inline wchar_t const* WideOf(IKORPropertyBag const* bag, char const* name) {
    IKORProperty const* const property = Find(bag, name, KORProp_String);
    return property ? property->GetWide() : nullptr;
}

inline boost::optional<std::string> NarrowOf(IKORPropertyBag const* bag, char const* name) {
    IKORProperty const* const property = Find(bag, name, KORProp_String);
    char const* const text = property ? property->GetNarrow() : nullptr;
    if (!text) return boost::none;
    return std::string(text);
}

// The description of a result; none when it is empty.
inline boost::optional<KORtk::Utf8Array> DescriptionOf(IKORPropertyBag const* bag) {
    wchar_t const* const text = WideOf(bag, "E_SR_DESCRIPTION_P");
    if (!text || !*text) return boost::none;
    return KORtk::Utf8Array(text);
}

// What the engine says of itself.
struct EngineFacts {
    boost::optional<std::string> host;         // the machine that scanned
    boost::optional<std::string> engine;       // its version
    boost::optional<std::string> definitions;  // their version
};

inline EngineFacts EngineFactsOf(IKORPropertyBag const* bag) {
    IKORProperty const* const property = Find(bag, "QX_PROPERTIES", KORProp_Bag);
    IKORPropertyBag const* const facts = property ? property->GetBag() : nullptr;
    return {NarrowOf(facts, "QX_SYSTEM_NAME"), NarrowOf(facts, "QX_ENGINE"), NarrowOf(facts, "QX_DATS")};
}

}  // namespace VELT::results
