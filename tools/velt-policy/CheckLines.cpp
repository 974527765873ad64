#include <velt/errors/Failures.h>
#include <velt/ldap/ServerFile.h>
#include <velt/lookup/NetPolicy.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tools/velt-policy/Checks.h"

namespace velt_policy {
namespace {

using VELT::LineFate;
using VELT::NetPolicy;

struct RawLine {
    std::string text;
    bool ended;  // a line end stands behind it
};

std::vector<RawLine> LinesOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::string const bytes{std::istreambuf_iterator<char>(file), {}};
    std::vector<RawLine> lines;
    for (std::size_t at = 0; at < bytes.size();) {
        std::size_t const end = bytes.find('\n', at);
        bool const ended = end != std::string::npos;
        lines.push_back({bytes.substr(at, ended ? end - at : std::string::npos), ended});
        at = ended ? end + 1 : bytes.size();
    }
    return lines;
}

bool SaysSomething(RawLine const& line) {
    return line.text.find_first_not_of(" \t\r") != std::string::npos && line.text[0] != '#';
}

class NetworkListCheck {
public:
    NetworkListCheck(std::string path, Findings& findings) : m_path(std::move(path)), m_findings(findings) {}

    // The number of checks in the file; nothing: it cannot be read, and a gateway goes on without it.
    int run() try {
        NetPolicy policy;
        auto const stop = policy.load(m_path, [this](VELT::NetPolicyLine const& line) { lookAt(line); });
        tellRest(stop, LinesOf(m_path));
        return m_checks;
    } catch (VELT::FWException<VELT::fw_exception_tag::resource> const& failure) {
        if (failure.error != ENOENT)
            m_findings.error({m_path, 0, 0}, std::string("cannot be read: ") + std::strerror(failure.error));
        return 0;
    }

private:
    void lookAt(VELT::NetPolicyLine const& line) {
        m_read = line.number;
        m_checks += line.check != nullptr;
        if (!line.remark.reason) return;
        auto const column = static_cast<unsigned>(line.remark.at - line.text) + 1;
        std::string const what = line.check ? "" : "the line is dropped: ";
        m_findings.warning({m_path, line.number, column}, what + line.remark.reason);
    }

    // What stands behind the place where the reading stops.
    void tellRest(NetPolicy::Stop stop, std::vector<RawLine> const& lines) {
        unsigned const stopped = m_read + 1;
        if (stop == NetPolicy::Stop::atLongLine)
            m_findings.error({m_path, stopped, 1}, "the line is too long: neither it nor what follows is read");
        if (stop == NetPolicy::Stop::atLongLine) return;
        for (std::size_t i = stop == NetPolicy::Stop::atEnd ? m_read : stopped; i < lines.size(); ++i) {
            if (!SaysSomething(lines[i])) continue;
            bool const empty = stop == NetPolicy::Stop::atEmptyLine;
            std::string const why = empty ? "line " + std::to_string(stopped) + " is empty, which ends the file"
                                          : "its line end is missing";
            m_findings.warning({m_path, static_cast<unsigned>(i + 1), 1}, "the line is not read: " + why);
        }
    }

    std::string const m_path;
    Findings& m_findings;
    unsigned m_read = 0;  // lines so far
    int m_checks = 0;
};

class ServerFileCheck {
public:
    ServerFileCheck(char const* name, VELT::ServerFileKind kind, Findings& findings)
        : m_path(World::path(name)), m_kind(kind), m_findings(findings) {}

    void run() {
        auto const checked = VELT::CheckServerFile(m_path, m_kind);
        if (!checked.readable && errno != ENOENT && errno != ENOTDIR)
            m_findings.error({m_path, 0, 0}, std::string("cannot be read: ") + std::strerror(errno));
        for (auto const& line : checked.lines) lookAt(line);
        tellWithoutHost(checked);
    }

private:
    void lookAt(VELT::CheckedLine const& line) {
        if (line.rest) warn(line, 1, "the line is longer than 8191 bytes: the rest is taken for a line of its own");
        if (char const* const why = VELT::WhyDropped(line.fate)) tellDropped(line, why);
        if (line.fate == LineFate::GoesOn)
            warn(line, 1, "opens no other server: what follows belongs to the one that there is");
        if (line.fate == LineFate::Taken) tellValue(line);
        bool const returns = !line.text.empty() && line.text.back() == '\r' && line.text[0] != '#';
        if (returns) warn(line, line.text.size(), "a carriage return stands at the end of the line and belongs to it");
    }

    // Of a server that is dropped only the line that opens it is told.
    void tellDropped(VELT::CheckedLine const& line, char const* why) {
        bool const same = line.fate == LineFate::SameHost;
        if (same && line.server == m_sameHost) return;
        if (!same) return warn(line, 1, std::string("the line is dropped: ") + why);
        m_sameHost = line.server;
        warn(line, 1, std::string("the server is dropped: ") + why + ", in line " + std::to_string(line.instead));
    }

    void tellValue(VELT::CheckedLine const& line) {
        auto const remark = VELT::LDAPServer::RemarkOnNumber(line.text.c_str());
        if (remark.reason) warn(line, static_cast<std::size_t>(remark.at - line.text.c_str()) + 1, remark.reason);
    }

    void tellWithoutHost(VELT::CheckedServerFile const& checked) {
        for (auto const& opens : checked.lines) {
            if (opens.fate != LineFate::OpensServer) continue;
            auto const hasHost = [&](VELT::CheckedLine const& line) {
                return line.server == opens.server && line.fate == LineFate::Taken &&
                       line.text.rfind("ldapserver ", 0) == 0;
            };
            if (std::none_of(checked.lines.begin(), checked.lines.end(), hasHost))
                warn(opens, 1, "the server has no ldapserver");
        }
    }

    void warn(VELT::CheckedLine const& line, std::size_t column, std::string reason) {
        m_findings.warning({m_path, line.number, static_cast<unsigned>(column)}, std::move(reason));
    }

    std::string const m_path;
    VELT::ServerFileKind const m_kind;
    Findings& m_findings;
    std::size_t m_sameHost = 0;  // the server whose drop was told last
};

}  // namespace

void CheckNetworkLists(Findings& findings) {
    int const inside = NetworkListCheck(World::path("inside.txt"), findings).run();
    int const outside = NetworkListCheck(World::path("outside.txt"), findings).run();
    if (inside + outside == 0)
        findings.error({World::path("inside.txt"), 0, 0},
                       "neither it nor outside.txt has a line that counts: every session is closed");
}

void CheckServerFiles(Findings& findings) {
    ServerFileCheck("ldap.txt", VELT::ServerFileKind::Directory, findings).run();
    ServerFileCheck("bwserver.txt", VELT::ServerFileKind::Lists, findings).run();
}

}  // namespace velt_policy
