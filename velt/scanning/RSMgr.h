// RSMgr: the functions that ask the resource manager, which knows the scanner processes and who occupies them. An open
// handle occupies what it was given; its last close is the end of that, however the process came to it.
// It is asked through the character device /dev/qxrmgrctl where that exists, and otherwise through the socket of
// velt-rmgrd where that answers (docs/formats/resource-manager.md).
// Owner: a handle is its caller's, who frees it. Threads: any, each with handles of its own; a handle that several
// threads share is only asked whether it is available. Units: seconds, unless told otherwise; addresses in network
// order. Failure: false or -1 with errno; on a closed handle -1 with the errno that was there. Nothing throws.
#pragma once

#include <netinet/in.h>

#include <velt/Export.h>

namespace VELT {

using RSMGRHANDLE = int;  // a descriptor, in the numbers from 1024 on where the limit allows; -1: closed

// True: `handle` is open. Where the device cannot be opened `handle` stays as it was, and so does what it says.
VELT_API bool RSMgrResourceCtlHandle(int& handle);
// Of resource `n`; a handle of resource 0 waits for a server. Forgets what `handle` was.
VELT_API bool RSMgrResourceHandle(int& handle, int n);
VELT_API void RSMgrFreeResource(int& handle);  // does nothing to a closed one

// Into a buffer of 256 bytes, which is more than a name has; closed by a zero if it was filled with zeros. 0, or -1.
VELT_API int RSMgrResourceAttributes(int& handle, char* name);

// The number of the resource that is occupied from now on, 0 or more; -1 with EAGAIN: none within the time.
VELT_API int RSMgrWaitForResource(int& handle, int timeout, sockaddr_in* address, int* id, int* sequence);
VELT_API bool RSMgrResourceAvailable(int& handle);  // what the handle was opened on is up

// A scanner process announces itself by the first and says by the others whether it takes work. What the manager
// answers.
VELT_API int RSMgrSetupResource(int& handle, int first, int second, int third, sockaddr_in* address, char* name);
VELT_API int RSMgrAvailable(int& handle);
VELT_API int RSMgrUnAvailable(int& handle);

VELT_API bool RSMgrActive();  // the manager is there and has servers

// The settings of idle connections: whether they are kept, and seconds. Timeouts in units of 1024 ms, left as they were
// where the settings are missing or are not four numbers; the first two are then true and 30.
VELT_API void RSMgrAttributes(bool& cache, int& cache_time, int& conn_timeout, int& data_timeout);

}  // namespace VELT
