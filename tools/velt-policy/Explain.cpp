#include "tools/velt-policy/Explain.h"

#include <velt/ldap/LDAPPrim.h>
#include <velt/ldap/LDAPQuery.h>
#include <velt/ldap/LDAPServer.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <utility>

#include "tools/velt-policy/Checks.h"
#include "tools/velt-policy/Decision.h"
#include "tools/velt-policy/Json.h"
#include "tools/velt-policy/Readers.h"

namespace velt_policy {
namespace {

constexpr int kAnswered = 0, kNotAnswered = 1;

std::string PlaceText(std::string const& file, unsigned line, unsigned column) {
    return file + ':' + std::to_string(line) + ':' + std::to_string(column);
}

void Print(char const* name, std::string const& text) { std::printf("%-10s %s\n", name, text.c_str()); }

void PrintEnds(Query const& query) {
    auto const end = [](std::string const& address, std::string const& host, char const* without) {
        return (address.empty() ? without : address) + (host.empty() ? "" : ", host " + host);
    };
    Print("from", end(query.from, query.fromHost, ""));
    Print("to", end(query.to, query.toHost, "not known yet: a condition on the server does not hold"));
    Print("sender", query.sender.empty() ? "none" : query.sender);
    Print("rcpt", query.recipient.empty() ? "none" : query.recipient);
}

void PrintTried(TriedIdentity const& one) {
    Print(one.why.holds ? "chosen" : "not",
          one.name + ", " + PlaceText(one.place.file, one.place.line, one.place.column));
    for (auto const& answer : one.why.asked) {
        auto const& place = answer.condition.place;
        std::string const held = answer.held ? "holds" : "does not hold";
        Print("", "  " + PlaceText(place.file, place.line, place.column) + ": " + (answer.negated ? "not " : "") +
                      answer.condition.text() + ": " + held + (answer.decisive ? "" : " (does not matter)"));
    }
}

void PrintDirectory(char const* whose, DirectoryAnswer const& answer) {
    if (!answer.asked) return;
    std::string said = answer.failed ? " the directory could not be asked" : answer.groups.empty() ? " none" : "";
    for (auto const& one : answer.groups) said += (&one == &answer.groups.front() ? " " : ", ") + one;
    Print("groups", std::string("of the ") + whose + ':' + said);
}

void PrintValue(std::string const& setting, SettingValue const& value) {
    Print("setting", setting + (value.known ? "" : " (nobody reads it)"));
    Print("raw", value.raw ? '"' + *value.raw + '"' : "not set");
    if (value.known || value.raw)
        Print("value", '"' + value.effective + '"' +
                           (value.clamped    ? ", clamped"
                            : value.standard ? ", the default"
                                             : ""));
    if (value.source.line == 0) return;
    std::string const identity = value.sourceIdentity.empty() ? "" : ", identity " + value.sourceIdentity;
    std::string const window = value.window.empty() ? "" : ", " + value.window;
    Print("source", PlaceText(value.source.file, value.source.line, value.source.column) + ", policy " +
                        value.sourcePolicy + identity + window);
}

void PrintAnswer(Query const& query, Decision const& decision) {
    PrintEnds(query);
    if (!decision.inbound)
        return Print("direction",
                     "none: neither inside.txt nor outside.txt knows the client, and the session is closed");
    Print("direction", *decision.inbound ? "in: the client is outside" : "out: the client is inside");
    Print("slot", std::string(kSlotNames[decision.slot]) + ", policy " + decision.policy);
    Print("identity", decision.identity.value_or("none"));
    PrintDirectory("sender", decision.ofSender);
    PrintDirectory("recipient", decision.ofRecipient);
    for (auto const& one : decision.tried) PrintTried(one);
    if (decision.value) PrintValue(query.setting, *decision.value);
}

int Problem(std::string const& problem) {
    std::fprintf(stderr, "velt-policy: %s\n", problem.c_str());
    return kNotAnswered;
}

int ExplainOne(World& world, Options const& options) {
    auto const decision = Decider(world, options.resolve, !options.json).decide(options.query);
    if (!decision.problem.empty()) return Problem(decision.problem);
    if (options.json)
        std::puts(WriteAnswer(decision).c_str());
    else
        PrintAnswer(options.query, decision);
    return kAnswered;
}

// What the command line says holds for each query that does not say it itself.
int ExplainBatch(World& world, Options const& options) {
    Decider decider(world, options.resolve, false);
    int status = kAnswered;
    unsigned long count = 0;
    double longest = 0, processor = 0;
    for (std::string line; std::getline(std::cin, line);) {
        Query query = options.query;
        std::string problem = ReadQuery(line, query);
        Decision const decision = problem.empty() ? decider.decide(query) : Decision{};
        if (problem.empty()) problem = decision.problem;
        if (!problem.empty()) status = kNotAnswered;
        std::puts((problem.empty() ? WriteAnswer(decision) : WriteProblem(problem)).c_str());
        longest = std::max(longest, decision.microseconds);
        processor = std::max(processor, decision.processorMicroseconds);
        ++count;
        if (std::cin.rdbuf()->in_avail() <= 0) std::fflush(stdout);  // whoever asks one by one gets each answer
    }
    std::fprintf(stderr, "velt-policy: %lu queries, the longest took %.1f us, and %.1f us of the processor\n", count,
                 longest, processor);
    return status;
}

// Directory servers, which nothing frees in a process that runs on.
class DirectoryServers {
public:
    explicit DirectoryServers(VELT::Config& config) { VELT::LDAPQuery::initialise(&config); }
    ~DirectoryServers() {
        for (auto* const servers : {&VELT::LDAPPrim::s_ldap_servers, &VELT::LDAPPrim::s_dropped_servers}) {
            for (auto* const server : *servers) delete server;
            servers->clear();
        }
        delete std::exchange(VELT::LDAPPrim::s_bw_server, nullptr);
    }
    DirectoryServers(DirectoryServers const&) = delete;
    DirectoryServers& operator=(DirectoryServers const&) = delete;
};

}  // namespace

int Explain(Options const& options) {
    Findings findings;
    World world(options.choice, findings);
    if (!world.starts()) {
        CheckIdentities(world, findings);
        findings.print(stderr);
        return kNotAnswered;
    }
    world.loadNetworkLists();
    DirectoryServers const servers(world.config());
    return options.batch ? ExplainBatch(world, options) : ExplainOne(world, options);
}

}  // namespace velt_policy
