// Thread and ThreadRunner: one thread of the system and the object that runs on it; and the thread and process calls of
// the library, one call deep each.
// Owner: whoever created the runner; it has to outlive its thread unless the thread deletes it.
// Threads: each has SIGALRM blocked, which is left to the thread that a process begins with; started once, by the
// owner; a joinable thread is joined by its owner, the destructor never joins. Units: stack sizes in bytes, given to
// the system unchanged; 0, and a size that the system rejects, mean its default. Failure: a thread that cannot be
// started is an FWException<fw_exception_tag::resource>.
#pragma once

#include <pthread.h>

#include <velt/Export.h>

namespace VELT {

class VELT_API Thread {
public:
    enum Kind { JOINABLE, DETACHED };

    Thread();
    virtual ~Thread();
    Thread(Thread const&) = delete;
    Thread& operator=(Thread const&) = delete;

    // A detached thread may already have deleted this object when the call returns.
    void StartThread(void* (*entry)(void*), void* argument, int stackSize, Kind kind = JOINABLE);
    void Join();  // joinable threads only, once

    static int ThreadSetSpecific(int key, void* value);
    static void Enter();

private:
    pthread_t m_handle;
};

class VELT_API ThreadRunner {
public:
    ThreadRunner();
    virtual ~ThreadRunner();
    ThreadRunner(ThreadRunner const&) = delete;
    ThreadRunner& operator=(ThreadRunner const&) = delete;

    virtual void ThreadMain() = 0;

    // Runs ThreadMain of this object on a new thread. A constructor calls it as its very last statement.
    void StartThread(int stackSize, Thread::Kind kind = Thread::JOINABLE);
    void Join() { m_thread.Join(); }

private:
    static void* ThreadEntry(void* runner);

    Thread m_thread;
};

// A handle that names no thread is (unsigned long)-1.
VELT_API void InitThreadHandle(unsigned long& handle);
VELT_API bool ThreadHandlesEqual(unsigned long first, unsigned long second);
VELT_API unsigned long GetCurrentThreadId();

VELT_API int PthreadMutexInit(pthread_mutex_t* mutex);
VELT_API int PthreadMutexTrylock(pthread_mutex_t* mutex);
VELT_API int PthreadCondInit(pthread_cond_t* condition);
VELT_API int PthreadKeyCreate(pthread_key_t* key, void (*destroy)(void*));
VELT_API int PthreadKeyDelete(pthread_key_t key);
VELT_API void* PthreadGetSpecific(pthread_key_t key);
VELT_API int PthreadAttrInit(pthread_attr_t* attributes, int stackSize);
VELT_API int PthreadCreate(pthread_t* handle, pthread_attr_t const* attributes, void* (*entry)(void*), void* argument);
VELT_API int PthreadJoin(pthread_t handle, void** result);

// Raises the soft and hard limit of open files to at least `limit`; 0 when that is so afterwards.
VELT_API int SetFdLimit(int limit);
VELT_API int GetMaxFilesPerProcess();

// Loads what name look-ups need while the process still may open the files.
VELT_API void InitialiseOS();

}  // namespace VELT
