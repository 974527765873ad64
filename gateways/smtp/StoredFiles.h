// StoredFiles: the files of one mail, from their writing until their writer lets go of them.
// Each is written under a name that no walk takes ("<name>.rmd.tmp"), flushed, and renamed, and is locked from before
// that until this object goes: no retryer takes, and velt-queue leaves alone, what may still be undone. The lock keeps
// out this process too, whose own walk may come by.
// Owner: whoever writes. Thread: one at a time. Failure: false, with errno; of too few descriptors, one for each file,
// too.
#pragma once

#include <string>
#include <vector>

#include "Message.h"
#include "core/RetryFormat.h"

namespace smtp {

// What is to become a file; the content is borrowed.
struct RetryDraft {
    std::string name;
    RetryEnvelope envelope;
    RetryStatus status;  // tries of 0: it is due at once; otherwise it begins with a rest
    Content content;
};

class StoredFiles {
public:
    explicit StoredFiles(std::string directory) : m_directory(std::move(directory)) {}  // ends in "/"
    ~StoredFiles();  // what is there stays, and is anybody's from now on
    StoredFiles(StoredFiles const&) = delete;
    StoredFiles& operator=(StoredFiles const&) = delete;

    // Once. True: all are there after whatever happens to the machine. False: none is there, unless left() says so.
    bool Store(std::vector<RetryDraft> const& drafts);

    // The errno because of which what was not stored could not be undone: somebody may take it. 0: nobody can.
    int left() const { return m_left; }

    // As if they had never been, after whatever happens to the machine. One that cannot be removed says that nobody
    // waits for it. False: nor could that be written.
    bool Undo();

private:
    struct File {
        int fd;
        std::string path;
        RetryLayout layout;
        std::size_t recipients;
    };
    bool Write(RetryDraft const& draft);
    bool Name(std::vector<RetryDraft> const& drafts);
    bool Remove() const;
    bool SayNobodyWaits() const;
    void LetGo();

    std::string const m_directory;
    std::vector<File> m_files;
    bool m_named = false;   // some of them may have the name that a walk takes
    bool m_stored = false;  // all of them are there
    int m_left = 0;
};

enum class Found {
    Nothing,
    File,
    Undone,  // a file that was to be undone and could not be removed: nobody waits for it, nor did anybody get it
};

// What there is at `path`. The mode of a file says whether it was undone, as well as its status: to open and close a
// file would give up the lock by which a session of this process may hold it.
Found LookFor(std::string const& path);

// For files that their writer has done with once they are there. `left`: as StoredFiles says of it.
bool StoreRetryFiles(std::string const& directory, std::vector<RetryDraft> const& drafts, int* left = nullptr);

}  // namespace smtp
