#include <velt/ldap/ServerFile.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace VELT {

namespace {

constexpr std::size_t kPieceBytes = 8192;
constexpr char kOpens[] = "server";

struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// How much of a buffer that held nothing but ends of lines fgets has written. An end of line of the file has a NUL
// behind it; text with a NUL in it is the reason to look so.
struct Written {
    bool ends;  // with an end of line
    std::size_t bytes;
};

Written WrittenTo(std::vector<char> const& piece) {
    auto const* const end = static_cast<char const*>(std::memchr(piece.data(), '\n', piece.size()));
    std::size_t const behind = end ? static_cast<std::size_t>(end - piece.data()) + 1 : piece.size();
    bool const ends = behind < piece.size() && piece[behind] == '\0';
    return {ends, ends ? behind + 1 : piece.size()};
}

class Reading {
public:
    Reading(ServerFileKind kind, std::vector<std::unique_ptr<LDAPServer>>& servers) : m_kind(kind), m_servers(servers) {
        if (kind == ServerFileKind::Lists && !servers.empty()) m_latest = servers.front().get();
    }
    LineFate Take(char const* line) {
        if (!line[0] || line[0] == '#') return LineFate::Skipped;
        if (std::strncmp(line, kOpens, sizeof kOpens - 1) == 0) return Open();
        return m_latest ? m_latest->setAttribute(line) : LineFate::BeforeServer;
    }

private:
    LineFate Open() {
        if (m_kind == ServerFileKind::Lists && m_latest) return LineFate::GoesOn;
        m_servers.push_back(std::make_unique<LDAPServer>());
        m_latest = m_servers.back().get();
        return LineFate::OpensServer;
    }

    ServerFileKind m_kind;
    std::vector<std::unique_ptr<LDAPServer>>& m_servers;
    LDAPServer* m_latest = nullptr;
};

// The lines of a server that is dropped, and the line that opened the one in its place.
void MarkDropped(std::vector<CheckedLine>& lines, std::size_t server, std::size_t instead) {
    auto const opens = std::find_if(lines.begin(), lines.end(), [&](CheckedLine const& one) {
        return one.fate == LineFate::OpensServer && one.server == instead;
    });
    for (CheckedLine& one : lines) {
        if (one.server != server || (one.fate != LineFate::OpensServer && one.fate != LineFate::Taken)) continue;
        one.fate = LineFate::SameHost;
        one.instead = opens->number;
    }
}

void MarkSameHosts(std::vector<CheckedLine>& lines, std::vector<std::unique_ptr<LDAPServer>> const& servers) {
    std::vector<LDAPServer*> left;
    std::vector<std::size_t> numbers;
    for (auto const& one : servers) {
        left.push_back(one.get());
        numbers.push_back(left.size());
    }
    for (std::size_t first = 0, later = 0; FindSameHost(left, first, later);) {
        MarkDropped(lines, numbers[later], numbers[first]);
        left.erase(left.begin() + static_cast<std::ptrdiff_t>(later));
        numbers.erase(numbers.begin() + static_cast<std::ptrdiff_t>(later));
    }
}

}  // namespace

bool ReadServerFile(std::string const& path, ServerFileKind kind, std::vector<std::unique_ptr<LDAPServer>>& servers,
                    ServerFileWatch const& watch) {
    std::unique_ptr<std::FILE, Close> const file(std::fopen(path.c_str(), "re"));
    if (!file) return false;
    Reading reading(kind, servers);
    std::vector<char> piece(kPieceBytes, '\n');
    ServerFilePiece told{1, false, {}, LineFate::Skipped};
    while (std::fgets(piece.data(), static_cast<int>(piece.size()), file.get())) {
        auto const [ends, bytes] = WrittenTo(piece);
        piece[std::strcspn(piece.data(), "\n")] = '\0';
        told.fate = reading.Take(piece.data());
        told.text = piece.data();
        if (watch) watch(told);
        told.rest = !ends;
        told.number += ends;
        std::fill_n(piece.begin(), bytes, '\n');
    }
    return true;
}

bool FindSameHost(std::vector<LDAPServer*> const& servers, std::size_t& first, std::size_t& later) {
    for (first = 0; first < servers.size(); ++first)
        for (later = first + 1; later < servers.size(); ++later)
            if (servers[first]->getServer() == servers[later]->getServer()) return true;
    return false;
}

char const* WhyDropped(LineFate fate) {
    switch (fate) {
        case LineFate::BeforeServer:
            return "no \"server\" stands in front of it";
        case LineFate::WithoutBlank:
            return "a key without a blank and a value";
        case LineFate::UnknownKey:
            return "a key that nobody knows";
        case LineFate::Refused:
            return "a value without a colon";
        case LineFate::SameHost:
            return "an earlier server has the same host";
        default:
            return nullptr;
    }
}

CheckedServerFile CheckServerFile(std::string const& path, ServerFileKind kind) {
    CheckedServerFile checked;
    std::vector<std::unique_ptr<LDAPServer>> servers;
    checked.readable = ReadServerFile(path, kind, servers, [&](ServerFilePiece const& piece) {
        bool const belongs = piece.fate != LineFate::Skipped;
        checked.lines.push_back(
            {piece.number, piece.rest, piece.fate, std::string(piece.text), belongs ? servers.size() : 0, 0});
    });
    MarkSameHosts(checked.lines, servers);
    return checked;
}

}  // namespace VELT
