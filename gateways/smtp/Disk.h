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

// Moves the open file at `path` into a directory, which ends in "/", under its name there; EEXIST: that is taken. Into
// another file system it is copied, with owner, mode and times, before the old one goes. Both directories are flushed.
bool MoveFile(int fd, std::string const& path, std::string const& directory);

}  // namespace smtp
