// The two steps by which a copy of an object gets into a file of the caller's. Any thread. Sizes are in bytes.
// Failure: false, or -1 with errno; what was written of the file so far is then gone.
#pragma once

namespace VELT {

bool WriteAll(int fd, char const* data, unsigned long length);  // goes on after EAGAIN and EINTR

// Closes the file. One that is not `complete`, or whose close tells of a failed write, is removed.
int CloseWritten(int fd, char const* path, bool complete);

}  // namespace VELT
