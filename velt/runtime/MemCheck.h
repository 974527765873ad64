// MemCheck: asks this process to stop in order when its data has grown above a limit, so that the monitor replaces it.
// The whole recycle is one flag, ServiceLoop::shutdown; the accept loop does the rest.
// Owner: nobody, all of it is static. Threads: initialise and setMemSize at start-up, before the clock thread runs;
// Check on the clock thread alone, once a second, so a process without that thread is never checked. Failure: a size
// that cannot be told is 0, which is above no limit: such a process is never recycled, in silence.
#pragma once

#include <velt/Export.h>

namespace QXStats {
class QXCounter;
}

namespace VELT {

class Config;

class VELT_API MemCheck {
public:
    static void initialise(Config* config);
    static void setMemSize(unsigned kB);  // another limit, and nothing else
    static void Check();                  // one second has passed

    static unsigned s_Size;   // the limit in kB; 0: no check
    static unsigned s_Rate;   // seconds between measurements; 0: no check
    static unsigned s_Timer;  // seconds left to the next one
    static QXStats::QXCounter* s_Counter;

private:
    static void Recycle(unsigned long size);
};

// This process's private writable memory in kB, thread stacks and all: "VmData:" of proc_pid_status(5). 0: not known.
VELT_API unsigned long GetProcSize();

// The same of a status file of this name.
unsigned long DataSizeIn(char const* statusFile);

}  // namespace VELT
