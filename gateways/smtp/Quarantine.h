// Quarantine: the files of one message that policy says to keep, one for each verdict and way of delivery.
// They have the form of mail that waits (docs/formats/rmd.md) with the verdict in it, and lie in a directory of their
// own until somebody releases or deletes them (velt-queue), which nobody can before this object has gone: until then
// they may be undone. What is kept is the content that would have gone on.
// Owner: whoever judges the message; the files stay. Thread: the session's. Failure: false, and an event that says why.
#pragma once

#include <string>
#include <vector>

#include "Keeping.h"
#include "Message.h"
#include "StoredFiles.h"
#include "Verdict.h"

namespace smtp {

class Quarantine {
public:
    // `name`: what the names of the files begin with. The same name gives the same files.
    Quarantine(KeptFrom const& from, std::string name)
        : m_from(from), m_name(std::move(name)), m_files(from.settings.keep.quarantine) {}

    // False: some file could not be written, and none of them is there.
    bool Keep(Message const& message, std::vector<Verdict> const& verdicts);

    void Undo();  // for a message whose client is to keep it

private:
    // Recipients of one verdict that go by one way.
    struct Group {
        Verdict const* verdict;
        std::string route;
        std::vector<std::size_t> members;
    };
    std::vector<Group> GroupsOf(Message const& message, std::vector<Verdict> const& verdicts) const;
    RetryDraft DraftOf(Message const& message, Group const& group) const;
    void Report(Verdict const& verdict, RetryDraft const& draft) const;
    void ReportFailed(std::string const& why) const;
    std::string path() const;

    KeptFrom const m_from;
    std::string const m_name;
    StoredFiles m_files;
};

}  // namespace smtp
