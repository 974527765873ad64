#include <velt/retry/RetryerServiceLoop.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>
#include <string_view>

#include <QXStats/QXCounter.h>
#include <system/SystemPath.h>
#include <velt/Config.h>
#include <velt/config_details/settings/logretryer.h>
#include <velt/config_details/settings/quarantineretryer.h>
#include <velt/config_details/settings/smtpretryer.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/retry/RetryerThreadPool.h>
#include <velt/runtime/MemCheck.h>
#include <velt/runtime/Notify.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/Shutdown.h>
#include <velt/scanning/Scanner.h>

namespace VELT {

namespace {

constexpr char const* kSuffix = ".rmd";
constexpr long kCheckMs = 1000;  // how often a rest looks at the stop flag
constexpr long kMsPerSecond = 1000;

RetryerServiceLoop::RetryerFactory s_Factory = nullptr;
RetryerThreadPool* s_Pool = nullptr;  // null until PostForkInit

// Threads may still move these while the process exits: they are never destroyed.
struct RetryCounters {
    QXStats::QXCounter traversed{"messages.traversed"};
    QXStats::QXCounter retried{"messages.retried"};
    QXStats::QXCounter scans{"directory_scans"};
};

RetryCounters& Counters() {
    static auto& counters = *new RetryCounters;
    return counters;
}

// What a section of settings says. A queue without a section has the values that all sections have as defaults.
struct QueueSettings {
    unsigned maxConcurrent = 1;
    std::string directory;
    int newFileDelta = 5;
    unsigned scanInterval = 10;
    unsigned retryInterval = 300;
    unsigned memoryLimit = 0;
    bool loggingEnabled = true;
};

// The default is one of the system's fixed paths; any other directory was named by somebody.
template <class Setting>
std::string ReadDirectory(Config& config) {
    std::string const named = ReadSetting<Setting>(config).str();
    return named == Setting::defaults::value ? SystemPath(named) : named;
}

template <class Logging, class Concurrent, class Memory, class Delta, class Retry, class Dir, class Interval>
QueueSettings ReadQueue(Config& config,
                        config_attribute::setting_list<Logging, Concurrent, Memory, Delta, Retry, Dir, Interval>) {
    QueueSettings queue;
    queue.maxConcurrent = ReadSetting<Concurrent>(config);
    queue.directory = ReadDirectory<Dir>(config);
    queue.newFileDelta = ReadSetting<Delta>(config);
    queue.scanInterval = ReadSetting<Interval>(config);
    queue.retryInterval = ReadSetting<Retry>(config);
    queue.memoryLimit = ReadSetting<Memory>(config);
    queue.loggingEnabled = ReadSetting<Logging>(config);
    return queue;
}

QueueSettings ReadQueue(Config& config, std::string_view name, QUEUE_TYPE& type) {
    if (name == "quarantine") {
        type = QUEUE_QUARANTINE;
        return ReadQueue(config, VELTCFG::quarantineretryer::Settings{});
    }
    if (name == "smtp") {
        type = QUEUE_SMTP;
        return ReadQueue(config, VELTCFG::smtpretryer::Settings{});
    }
    if (name == "log") {
        type = QUEUE_LOG;
        return ReadQueue(config, VELTCFG::logretryer::Settings{});
    }
    return {};
}

struct CloseDirectory {
    void operator()(DIR* listing) const { ::closedir(listing); }
};

KORlog::InfoBag FileBag(std::string const& directory, std::string const& name) {
    return QXPROP_RETRY_DIRECTORY(directory) | QXPROP_FILE_FOR_RETRY(name);
}

bool TryLock(int fd) { return ::lockf(fd, F_TLOCK, 0) == 0; }

bool IsSameFile(struct stat const& one, struct stat const& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Between its opening and its locking another retryer may have finished with a file: the name then leads elsewhere, or
// nowhere, and the work is done. False: it has. Otherwise the file's facts as they stand now.
bool StillNamed(int fd, std::string const& path, struct stat& facts) {
    struct stat named {};
    return ::fstat(fd, &facts) == 0 && ::stat(path.c_str(), &named) == 0 && IsSameFile(facts, named);
}

// By a clock that nobody sets.
long NowMs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kMsPerSecond + now.tv_nsec / 1'000'000;
}

void Sleep(int milliseconds) {
    timespec const rest{milliseconds / kMsPerSecond, milliseconds % kMsPerSecond * 1'000'000};
    ::nanosleep(&rest, nullptr);
}

}  // namespace

// By what the files of one walk are judged.
struct RetryerServiceLoop::Walk {
    std::time_t now;
    bool forced;
    long interval;
    int newFileDelta;

    bool IsDue(struct stat const& file, bool& isNew) const {
        isNew = false;
        long end = 0;  // no time is beyond one that cannot be counted
        if (forced || (!__builtin_add_overflow(file.st_ctime, interval, &end) && now > end)) return true;
        isNew = file.st_ctime - file.st_mtime < newFileDelta;
        return isNew;
    }
};

RetryerServiceLoop::RetryerServiceLoop(Config* settings, char const* queueName)
    : suffix(kSuffix),
      traversed(&Counters().traversed),
      retried(&Counters().retried),
      scans(&Counters().scans),
      queueType(QUEUE_SMTP),
      config(settings) {
    ServiceLoopConfig(config);
    QueueSettings const queue = ReadQueue(*config, queueName ? queueName : "", queueType);
    maxConcurrent = queue.maxConcurrent;
    directory = queue.directory;
    newFileDelta = queue.newFileDelta;
    scanInterval = queue.scanInterval;
    retryInterval = queue.retryInterval;
    if (!directory.empty() && !directory.ends_with('/')) directory += '/';
    if (!queue.loggingEnabled) Proxy::DisableLogging();
    MemCheck::setMemSize(queue.memoryLimit);
}

// A hangup that comes from here on must not reach what is being taken apart.
RetryerServiceLoop::~RetryerServiceLoop() {
    ForgetStoppedByHangup(this);
    delete s_Pool;
    s_Pool = nullptr;
}

void RetryerServiceLoop::setRetryerFactory(RetryerFactory factory) { s_Factory = factory; }

void RetryerServiceLoop::StopServices() {}

// A throw-away session is how a session's class sets up its statics.
int RetryerServiceLoop::PreForkInit() {
    if (s_Factory) {
        Connection::Initialise();
        std::string id;
        std::unique_ptr<Connection> const session(s_Factory(-1, false, directory, id, false));
        if (session) session->InitialiseConnectionClass(false, *config);
    }
    return ServiceLoop::PreForkInit();
}

int RetryerServiceLoop::PostForkInit() {
    Scanner::start(true, true);
    s_Pool = new RetryerThreadPool(maxConcurrent);
    s_Pool->StartPool(1);
    return 0;
}

// The monitor replaces this process as soon as the pipes are closed: the next one walks while this one finishes what it
// holds, which nobody else can lock.
void RetryerServiceLoop::Run() {
    NotifyRetrying(directory);
    while (!shutdown) {
        long const begin = NowMs();
        ScanDir(false, retryInterval);
        RestUntil(begin + scanInterval * kMsPerSecond);
    }
    LeaveParent();
    if (s_Pool) s_Pool->Shutdown();
}

// In steps, as a signal that stops the process may come at any time, and to any thread; one that came during the walk
// leaves nothing to rest for. The parent is looked at also when there is no time to rest.
void RetryerServiceLoop::RestUntil(long end) {
    do {
        if (s_Pool) s_Pool->StartThreads();
        WatchParent(static_cast<int>(shutdown ? 0 : std::clamp(end - NowMs(), 0L, kCheckMs)));
    } while (NowMs() < end && !shutdown);
}

void RetryerServiceLoop::WatchParent(int milliseconds) {
    pollfd parent{m_parentReadFd, POLLIN, 0};
    int const ready = ::poll(&parent, 1, milliseconds);
    if (ready == -1 && errno != EINTR) Sleep(milliseconds);  // such an error does not go away by itself
    if (ready <= 0) return;
    if (parent.revents & POLLIN) {
        if (HandleMessageFromParent() != 0) CloseParentRead();
    } else if (parent.revents & POLLHUP) {
        shutdown = true;
    } else {
        CloseParentRead();
    }
}

// The retryer goes on without a parent that cannot be heard.
void RetryerServiceLoop::CloseParentRead() {
    if (m_parentReadFd != -1) ::close(m_parentReadFd);
    m_parentReadFd = -1;
}

void RetryerServiceLoop::LeaveParent() {
    CloseParentRead();
    if (m_parentWriteFd != -1) ::close(m_parentWriteFd);
    m_parentWriteFd = -1;
}

void RetryerServiceLoop::ScanDir(bool force, long interval) {
    Walk const walk{::time(nullptr), force, interval, newFileDelta};
    std::unique_ptr<DIR, CloseDirectory> const listing(::opendir(directory.c_str()));
    if (!listing) {
        ReportDirectory();
        return;
    }
    (*scans)++;
    while (!shutdown) {
        errno = 0;
        dirent const* const entry = ::readdir(listing.get());
        if (!entry && errno != 0) ReportDirectory();
        if (!entry) return;
        VisitEntry(entry->d_name, walk);
    }
}

void RetryerServiceLoop::ReportDirectory() const {
    LogEvent(events::RETRY_DIRECTORY_FAILED, [this] { return KORlog::InfoBag(QXPROP_RETRY_DIRECTORY(directory)); });
}

// A file that cannot be looked at has gone; one that is locked belongs to another retryer. Neither is worth a word.
void RetryerServiceLoop::VisitEntry(std::string const& name, Walk const& walk) {
    if (name.starts_with('.')) return;
    LogEvent(events::RETRY_FILE, [&] { return FileBag(directory, name); });
    if (!name.ends_with(suffix)) return;
    std::string const path = directory + name;
    struct stat file {};
    if (::stat(path.c_str(), &file) != 0) return;
    (*traversed)++;
    if (s_Pool && s_Pool->Active(path.c_str())) return;
    bool isNew = false;
    if (!walk.IsDue(file, isNew)) return;
    int const fd = OpenFile(name);
    if (fd == -1) return;
    if (!TryLock(fd) || !StillNamed(fd, path, file) || !walk.IsDue(file, isNew)) {
        ::close(fd);
        return;
    }
    std::string id = name.substr(0, name.size() - suffix.size());
    (*retried)++;
    HandleEmail(id, id, fd, isNew);
    if (s_Pool) WatchParent(0);  // a walk with much to do may be a long one
}

int RetryerServiceLoop::OpenFile(std::string const& name) {
    int const fd = ::open((directory + name).c_str(), O_RDWR | O_CLOEXEC);
    if (fd == -1) LogEvent(events::RETRY_FILE_FAILED, [&] { return FileBag(directory, name); });
    return fd;
}

void RetryerServiceLoop::HandleEmail(std::string& id, std::string&, int fd, bool isNew) {
    if (!s_Factory) return;
    Connection* const session = s_Factory(fd, queueType != QUEUE_QUARANTINE, directory, id, isNew);
    if (!session) {
        ::close(fd);
        return;
    }
    if (s_Pool) {  // the wait of QueueConnection itself would not see the process stop
        s_Pool->QueueConnection(session, false);
        s_Pool->WaitForRoom([this] { WatchParent(0); });
        return;
    }
    session->Run();
    delete session;
}

void RetryerServiceLoop::Process(int argc, char** argv) {
    maxConcurrent = 1;
    if (argc == 0) {
        ScanDir(true, 0);
    } else {
        ProcessIds(argc, argv);
    }
}

// Counted in another order than in a walk: a file that is locked was traversed, and one that has been worked on was
// retried.
void RetryerServiceLoop::ProcessIds(int argc, char** argv) {
    for (int i = 0; i < argc; ++i) {
        std::string id = argv[i];
        std::string const name = id + suffix;
        LogEvent(events::RETRY_FILE, [&] { return FileBag(directory, name); });
        int const fd = OpenFile(name);
        if (fd == -1) continue;
        (*traversed)++;
        struct stat file {};
        if (!TryLock(fd) || !StillNamed(fd, directory + name, file)) {
            ::close(fd);
            continue;
        }
        HandleEmail(id, id, fd, true);
        (*retried)++;
    }
}

}  // namespace VELT
