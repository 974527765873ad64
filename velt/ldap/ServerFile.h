// ServerFile: the reader of ldap.txt and bwserver.txt, and what became of each of their lines. A gateway reads through
// it and says nothing about a line that means nothing; a tool that checks files reads through the same code and tells.
// Owner: the caller, of the servers, too. Threads: any. Failure: a file that cannot be opened has no lines; nothing is
// logged.
//
// For a tool:
//     for (CheckedLine const& line : CheckServerFile(path, ServerFileKind::Directory).lines)
//         if (char const* const reason = WhyDropped(line.fate)) Tell(path, line.number, reason);
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <velt/Export.h>
#include <velt/ldap/LDAPServer.h>

namespace VELT {

enum class ServerFileKind {
    Directory,  // ldap.txt: each "server" opens one
    Lists,      // bwserver.txt: the first "server" opens the one that there is, later ones go on with it
};

// What stands between two ends of lines, at most 8191 bytes of it. The rest of a longer line is a piece of its own,
// with the same number.
struct VELT_API ServerFilePiece {
    unsigned number = 0;    // of its line in the file, from 1
    bool rest = false;      // not the beginning of the line
    std::string_view text;  // without the end of the line; valid during the call
    LineFate fate = LineFate::Skipped;
};

using ServerFileWatch = std::function<void(ServerFilePiece const&)>;

// Appends the servers that the file opens. With Lists and a server in `servers`, nothing is opened and its lines belong
// to that one. False where the file cannot be opened.
VELT_API bool ReadServerFile(std::string const& path, ServerFileKind kind,
                             std::vector<std::unique_ptr<LDAPServer>>& servers, ServerFileWatch const& watch = nullptr);

// The place of a server whose host an earlier one has, and of that earlier one; false where all hosts differ.
VELT_API bool FindSameHost(std::vector<LDAPServer*> const& servers, std::size_t& first, std::size_t& later);

// Null for a line that means what it says; else why it has no effect, for the eyes of an administrator.
VELT_API char const* WhyDropped(LineFate fate);

struct VELT_API CheckedLine {
    unsigned number = 0;
    bool rest = false;
    LineFate fate = LineFate::Skipped;
    std::string text;
    std::size_t server = 0;  // whose it is, counted from 1 in the order of the file; 0: nobody's
    unsigned instead = 0;    // SameHost: the line that opened the server which counts
};

struct VELT_API CheckedServerFile {
    bool readable = false;
    std::vector<CheckedLine> lines;  // in the order of the file
};

// Reads the file as a gateway does and drops servers of the same host, too. Nothing outside the answer is changed.
VELT_API CheckedServerFile CheckServerFile(std::string const& path, ServerFileKind kind);

}  // namespace VELT
