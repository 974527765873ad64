// Property sections: whatever paths, indices, tags and counts say, a bag stays within what one section may make, and is
// the same at each reading; and the bag that a plain model of the rules makes is what is read.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <velt/results/SerialDecoding.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/streams/ScannerStream.h>

#include "fuzz/Input.h"

using velt_fuzz::Input;
using velt_fuzz::Require;

namespace {

bool Read(std::string const& text, KORPropertyBag& bag) {
    VELT::ScannerStream stream(static_cast<unsigned>(text.size() + 1));
    stream.write(text.data(), static_cast<unsigned>(text.size()));
    stream.seek(0, 0);
    bool ended = false;
    VELT::SerializedEFabricResult::deserialize(&stream, "p", bag, &ended);
    return ended;
}

std::string Shown(IKORPropertyBag const& bag, unsigned long& bags, unsigned depth = 1) {
    Require(depth <= VELT::results::kMostSegments, "a depth that paths may have");
    std::string text = "{";
    for (long i = 0; i < bag.Size(); ++i) {
        IKORProperty const& property = *bag.GetProperty(i);
        bool const isBag = property.GetType() == KORProp_Bag;
        text.append(property.GetName()).append("=");
        if (isBag) bags += property.GetCount();
        for (unsigned at = 0; at < property.GetCount(); ++at)
            text += (isBag ? Shown(*property.GetBagAt(at), bags, depth + 1) : property.GetNarrowAt(at)) + ",";
        text += ";";
    }
    return text + "}";
}

void ReadAnything(std::string const& text) {
    KORPropertyBag bag, again;
    again.NewProperty("old");
    bool const ended = Read(text, bag);
    Require(ended == Read(text, again), "the same end of the same text");
    unsigned long bags = 0, same = 0;
    Require(Shown(bag, bags) == Shown(again, same), "the same bag of the same text");
    Require(bags <= VELT::results::kMostBags, "no more bags than a section may make");
}

// --- a model ---

struct ModelBag;
struct ModelProperty {
    std::string name;
    std::vector<std::unique_ptr<ModelBag>> bags;
    std::vector<std::string> values;
};
struct ModelBag {
    std::vector<ModelProperty> properties;
    ModelProperty& Named(std::string const& name) {
        auto const found = std::find_if(properties.begin(), properties.end(),
                                        [&](ModelProperty const& one) { return one.name == name; });
        if (found != properties.end()) return *found;
        properties.push_back({name, {}, {}});
        return properties.back();
    }
};

std::string Shown(ModelBag const& bag) {
    std::string text = "{";
    for (auto const& property : bag.properties) {
        text += property.name + "=";
        for (auto const& one : property.bags) text += Shown(*one) + ",";
        for (auto const& one : property.values) text += one + ",";
        text += ";";
    }
    return text + "}";
}

ModelBag& Descend(ModelBag& bag, std::string const& name, std::size_t index) {
    ModelProperty& property = bag.Named(name);
    property.values.clear();
    while (property.bags.size() <= index) property.bags.push_back(std::make_unique<ModelBag>());
    return *property.bags[index];
}

// Names of one letter; small indices, or none; numbers, one or one more.
void ReadWhatTheModelHolds(Input& input) {
    ModelBag model;
    std::string text;
    for (unsigned lines = input.Byte() % 24; lines > 0; --lines) {
        ModelBag* at = &model;
        text += "p.";
        for (unsigned steps = input.Byte() % 4; steps > 0; --steps) {
            std::string const name(1, static_cast<char>('a' + input.Byte() % 4));
            unsigned const index = input.Byte() % 5;
            text += name + (index ? "<" + std::to_string(index - 1) + ">." : ".");
            at = &Descend(*at, name, index ? index - 1 : 0);
        }
        ModelProperty& property = at->Named(std::string(1, static_cast<char>('a' + input.Byte() % 4)));
        bool const multi = input.Byte() % 2 == 1;
        std::string const value = std::to_string(input.Byte());
        text += property.name + (multi ? " ml " : " sl ") + value + "\n";
        property.bags.clear();
        if (!multi) property.values.clear();
        property.values.push_back(value);
    }
    KORPropertyBag bag;
    unsigned long bags = 0;
    Require(Read(text + "\r\n", bag), "a section that ends");
    Require(Shown(bag, bags) == Shown(model), "what the model holds");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 65536) return 0;
    Input input(data, size);
    if (input.Byte() % 4 == 0)
        ReadWhatTheModelHolds(input);
    else
        ReadAnything(input.Rest());
    return 0;
}
