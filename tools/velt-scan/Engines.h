// Engines: the scan engines as a gateway has them: its configuration, the library's agent, one policy and identity.
// There is one in a process, as the library's tables are the process's. Owner: main. Thread: one.
// Failure: the constructor throws Unusable where a gateway would not start, or where what was chosen is not there; a
// scan has a verdict whatever happens.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/shared/Store.h"
#include "tools/velt-scan/Verdict.h"

namespace VELT {
class ScannerStream;
struct ScanContext;
}  // namespace VELT

namespace velt_scan {

// Texts that are empty are not given.
struct Choice {
    std::string policy;  // "content_in" without it
    std::string identity;
    std::string from;  // the client's address; with it, the rules choose policy and identity
    std::string sender;
    std::string recipient;
    std::vector<std::pair<std::string, std::string>> marks;  // of the texts that stand in for what was cut out
};

class Engines {
public:
    Engines(velt_tools::Configuration const& configuration, Choice choice);
    ~Engines();
    Engines(Engines const&) = delete;
    Engines& operator=(Engines const&) = delete;

    // "-": the standard input. `output`: where what goes on after the scan is written; empty: nowhere. What the policy
    // stops is not written, nor is what nothing can be said of.
    Verdict scan(std::string const& file, std::string const& output);

private:
    class Agent;
    class Session;

    void chooseByName();
    void chooseByRules();
    void scanInto(Verdict& verdict, VELT::ScannerStream& content, std::string const& output);
    void fill(VELT::ScanContext& context, VELT::ScannerStream& content);

    Choice const m_choice;
    velt_tools::Store m_store;
    std::unique_ptr<Agent> m_agent;
    std::unique_ptr<Session> m_session;
};

}  // namespace velt_scan
