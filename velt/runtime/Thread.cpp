#include <velt/runtime/Thread.h>

#include <signal.h>
#include <velt/errors/Failures.h>

namespace VELT {

namespace {

// The alarm is the business of the threads that the process began with: a new thread starts with it blocked.
class AlarmBlocked {
public:
    AlarmBlocked() {
        sigset_t alarm;
        ::sigemptyset(&alarm);
        ::sigaddset(&alarm, SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &alarm, &m_before);
    }
    ~AlarmBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    AlarmBlocked(AlarmBlocked const&) = delete;
    AlarmBlocked& operator=(AlarmBlocked const&) = delete;

private:
    sigset_t m_before;
};

}  // namespace

Thread::Thread() { InitThreadHandle(m_handle); }

Thread::~Thread() = default;

// The handle of a detached thread is not kept: that thread may be over, and this object gone, before the call is.
void Thread::StartThread(void* (*entry)(void*), void* argument, int stackSize, Kind kind) {
    pthread_attr_t attributes;
    PthreadAttrInit(&attributes, stackSize);
    if (kind == DETACHED) ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t handle;
    int const error = [&] {
        AlarmBlocked const inherited;
        return PthreadCreate(&handle, &attributes, entry, argument);
    }();
    ::pthread_attr_destroy(&attributes);
    if (error != 0) {
        throw FWException<fw_exception_tag::resource>(error, "StartThread failed to create a thread",
                                                      KORtk::Location{__FILE__, __LINE__, __func__});
    }
    if (kind == JOINABLE) m_handle = handle;
}

void Thread::Join() { PthreadJoin(m_handle, nullptr); }

int Thread::ThreadSetSpecific(int key, void* value) {
    return ::pthread_setspecific(static_cast<pthread_key_t>(key), value);
}

void Thread::Enter() {}

ThreadRunner::ThreadRunner() = default;

ThreadRunner::~ThreadRunner() = default;

void ThreadRunner::StartThread(int stackSize, Thread::Kind kind) {
    m_thread.StartThread(&ThreadRunner::ThreadEntry, this, stackSize, kind);
}

void* ThreadRunner::ThreadEntry(void* runner) {
    Thread::Enter();
    static_cast<ThreadRunner*>(runner)->ThreadMain();
    return nullptr;
}

}  // namespace VELT
