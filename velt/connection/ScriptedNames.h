// ScriptedNames: while one lives, names and addresses are looked up in it and nowhere else. The program is linked with
// gethostbyname_r and gethostbyaddr_r wrapped for it.
// Owner: the test, one at a time. Threads: the test's. Failure: what it does not know has no answer.
#pragma once

#include <netdb.h>

#include <map>
#include <string>
#include <vector>

namespace velt_testing {

class ScriptedNames {
public:
    ScriptedNames() { s_current = this; }
    ~ScriptedNames() { s_current = nullptr; }
    ScriptedNames(ScriptedNames const&) = delete;
    ScriptedNames& operator=(ScriptedNames const&) = delete;

    std::map<std::string, std::vector<std::string>> addresses;  // of a name, dotted
    std::map<std::string, std::string> names;                   // of a dotted address
    int code = 0;                                               // what a look-up without an answer returns
    std::vector<std::string> asked;                             // names and addresses, in order

    static ScriptedNames* Current() { return s_current; }
    // As the system's calls do.
    int Answer(char const* name, hostent* storage, char* room, hostent** result);
    int AnswerReverse(void const* address, hostent* storage, char* room, hostent** result);

private:
    static inline ScriptedNames* s_current = nullptr;
};

}  // namespace velt_testing
