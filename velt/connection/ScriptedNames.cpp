#include "velt/connection/ScriptedNames.h"

#include <arpa/inet.h>

#include <cstring>

extern "C" {
int __real_gethostbyname_r(char const*, hostent*, char*, std::size_t, hostent**, int*);
int __wrap_gethostbyname_r(char const*, hostent*, char*, std::size_t, hostent**, int*);
int __real_gethostbyaddr_r(void const*, socklen_t, int, hostent*, char*, std::size_t, hostent**, int*);
int __wrap_gethostbyaddr_r(void const*, socklen_t, int, hostent*, char*, std::size_t, hostent**, int*);
}

using velt_testing::ScriptedNames;

int __wrap_gethostbyname_r(char const* name, hostent* storage, char* room, std::size_t size, hostent** result,
                           int* error) {
    if (ScriptedNames* const script = ScriptedNames::Current()) return script->Answer(name, storage, room, result);
    return __real_gethostbyname_r(name, storage, room, size, result, error);
}

int __wrap_gethostbyaddr_r(void const* address, socklen_t length, int family, hostent* storage, char* room,
                           std::size_t size, hostent** result, int* error) {
    ScriptedNames* const script = ScriptedNames::Current();
    if (script) return script->AnswerReverse(address, storage, room, result);
    return __real_gethostbyaddr_r(address, length, family, storage, room, size, result, error);
}

namespace velt_testing {

// A few addresses fit the least room that the library offers.
int ScriptedNames::Answer(char const* name, hostent* storage, char* room, hostent** result) {
    asked.push_back(name);
    *result = nullptr;
    auto const known = addresses.find(name);
    if (known == addresses.end()) return code;
    auto** const list = reinterpret_cast<char**>(room);
    auto* const values = reinterpret_cast<in_addr*>(list + known->second.size() + 1);
    std::size_t count = 0;
    for (std::string const& dotted : known->second) {
        ::inet_aton(dotted.c_str(), &values[count]);
        list[count] = reinterpret_cast<char*>(&values[count]);
        ++count;
    }
    list[count] = nullptr;
    *storage = {const_cast<char*>(known->first.c_str()), list + count, AF_INET, sizeof(in_addr), list};
    *result = storage;
    return 0;
}

int ScriptedNames::AnswerReverse(void const* address, hostent* storage, char* room, hostent** result) {
    char dotted[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, address, dotted, sizeof dotted);
    asked.push_back(dotted);
    *result = nullptr;
    auto const known = names.find(dotted);
    if (known == names.end()) return code;
    auto** const list = reinterpret_cast<char**>(room);
    list[0] = nullptr;
    *storage = {const_cast<char*>(known->second.c_str()), list, AF_INET, sizeof(in_addr), list};
    *result = storage;
    return 0;
}

}  // namespace velt_testing
