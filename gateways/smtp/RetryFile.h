// RetryFile: a mail that waits to be delivered, in its file "<name>.rmd".
// Written once (StoredFiles); afterwards only its status changes, in place, so that whoever has the file locked keeps
// it. A status that was written is flushed before the call returns. The modification time is kept a day behind the
// status time: so a file rests between two tries. Owner: whoever works on the mail; a RetryFile owns its descriptor,
// and the lock goes with it: nobody else of the process may open the file meanwhile. Thread: one at a time. Failure:
// RetryFault, or false with errno.
#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Message.h"
#include "core/RetryFormat.h"

namespace smtp {

inline constexpr char const* kRetrySuffix = ".rmd";
inline constexpr char const* kUnfinishedSuffix = ".rmd.tmp";

// Makes the directory of such files, and the folders above it, unless it is there: for `user` and `group` alone (-1:
// whose the process is). False, with errno: it is not there, or not as it has to be.
bool MakeRetryDirectory(std::string const& directory, long user, long group);

bool LetRest(int fd);  // whatever file it is: not due before the retryer's interval has passed; nothing is flushed

// Removes what writers left behind that came to no end; how many. Younger than an hour: it may still be written.
unsigned long SweepUnfinished(std::string const& directory);

// Those whose times lie ahead of the clock, which was set back, rest from now on: no walk would take them before it has
// caught up. How many.
unsigned long RestThoseAhead(std::string const& directory);

class RetryFile {
public:
    RetryFile(int fd, std::string path) : m_fd(fd), m_path(std::move(path)) {}
    ~RetryFile();
    RetryFile(RetryFile const&) = delete;
    RetryFile& operator=(RetryFile const&) = delete;

    RetryFault Read();  // all but the message
    RetryFault ReadMessage(VELT::ScannerStream& out);
    // Block by block, until `take` has had enough: that is Unreadable.
    RetryFault ReadMessage(std::function<bool(std::string_view block)> const& take);

    std::string const& path() const { return m_path; }
    RetryEnvelope const& envelope() const { return m_envelope; }
    RetryStatus const& status() const { return m_status; }
    std::time_t seen() const { return m_seen; }  // when somebody last had to do with it, as of Read
    std::uint64_t messageLength() const { return m_layout.messageLength; }

    void Skip(std::int64_t seconds) { m_status.skipped += seconds; }  // written with the next status
    bool Note(RetryStatus status);  // from now on this is how far it is; the sequence is counted here
    bool FlushStatus() const;       // that was read: whoever wrote it may not have come to it
    bool Rest();                    // not due before the retryer's interval has passed; nothing is flushed
    bool Wake();                    // due at the next walk; nothing is flushed

    // Whether its path leads to it, or another one. False, with errno; ENOENT: there is no file, or it is another.
    bool IsStillNamed() const;
    bool IsAt(std::string const& path) const;
    bool HasOtherName() const;  // than its path; it may have got it meanwhile

    // Another process that has it locked keeps it: false, with errno.
    bool Lock();

    // The same mail, in another file or in this one, however far it is.
    bool IsCopyOf(RetryFile const& other) const { return m_layout == other.m_layout; }

    // Moves the file into another directory of the same file system, under its name; the lock goes along. A file that
    // has the name there already stays: EEXIST. Another file system: EXDEV. False, with errno: it is where it was, or
    // not flushed where it is.
    bool Move(std::string const& directory);

    // A copy in another directory, under its name there, locked and read. Flushed but for its name. Null, with errno:
    // there is none.
    std::unique_ptr<RetryFile> CopyInto(std::string const& directory);

    // The file gets another name in its directory, over a file that has it. Flushed, also where it has that name
    // already.
    bool Rename(std::string const& name);

    // Gone for good, after whatever happens to the machine. True too where the path leads to another file by now, which
    // is left alone.
    bool Remove();

private:
    std::string folder() const { return m_path.substr(0, m_path.rfind('/') + 1); }
    bool ReadPart(std::uint64_t from, std::uint64_t length, std::string& out);
    RetryFault ReadStatus();

    int m_fd;
    std::string m_path;
    RetryLayout m_layout;
    RetryEnvelope m_envelope;
    RetryStatus m_status;
    unsigned m_slot = 0;  // that holds it
    std::time_t m_seen = 0;
};

}  // namespace smtp
