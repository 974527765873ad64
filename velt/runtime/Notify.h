// What the service manager that started the proxy is told: a worker accepts or retries, or the monitor leaves.
// Owner: none; functions. Threads: the main one of its process, never a signal handler. Failure: none is reported;
// without NOTIFY_SOCKET in the environment, or in a build without libsystemd, nothing is told.
#pragma once

#include <atomic>
#include <string>

namespace VELT {

// Called by a worker as it begins to accept. Entries of -1 are closed sockets; with no open one the service is not
// ready, and only the status text says so. What a replacement tells again does no harm.
void NotifyReady(std::atomic<int> const* listeners, int count);

// Called by a retryer as it begins to walk this directory, which may be there or not.
void NotifyRetrying(std::string const& directory);

void NotifyStopping();

}  // namespace VELT
