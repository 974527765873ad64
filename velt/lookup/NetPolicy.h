// NetPolicy: one side of the network, read from inside.txt or outside.txt. It scores how well the far end of a session
// fits it; the more specific side is the one the session comes from (Proxy::FindConnectionDirection).
// Owner: Proxy holds the two by value. Threads: loaded before threads start, read without lock after that; a DOMAIN
// line may look up the host name of the session, and so wait for a name server. Units: a score is -1 for no match,
// otherwise higher is more specific: the bits of a mask, or the score of name_match. Failure: only load throws. Lines
// that make no sense are skipped without a word. docs/formats/inside-txt.md has the form.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <velt/Export.h>
#include <velt/lookup/LineRemark.h>

namespace VELT {

class Connection;
class TCPConnection;

// One line of such a file.
class VELT_API NetPolicyCheck {
public:
    NetPolicyCheck() = default;
    virtual ~NetPolicyCheck() = default;
    NetPolicyCheck(NetPolicyCheck const&) = delete;
    NetPolicyCheck& operator=(NetPolicyCheck const&) = delete;

    virtual int score(Connection* session, TCPConnection& end) = 0;

    static std::unique_ptr<NetPolicyCheck> create_policy(char const* line);  // null: a comment or no check
    static std::unique_ptr<NetPolicyCheck> create_policy(char const* line, LineRemark& remark);
};

// One line as it was read, and what came of it.
struct NetPolicyLine {
    unsigned number;   // from 1
    char const* text;  // without its end; gone after the call
    NetPolicyCheck const* check;
    LineRemark remark;
};

class VELT_API NetPolicy {
public:
    using Watcher = std::function<void(NetPolicyLine const& line)>;
    enum class Stop { atEnd, atEmptyLine, atLongLine };  // at the end, or at the line behind the last one told

    NetPolicy() = default;
    NetPolicy(NetPolicy const&) = delete;
    NetPolicy& operator=(NetPolicy const&) = delete;

    // Takes the file's lines up to the first empty one in place of those held. Throws
    // FWException<fw_exception_tag::resource> with the errno value when the file cannot be read; the lines held stay.
    void load(std::string path);
    Stop load(std::string const& path, Watcher const& watch);  // the same, and tells of each line

    int score(Connection* session, TCPConnection& end);  // the best of all lines

private:
    std::vector<std::unique_ptr<NetPolicyCheck>> m_checks;  // in file order
};

}  // namespace VELT
