// Scenario: one use of the library, in which the calls of the system fail as planned. It is judged by what it says of
// itself: what it says was done has to be there.
// Owner: the driver, which makes one for each run, in a process of its own. Threads: the driver's; helpers on the other
// side of a connection have threads of their own, whose calls never fail. Failure: a constructor that throws ends the
// run; what Act throws counts as a failure that was told.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace torture {

class Scenario {
public:
    virtual ~Scenario() = default;
    virtual bool Act() = 0;           // with failing calls: true where the library says that all was done
    virtual std::string Judge() = 0;  // afterwards, all calls going through: what of it was not done; empty: nothing
};

struct NamedScenario {
    char const* name;
    std::unique_ptr<Scenario> (*make)();
};

std::vector<NamedScenario> StreamScenarios();
std::vector<NamedScenario> SpoolScenarios();
std::vector<NamedScenario> ConnectScenarios();
std::vector<NamedScenario> MailScenarios();

template <class Kind>
std::unique_ptr<Scenario> Make() {
    return std::make_unique<Kind>();
}

void SpareThisThread();                        // its calls never fail
std::string SpoolPath(std::string_view name);  // in the world's spool directory
std::string Numbered(unsigned bytes);          // lines, each another one; of about that size
std::string Compare(std::string_view name, std::string_view got, std::string_view want);  // empty: the same

}  // namespace torture
