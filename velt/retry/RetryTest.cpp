#include <velt/retry/RetryTest.h>

#include <fcntl.h>
#include <pthread.h>

#include <cerrno>

extern "C" {
std::time_t __real_time(std::time_t* out);
std::time_t __wrap_time(std::time_t* out);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now);
int __real_poll(pollfd* watched, nfds_t count, int timeoutMs);
int __wrap_poll(pollfd* watched, nfds_t count, int timeoutMs);
int __real_lockf(int fd, int command, off_t length);
int __wrap_lockf(int fd, int command, off_t length);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* end);
int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* end);
int __real_nanosleep(timespec const* length, timespec* left);
int __wrap_nanosleep(timespec const* length, timespec* left);
dirent* __real_readdir(DIR* listing);
dirent* __wrap_readdir(DIR* listing);
}

std::time_t __wrap_time(std::time_t* out) {
    std::time_t const shown = velt_testing::FixedTime::Shown();
    if (shown == 0) return __real_time(out);
    if (out) *out = shown;
    return shown;
}

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    long const shown = velt_testing::RetryHooks::monotonicMs;
    if (clock != CLOCK_MONOTONIC || shown == 0) return __real_clock_gettime(clock, now);
    *now = {shown / 1000, shown % 1000 * 1'000'000};
    return 0;
}

int __wrap_poll(pollfd* watched, nfds_t count, int timeoutMs) {
    auto const& scripted = velt_testing::RetryHooks::poll;
    return scripted ? scripted(watched, count, timeoutMs) : __real_poll(watched, count, timeoutMs);
}

int __wrap_lockf(int fd, int command, off_t length) {
    if (velt_testing::RetryHooks::beforeLock) velt_testing::RetryHooks::beforeLock();
    return __real_lockf(fd, command, length);
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    ++velt_testing::RetryHooks::waiting;
    return __real_pthread_cond_wait(condition, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* end) {
    auto const& deafWait = velt_testing::RetryHooks::deafWait;
    if (!deafWait) return __real_pthread_cond_timedwait(condition, mutex, end);
    ::pthread_mutex_unlock(mutex);
    deafWait();
    ::pthread_mutex_lock(mutex);
    return ETIMEDOUT;
}

int __wrap_nanosleep(timespec const* length, timespec* left) {
    long& shown = velt_testing::RetryHooks::monotonicMs;
    if (shown == 0) return __real_nanosleep(length, left);
    shown += length->tv_sec * 1000 + length->tv_nsec / 1'000'000;
    return 0;
}

dirent* __wrap_readdir(DIR* listing) {
    if (!velt_testing::RetryHooks::readingFails) return __real_readdir(listing);
    errno = EIO;
    return nullptr;
}

namespace velt_testing {

int RealPoll(pollfd* watched, int timeoutMs) { return __real_poll(watched, 1, timeoutMs); }

namespace {

constexpr char const* kCounters[] = {"messages.traversed", "messages.retried", "directory_scans"};

// Holds its file and answers for it, as it has to.
class NotingRetry : public VELT::Connection {
public:
    NotingRetry(int fd, std::string path, std::function<void()> const& run)
        : m_fd(fd), m_path(std::move(path)), m_run(run) {}
    void Run() override {
        if (m_run) m_run();
    }
    bool Active(char const* path) override { return m_path == path; }

private:
    Fd m_fd;
    std::string const m_path;
    std::function<void()> const& m_run;
};

}  // namespace

std::size_t OpenDescriptors() {
    auto const entries = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

RetryFixture::RetryFixture() : m_directory(m_root / "waiting/") {
    VELT::Config::initialise(&m_store);
    std::filesystem::create_directories(m_directory);
    m_events.AllowAll();
    for (char const* const name : kCounters) m_before.push_back(CounterValue(name));
    s_made.clear();
    s_current = this;
    VELT::RetryerServiceLoop::setRetryerFactory(&Make);
}

RetryFixture::~RetryFixture() {
    VELT::RetryerServiceLoop::setRetryerFactory(nullptr);
    RetryHooks::poll = nullptr;
    RetryHooks::beforeLock = nullptr;
    RetryHooks::deafWait = nullptr;
    RetryHooks::monotonicMs = 0;
    RetryHooks::readingFails = false;
    s_run = nullptr;
    s_answersForItsFile = true;
    s_current = nullptr;
    VELT::ServiceLoop::shutdown = false;
    VELT::MemCheck::setMemSize(0);
    VELT::Config::initialise(nullptr);
    QXlog::detail::allowLogging(true);
}

void RetryFixture::Put(std::string const& section, std::string const& key, FakeValue value) {
    m_store.Put("base", section, key, std::move(value));
}

std::unique_ptr<OpenRetryLoop> RetryFixture::Loop(char const* queue) {
    Put(std::string(queue) + "retryer", "ScanDir", FakeValue::Text(m_directory));
    Put(std::string(queue) + "retryer", "LoggingEnabled", FakeValue::Flag(true));
    return std::make_unique<OpenRetryLoop>(&m_proxy->m_config, queue);
}

// The status time is the system's to set: should it have gone on to the next second, the file is made anew.
void RetryFixture::Wait(std::string const& name, long behind) {
    do {
        Fd const file(Checked(::open(Path(name).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600), "open"));
        struct stat facts {};
        Checked(::fchmod(file.get(), 0600), "fchmod");
        Checked(::fstat(file.get(), &facts), "fstat");
        timespec const times[2] = {facts.st_atim, {facts.st_ctime - behind, 0}};
        Checked(::futimens(file.get(), times), "futimens");
        Checked(::fstat(file.get(), &facts), "fstat");
        if (facts.st_ctime - facts.st_mtime == behind) return;
    } while (true);
}

std::time_t RetryFixture::StatusTime(std::string const& name) const {
    struct stat facts {};
    Checked(::stat(Path(name).c_str(), &facts), "stat");
    return facts.st_ctime;
}

void RetryFixture::LetPassSince(std::string const& name, long seconds) {
    m_time.Pass(StatusTime(name) + seconds - m_time.now());
}

std::vector<std::string> RetryFixture::Ids() {
    std::vector<std::string> ids;
    for (Made const& made : s_made) ids.push_back(made.id);
    std::sort(ids.begin(), ids.end());
    return ids;
}

unsigned long RetryFixture::Counted(char const* name) {
    auto const which = std::find(std::begin(kCounters), std::end(kCounters), std::string(name)) - kCounters;
    return CounterValue(name) - s_current->m_before.at(static_cast<std::size_t>(which));
}

VELT::Connection* RetryFixture::Make(int fd, bool notQuarantine, std::string& directory, std::string& id, bool isNew) {
    s_made.push_back(
        {fd, notQuarantine, directory, id, isNew, Counted("messages.traversed"), Counted("messages.retried")});
    return new NotingRetry(fd, s_answersForItsFile ? directory + id + ".rmd" : "", s_run);
}

}  // namespace velt_testing
