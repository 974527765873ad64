// RetryerServiceLoop: the worker of a retryer. It walks one directory of files that wait, named "<id>.rmd", at fixed
// intervals, locks each that is due, and has a session of the host's work on it, on a thread of a pool.
// What is due: a file that was written once and not touched again, at the next walk; one whose status time is
// "NewFileDelta" or more after its modification time, when "RetryInterval" has passed since that status time. The
// times and the lock are all that is known of a file: how often it was tried nobody counts.
// A file is never written, renamed or removed here: that is the session's doing. Several retryers may share a
// directory. Owner: ProxyMonitor. Threads: start-up, then the worker's main thread. Units: seconds. Failure: a
// directory or a file that cannot be opened is reported, and looked at again at the next walk.
#pragma once

#include <string>

#include <velt/Export.h>
#include <velt/runtime/ServiceLoop.h>

namespace QXStats {
class QXCounter;
}

namespace VELT {

class Config;
class Connection;

enum QUEUE_TYPE {
    QUEUE_SMTP = 0,
    QUEUE_LOG = 1,
    QUEUE_QUARANTINE = 2,
};

class VELT_API RetryerServiceLoop : public ServiceLoop {
public:
    // Makes the session for one file. `fd`: the file, open for both and locked; the session's from here on, and -1 for
    // the one that is made at start-up to set up its class. `id`: the file's name without its suffix. `isNew`: not
    // tried yet. Null leaves the file for a later walk. While a session holds a file its Active(), which the walk calls
    // beside it, has to answer true for the file's path, or the next walk takes the file a second time.
    using RetryerFactory = Connection* (*)(int fd, bool notQuarantine, std::string& directory, std::string& id,
                                           bool isNew);

    // queueName: "smtp", "log" or "quarantine". Another one, and null, is a queue without a directory.
    RetryerServiceLoop(Config* config, char const* queueName);

    ~RetryerServiceLoop() override;
    void Process(int argc, char** argv) override;  // the files of these ids; with none, all files once
    void Run() override;                           // walks until the process stops, or its parent has gone
    void StopServices() override;
    int PreForkInit() override;
    int PostForkInit() override;

    // Call it before ProxyStart. Without a factory no session is made, and each walk leaves what is due open and
    // locked.
    static void setRetryerFactory(RetryerFactory factory);

    // One walk. Forced, each file is due, and none is new.
    void ScanDir(bool force, long interval);
    void ProcessIds(int argc, char** argv);  // due or not; all are new
    // Has a session work on the file: on the pool, or, where there is none, before it returns. Takes the file over.
    void HandleEmail(std::string& id, std::string& unused, int fd, bool isNew);

protected:
    // Set by the constructor.
    std::string directory;  // "/" at its end unless empty
    std::string suffix;
    unsigned maxConcurrent;
    unsigned scanInterval;
    unsigned retryInterval;
    int newFileDelta;
    QXStats::QXCounter* traversed;
    QXStats::QXCounter* retried;
    QXStats::QXCounter* scans;
    QUEUE_TYPE queueType;
    Config* config;

private:
    struct Walk;

    void ReportDirectory() const;
    void VisitEntry(std::string const& name, Walk const& walk);
    int OpenFile(std::string const& name);
    void RestUntil(long end);
    void WatchParent(int milliseconds);
    void CloseParentRead();
    void LeaveParent();
};

}  // namespace VELT
