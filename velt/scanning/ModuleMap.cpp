#include <velt/scanning/ModuleMap.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <iterator>

namespace VELT {

namespace {

unsigned long Hex(char const*& at) {
    unsigned long value = 0;
    for (;; ++at) {
        char const c = *at;
        unsigned const digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : 16;
        if (digit == 16) return value;
        value = value * 16 + digit;
    }
}

std::size_t ReadFile(char const* path, char* to, std::size_t room) {
    int const fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    std::size_t had = 0;
    for (ssize_t got; had < room && (got = ::read(fd, to + had, room - had)) > 0;) had += static_cast<std::size_t>(got);
    ::close(fd);
    return had;
}

}  // namespace

// "begin-end rwxp offset device inode    /path": the mappings of one file follow one another, the first at its start.
void ModuleMap::Add(char* line) {
    char const* at = line;
    unsigned long const begin = Hex(at);
    if (*at++ != '-') return;
    unsigned long const end = Hex(at);
    char* const file = std::strchr(line, '/');
    if (!file) return;
    if (std::strcmp(file, m_lastFile) != 0) {
        m_lastFile = file;
        m_lastBase = begin;
    }
    bool const code = std::strlen(at) > 3 && at[3] == 'x';
    if (code && m_count < std::size(m_modules)) m_modules[m_count++] = {begin, end, m_lastBase, file};
}

void ModuleMap::Read() {
    m_count = 0;
    m_lastFile = "";
    m_text[ReadFile("/proc/self/maps", m_text, sizeof m_text - 1)] = '\0';
    for (char* line = m_text; line;) {
        char* const end = std::strchr(line, '\n');
        if (end) *end = '\0';
        Add(line);
        line = end ? end + 1 : nullptr;
    }
}

ModuleMap::Place ModuleMap::Find(unsigned long address) const {
    for (std::size_t i = 0; i < m_count; ++i) {
        Module const& module = m_modules[i];
        if (address >= module.begin && address < module.end) return {module.file, address - module.base};
    }
    return {nullptr, 0};
}

}  // namespace VELT
