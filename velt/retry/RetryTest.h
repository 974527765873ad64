// What the tests of this folder share: a directory of files that wait, with the ages that a test gives them, sessions
// that note what they were made of, and clocks, waits and locks that the test has in its hand. The program is linked
// with what is wrapped in RetryTest.cpp.
// Owner: the fixture. Threads: the test's; sessions of a pool run on others. Failure: set-up that fails throws
// std::system_error.
#pragma once

#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <QXlog/QXlog.h>
#include <testing/FakePolicyStore.h>
#include <testing/Fd.h>
#include <velt/connection/FixedTime.h>
#include <velt/logging/Events.h>
#include <velt/retry/RetryerServiceLoop.h>
#include <velt/runtime/MemCheck.h>
#include <velt/runtime/RuntimeTest.h>

namespace velt_testing {

// What is called in the place of poll(2), or before lockf(3); null: the system as it is.
struct RetryHooks {
    static inline std::function<int(pollfd*, nfds_t, int)> poll;
    static inline std::function<void()> beforeLock;
    static inline bool readingFails = false;    // of directories
    static inline long monotonicMs = 0;         // what the steady clock shows, which a sleep moves; 0: the system's
    static inline std::atomic<int> waiting{0};  // permanent threads of a pool that came to wait for work
    // What another thread does in the place of its wait for work, in which it hears nobody; its time is up behind that.
    static inline std::function<void()> deafWait;
};

int RealPoll(pollfd* watched, int timeoutMs);

std::size_t OpenDescriptors();

// One session of the factory below, as it was asked for.
struct Made {
    int fd;
    bool notQuarantine;
    std::string directory, id;
    bool isNew;
    unsigned long traversed, retried;  // the counters at that moment, less what they were when the test began

    friend bool operator==(Made const&, Made const&) = default;
};

class OpenRetryLoop : public VELT::RetryerServiceLoop {
public:
    using RetryerServiceLoop::config;
    using RetryerServiceLoop::directory;
    using RetryerServiceLoop::m_parentReadFd;
    using RetryerServiceLoop::maxConcurrent;
    using RetryerServiceLoop::newFileDelta;
    using RetryerServiceLoop::queueType;
    using RetryerServiceLoop::RetryerServiceLoop;
    using RetryerServiceLoop::retryInterval;
    using RetryerServiceLoop::scanInterval;
    using RetryerServiceLoop::suffix;
};

class RetryFixture : public ProxyFixture {
protected:
    RetryFixture();
    ~RetryFixture() override;

    // A loop over the test's own directory.
    std::unique_ptr<OpenRetryLoop> Loop(char const* queue = "smtp");
    void Put(std::string const& section, std::string const& key, FakeValue value);

    // A file that was modified so many seconds before its status time.
    void Wait(std::string const& name, long behind = 0);
    std::time_t StatusTime(std::string const& name) const;
    std::string Path(std::string const& name) const { return m_directory + name; }
    // From now on it is so many seconds after the file's status time.
    void LetPassSince(std::string const& name, long seconds);

    static std::vector<std::string> Ids();  // of the sessions so far, in the order of their names
    static unsigned long Counted(char const* name);
    static VELT::Connection* Make(int fd, bool notQuarantine, std::string& directory, std::string& id, bool isNew);

    static inline RetryFixture* s_current = nullptr;
    static inline std::vector<Made> s_made;
    static inline std::function<void()> s_run;  // what each session does besides
    static inline bool s_answersForItsFile = true;

    EventCapture m_events;
    FakePolicyStore m_store;
    FixedTime m_time;
    std::string m_directory;
    std::vector<unsigned long> m_before;
};

}  // namespace velt_testing
