// The conversations of these tests: mail of every kind, for servers of every kind.
#include <stdexcept>

#include "WireWorld.h"

namespace velt_wire {

namespace {

// The test file of the trade, put together here so that no scanner takes the tree for it.
std::string const kVirus = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR") + "-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
std::string const kHead = "From: <a@b.example>\r\nSubject: s\r\n";

std::string Mail(std::string const& text) { return kHead + "\r\n" + text + "\r\n"; }

std::string Infected(int times = 1) {
    std::string made = kHead + "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n";
    for (int i = 0; i < times; ++i) {
        made += "--b\r\nContent-Type: application/octet-stream; name=a" + std::to_string(i) + ".com\r\n\r\n" + kVirus +
                "\r\n";
    }
    return made + "--b--\r\n";
}

std::string Nested(std::string inner) {
    for (int depth = 0; depth < 3; ++depth)
        inner = "Subject: o\r\nMIME-Version: 1.0\r\nContent-Type: message/rfc822\r\n\r\n" + inner;
    return inner;
}

std::string Long(std::string mail) {
    while (mail.size() < 4200) mail += "Line of the rest.\r\n";
    return mail;
}

void Replace(std::string& text, std::string const& what, std::string const& with) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
        text.replace(at, what.size(), with);
}

// It has changed the file that it was told of, and sends nothing.
void TellOfFile(Answers& said) {
    std::string& answer = said.back();
    answer.resize(answer.size() - std::stoul(answer.substr(answer.find("size ") + 5)));
    Replace(answer, "cached 0", "cached 1");
}

void TellOtherwise(Answers& said) {
    Replace(said.back(), "State OK\nsize", "X-Farm north hall\r\nsize");
    Replace(said.back(), "\ninput_modified 0\n\n", "\r\ninput_modified 0\r\nState OK\r\n\r\n");
}

}  // namespace

std::vector<Item> Items() {
    std::vector<Item> items{
        {"clean", Mail("hello")},
        {"clean for nobody in particular", Mail("hello"), "content", {nullptr}},
        {"clean for three", Mail("hello"), "content", {"staff", nullptr, "board"}},
        {"nothing at all", ""},
        {"an infection", Infected()},
        {"an infection for nobody in particular", Infected(), "content", {nullptr}},
        {"an infection for three", Infected(), "content", {"staff", nullptr, "board"}},
        {"many infections", Infected(6)},
        {"a phrase", Mail("project nightingale")},
        {"a phrase for two of whom one may have it", Mail("project nightingale"), "content", {"board", "staff"}},
        {"a phrase that is noted", Mail("to be noted")},
        {"an infection that is noted", Infected(), "noting"},
        {"a replaced part", Infected(), "replacing"},
        {"a replaced part for two", Infected(), "replacing", {"staff", nullptr}},
        {"a signed mail", Mail("hello"), "signing"},
        {"a signed mail for two", Mail("hello"), "signing", {"staff", nullptr}},
        {"a limit", Nested("inner"), "content", {"flat", "staff"}},
        {"a limit above an infection", Nested(Infected()), "content", {"flat", "staff"}},
        {"an engine that failed", Mail("hello"), "failing"},
        {"an engine that failed for two", Mail("hello"), "failing", {"staff", nullptr}},
        {"an engine that failed beside one that found", Mail("project nightingale"), "failing"},
        {"seven identities", Mail("project nightingale"), "content", {"i1", "board", "i3", "i4", "i5", "i6", "i7"}},
    };
    auto const add = [&](Item item) -> Item& { return items.emplace_back(std::move(item)); };
    add({"attributes", Infected(), "replacing"}).attributes = true;
    add({"attributes for two", Infected(), "replacing", {"staff", nullptr}}).attributes = true;
    add({"many properties", Mail("hello")}).properties = 40;
    add({"by name", Long(Mail("hello"))}).byName = true;
    add({"an infection by name", Long(Infected())}).byName = true;
    add({"in place", Mail("hello")}).inPlace = true;
    add({"an infection in place", Infected()}).inPlace = true;
    add({"replaced in place", Infected(), "replacing"}).inPlace = true;
    Item& byName = add({"replaced in place by name", Long(Infected()), "replacing"});
    byName.byName = byName.inPlace = true;
    Item& inFile = add({"changed in the shared file", Long(Infected()), "replacing"});
    inFile.byName = inFile.inPlace = true;
    inFile.changesFile = true;
    inFile.retell = TellOfFile;
    add({"a refusal of the set-up", Mail("hello")}).retell = [](Answers& said) { said = {"State DENIED\n\n"}; };
    add({"a refusal of a scan", Infected(), "content", {"staff", "board"}}).retell = [](Answers& said) {
        said[2] = "State FAILED\n\n";
    };
    add({"a server that writes otherwise", Mail("hello")}).retell = TellOtherwise;
    return items;
}

Item ItemNamed(std::string const& name) {
    for (Item& item : Items())
        if (item.name == name) return item;
    throw std::invalid_argument(name);
}

}  // namespace velt_wire
