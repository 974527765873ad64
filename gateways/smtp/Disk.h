// What is done to files and directories such that it outlives the machine.
// Any thread. Failure: false, with errno; a call that was interrupted is made again.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace smtp {

bool WriteAt(int fd, std::string_view bytes, std::uint64_t at);
bool Flush(int fd);
bool FlushDirectory(std::string const& directory);

// Gives the file at `from` another name, which nobody has there; EEXIST: it is taken.
bool RenameUnlessTaken(std::string const& from, std::string const& to);

// Moves the file at `path` into a directory of the same file system, which ends in "/", under its name there; EEXIST:
// that is taken; EXDEV: it is another file system. Both directories are flushed.
bool MoveFile(std::string const& path, std::string const& directory);

// Into a file that is empty: the content, and with `CopyFacts` owner and mode. Nothing is flushed.
bool CopyContent(int from, int to);
bool CopyFacts(int from, int to);

}  // namespace smtp
