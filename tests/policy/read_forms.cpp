// read_forms: reads configuration files with the readers that a gateway starts with, and says what becomes of each.
// Standard input: lines "KIND PATH", with a kind of rules, identities or logging. Standard output, a line each: "ok",
// or the reader's complaint.
#include <iostream>
#include <map>
#include <string>

#include <KORtk/Exception.h>
#include <QXid/Rules.h>
#include <QXlog/Settings.h>
#include <eFabric/XmlFile.h>
#include <policyloader/store/StoreSnapshot.h>

namespace {

bool NothingHolds(AtomicValue const&, AtomicValue const&, AtomicValue const&, void*, EvalData*&) { return false; }

void ReadRules(std::string const& path) { policyloader::ParseStore(path, eFabric::XmlFile::Read(path).value()); }

void ReadIdentities(std::string const& path) { QXidRules::create()->load(path.c_str(), &NothingHolds); }

void ReadLogging(std::string const& path) { QXlog::detail::ReadSettings(path); }

std::string Judgement(std::string const& kind, std::string const& path) {
    static std::map<std::string, void (*)(std::string const&)> const readers = {
        {"rules", &ReadRules}, {"identities", &ReadIdentities}, {"logging", &ReadLogging}};
    try {
        readers.at(kind)(path);
        return "ok";
    } catch (KORtk::Exception const& complaint) {
        return complaint.what();
    }
}

}  // namespace

int main() {
    std::string kind;
    std::string path;
    while (std::cin >> kind >> std::ws && std::getline(std::cin, path)) std::cout << Judgement(kind, path) << '\n';
    return std::cin.bad() ? 1 : 0;
}
