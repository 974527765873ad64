// ldap.txt and bwserver.txt: what a process makes of them is what the check of their lines says, and the lines are
// those of the file. No server is connected to.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include <testing/TempRoot.h>
#include <velt/ldap/LDAPPrim.h>
#include <velt/ldap/ServerFile.h>

#include "fuzz/Input.h"

using VELT::CheckedLine;
using VELT::LDAPPrim;
using VELT::LineFate;
using VELT::ServerFileKind;
using velt_fuzz::Require;

namespace {

constexpr char kDirectory[] = "/config/qxxmlconf/ldap.txt", kLists[] = "/config/qxxmlconf/bwserver.txt";
constexpr std::size_t kMaxText = 2048, kPiece = 8191;

// Some bytes stand for many, so that lines come to the end of the buffer that they are read with.
std::string Stretched(std::string const& text) {
    std::string file;
    for (char const one : text) {
        if (static_cast<unsigned char>(one) >= 0xfc && file.size() < 3 * kPiece)
            file.append(kPiece - 0x100 + static_cast<unsigned char>(one), 'x');
        else
            file.push_back(one);
    }
    return file;
}

struct Piece {
    unsigned number;
    bool rest;
    std::string text;
};

std::vector<Piece> PiecesOf(std::string const& file) {
    std::vector<Piece> pieces;
    unsigned number = 1;
    for (std::size_t at = 0; at < file.size(); ++number) {
        std::size_t const end = std::min(file.find('\n', at), file.size() - 1) + 1;
        for (bool rest = false; at < end; rest = true) {
            std::string const bytes = file.substr(at, std::min(kPiece, end - at));
            at += bytes.size();
            pieces.push_back({number, rest, bytes.substr(0, bytes.find_first_of(std::string("\n\0", 2)))});
        }
    }
    return pieces;
}

void CheckLines(std::vector<CheckedLine> const& lines, std::vector<Piece> const& pieces) {
    Require(lines.size() == pieces.size(), "a line for each piece");
    for (std::size_t i = 0; i < lines.size(); ++i) {
        Require(lines[i].number == pieces[i].number && lines[i].rest == pieces[i].rest, "the number of a line");
        Require(lines[i].text == pieces[i].text, "the text of a line");
        bool const silent = lines[i].text.empty() || lines[i].text[0] == '#';
        Require((lines[i].fate == LineFate::Skipped) == silent, "a comment");
        Require((lines[i].instead != 0) == (lines[i].fate == LineFate::SameHost), "a server in the place of another");
    }
}

std::size_t Count(std::vector<CheckedLine> const& lines, LineFate fate, char const* begin = "") {
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](CheckedLine const& one) {
        return one.fate == fate && one.text.rfind(begin, 0) == 0;
    }));
}

void CheckServers(std::vector<CheckedLine> const& lines) {
    std::set<std::string> hosts;
    for (VELT::LDAPServer* const one : LDAPPrim::s_ldap_servers) {
        Require(hosts.insert(one->getServer()).second, "a host once");
        std::vector<VELT::LDAPGroup> groups;
        one->query_groups(nullptr, groups);
        for (VELT::LDAPGroup const& group : groups) Require(group.name == group.id, "a static group");
    }
    Require(hosts.size() == Count(lines, LineFate::OpensServer), "a server for each line that opens one");
    Require(LDAPPrim::s_dropped_servers.size() == Count(lines, LineFate::SameHost, "server"), "the others dropped");
}

// Both files of a process, in memory.
class Files {
public:
    Files() : m_fd(::memfd_create("servers", MFD_CLOEXEC)) {
        std::string const content = "/proc/self/fd/" + std::to_string(m_fd);
        for (char const* const name : {kDirectory, kLists}) {
            m_root.Write(name, "");
            std::filesystem::remove(m_root / name);
            std::filesystem::create_symlink(content, m_root / name);
        }
    }
    std::string operator/(char const* name) const { return m_root / name; }
    void Write(std::string const& file) const {
        Require(::ftruncate(m_fd, 0) == 0, "an empty file");
        Require(::pwrite(m_fd, file.data(), file.size(), 0) == static_cast<ssize_t>(file.size()), "a written file");
    }

private:
    velt_testing::TempRoot m_root;
    int m_fd;
};

void Forget() {
    for (auto* const servers : {&LDAPPrim::s_ldap_servers, &LDAPPrim::s_dropped_servers}) {
        for (VELT::LDAPServer* const one : *servers) delete one;
        servers->clear();
    }
    delete LDAPPrim::s_bw_server;
    LDAPPrim::s_bw_server = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static Files const files;
    std::string const file = Stretched(velt_fuzz::Input(data, size).Text(kMaxText));
    files.Write(file);
    LDAPPrim::initialise(true, 10);
    auto const servers = VELT::CheckServerFile(files / kDirectory, ServerFileKind::Directory);
    auto const lists = VELT::CheckServerFile(files / kLists, ServerFileKind::Lists);
    Require(servers.readable && lists.readable, "files");
    auto const pieces = PiecesOf(file);
    CheckLines(servers.lines, pieces);
    CheckLines(lists.lines, pieces);
    CheckServers(servers.lines);
    Require((LDAPPrim::s_bw_server != nullptr) == (Count(lists.lines, LineFate::OpensServer) == 1),
            "a server for lists");
    Require(Count(lists.lines, LineFate::OpensServer) <= 1, "one server for lists");
    Forget();
    return 0;
}
