#include <dlfcn.h>
#include <sys/resource.h>

#include <algorithm>

#include <velt/runtime/Thread.h>

namespace VELT {

void InitThreadHandle(unsigned long& handle) { handle = static_cast<unsigned long>(-1); }

bool ThreadHandlesEqual(unsigned long first, unsigned long second) { return ::pthread_equal(first, second) != 0; }

unsigned long GetCurrentThreadId() { return ::pthread_self(); }

int PthreadMutexInit(pthread_mutex_t* mutex) { return ::pthread_mutex_init(mutex, nullptr); }

int PthreadMutexTrylock(pthread_mutex_t* mutex) { return ::pthread_mutex_trylock(mutex); }

int PthreadCondInit(pthread_cond_t* condition) { return ::pthread_cond_init(condition, nullptr); }

int PthreadKeyCreate(pthread_key_t* key, void (*destroy)(void*)) { return ::pthread_key_create(key, destroy); }

int PthreadKeyDelete(pthread_key_t key) { return ::pthread_key_delete(key); }

void* PthreadGetSpecific(pthread_key_t key) { return ::pthread_getspecific(key); }

// The size is passed on in bytes as it is. One that the system rejects leaves the attribute at the system's default.
int PthreadAttrInit(pthread_attr_t* attributes, int stackSize) {
    int const error = ::pthread_attr_init(attributes);
    if (error != 0 || stackSize == 0) return error;
    return ::pthread_attr_setstacksize(attributes, static_cast<std::size_t>(stackSize));
}

int PthreadCreate(pthread_t* handle, pthread_attr_t const* attributes, void* (*entry)(void*), void* argument) {
    return ::pthread_create(handle, attributes, entry, argument);
}

int PthreadJoin(pthread_t handle, void** result) { return ::pthread_join(handle, result); }

int SetFdLimit(int limit) {
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) != 0) return -1;
    rlim_t const wanted = limit < 0 ? 0 : static_cast<rlim_t>(limit);
    if (wanted <= files.rlim_cur && wanted <= files.rlim_max) return 0;
    files.rlim_cur = std::max(files.rlim_cur, wanted);
    files.rlim_max = std::max(files.rlim_max, wanted);
    return ::setrlimit(RLIMIT_NOFILE, &files);
}

int GetMaxFilesPerProcess() { return 1024; }

// A system that has no such file, or has it built in, needs nothing.
void InitialiseOS() { ::dlopen("libnss_dns.so", RTLD_LAZY); }

}  // namespace VELT
