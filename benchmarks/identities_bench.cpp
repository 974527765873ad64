// What it costs to work an identity out again: a slot of a hundred identities, of which the last one's rule holds,
// beside the shell's wildcards over a hundred patterns of the same kind.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <eFabric/Policy.h>
#include <fnmatch.h>

#include <boost/regex.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <velt/Config.h>
#include <velt/config_details/pattern.h>
#include <velt/config_details/settings/network.h>
#include <velt/connection/Connection.h>

#include "benchmarks/Allocations.h"

namespace {

using VELT::Config;

constexpr int kIdentities = 100;
constexpr char const* kRecipient = "somebody.with.a.name@customer99.example.test";
constexpr char const* kSender = "postmaster@lists.elsewhere.test";
constexpr char const* kHost = "mail7.outgoing.elsewhere.test";

std::string PatternOf(int identity) { return "*@customer" + std::to_string(identity) + ".example.test"; }

// Networks, host names, senders and recipients in turn; the last one is a recipient's.
std::string RuleOf(int identity) {
    std::string const number = std::to_string(identity);
    switch (identity % 4) {
        case 0:
            return "con FROM \"10." + number + ".0.0/16\"";
        case 1:
            return "con FROM \"*.customer" + number + ".example.test\"";
        case 2:
            return "efrom IS \"*@customer" + number + ".example.test\"";
        default:
            return "eto IS \"" + PatternOf(identity) + "\"";
    }
}

std::string MailRuleOf(int identity) { return "eto IS \"" + PatternOf(identity) + "\""; }

void Write(std::string const& folder, bool mailOnly) {
    std::ofstream rules(folder + "/rules.xml");
    std::ofstream identities(folder + "/config/qxxmlconf/identities.xml");
    rules << "<rules version=\"1\"><policy name=\"content_in\">";
    identities << "<identities version=\"1\">";
    for (int i = 0; i < kIdentities; ++i) {
        rules << "<identity name=\"i" << i << "\"><settings section=\"network\"><set name=\"Timeout\">" << 100 + i
              << "</set></settings></identity>";
        identities << "<identity name=\"i" << i << "\">" << (mailOnly ? MailRuleOf(i) : RuleOf(i)) << "</identity>";
    }
    rules << "</policy></rules>";
    identities << "</identities>";
}

// A session in its middle, whose Config reads from a store and rules in files.
class World {
public:
    static World& get(bool mailOnly) {
        static World* const world = new World;
        world->Load(mailOnly);
        return *world;
    }
    unsigned ReadAgain() {
        config.policies[Config::POLICY_CONTENT].changed();
        return VELT::ReadSetting<VELTCFG::network::Timeout>(config, Config::POLICY_CONTENT);
    }
    bool good = false;

private:
    void Load(bool mailOnly) {
        std::string folder = std::filesystem::temp_directory_path() / "velt-identities-bench-XXXXXX";
        if (!::mkdtemp(folder.data())) return;
        ::setenv("VELT_ROOT", folder.c_str(), 1);
        std::filesystem::create_directories(folder + "/config/qxxmlconf");
        Write(folder, mailOnly);
        eFabric::eConfig files;
        files.rules = std::filesystem::path(folder + "/rules.xml").wstring();
        KORPropertyBag bag;
        eFabric::IPolicyLoader* const store = CreatePolicyLoader(3, 1);
        good = store->initialise(files, 0, &bag);
        Config::initialise(store);
        std::filesystem::remove_all(folder);
        Begin();
        good = good && ReadAgain() == 100 + kIdentities - 1;
    }
    void Begin() {
        VELT::TCPConnection& client = session.getSourceConnection();
        client.m_host = kHost;
        client.m_address.sin_family = AF_INET;
        ::inet_pton(AF_INET, "192.0.2.7", &client.m_address.sin_addr);
        Config parent;
        config.set(true, &session, &parent);
        config.set_source_mail_address(kSender);
        config.set_recipient_mail_address(kRecipient);
    }
    VELT::Connection session;
    Config config;
};

void Measure(benchmark::State& state, bool mailOnly) {
    World& world = World::get(mailOnly);
    if (!world.good) return state.SkipWithError("the rules did not load, or another identity was chosen");
    CountedAllocations const counted(state);
    for (auto _ : state) benchmark::DoNotOptimize(world.ReadAgain());
}

void Identity_hundredRules(benchmark::State& state) { Measure(state, false); }
BENCHMARK(Identity_hundredRules);

void Identity_hundredMailRules(benchmark::State& state) { Measure(state, true); }
BENCHMARK(Identity_hundredMailRules);

void Identity_hundredFnmatch(benchmark::State& state) {
    std::vector<std::string> patterns;
    for (int i = 0; i < kIdentities; ++i) patterns.push_back(PatternOf(i));
    for (auto _ : state) {
        for (std::string const& pattern : patterns)
            benchmark::DoNotOptimize(::fnmatch(pattern.c_str(), kRecipient, FNM_CASEFOLD));
    }
}
BENCHMARK(Identity_hundredFnmatch);

void Identity_hundredExpressions(benchmark::State& state) {
    std::vector<boost::regex> expressions;
    for (int i = 0; i < kIdentities; ++i)
        expressions.emplace_back("^.*@customer" + std::to_string(i) + "\\.example\\.test$", boost::regex::icase);
    std::string const text = kRecipient;
    for (auto _ : state) {
        for (boost::regex const& expression : expressions)
            benchmark::DoNotOptimize(boost::regex_match(text, expression));
    }
}
BENCHMARK(Identity_hundredExpressions);

// A pattern of many stars that does not match, as a sender may choose its address.
std::string const kManyStars = "*a*a*a*a*a*a*a*b*";
std::string const kManyAs(200, 'a');

void Pattern_manyStars(benchmark::State& state) {
    VELT::config_types::basic_pattern<char, true> pattern;
    pattern.set_regex(kManyStars.data(), kManyStars.data() + kManyStars.size());
    for (auto _ : state) benchmark::DoNotOptimize(pattern.match(kManyAs));
}
BENCHMARK(Pattern_manyStars);

void Pattern_manyStarsExpression(benchmark::State& state) {
    boost::regex const expression("^.*a.*a.*a.*a.*a.*a.*a.*b.*$", boost::regex::icase);
    for (auto _ : state) {
        try {
            benchmark::DoNotOptimize(boost::regex_match(kManyAs, expression));
        } catch (std::runtime_error const&) {  // it gives up
        }
    }
}
BENCHMARK(Pattern_manyStarsExpression);

}  // namespace
