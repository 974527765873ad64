// Clock: the library's time in whole seconds, kept by one thread per process so that timeouts and stamps need no system
// call. Without that thread every reading asks the system.
// Owner: Scanner::start makes the one object of a process and never deletes it. Threads: readings from any thread.
// Failure: a thread that cannot be started is an FWException<fw_exception_tag::resource>.
#pragma once

#include <ctime>
#include <string>

#include <velt/Export.h>
#include <velt/runtime/Thread.h>

namespace VELT {

class VELT_API Clock : public ThreadRunner {
public:
    // With a thread the object lives as long as the process. Of several such objects the first starts the thread.
    explicit Clock(bool withThread);

    void Start();
    void ThreadMain() override;

    static std::time_t getTime();
    static std::time_t getProxyTime();  // seconds since the clock was made; always 0 where the thread runs
    static std::string getRFC822Time();
};

}  // namespace VELT
