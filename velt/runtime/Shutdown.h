// What the stop machinery keeps for a process: the loop that SIGHUP stops and the time after which an exit is cut off.
// Owner: statics. Threads: start-up; the handlers read them. Units: seconds. Failure: none is reported.
#pragma once

namespace VELT {

class ServiceLoop;

void HandleSignal(int signal, void (*handler)(int));  // system calls that wait are interrupted by it
void SetStoppedByHangup(ServiceLoop* loop);           // the newest loop takes over
void ForgetStoppedByHangup(ServiceLoop* loop);        // no effect unless this loop is the one
void SetShutDownTimeout(int seconds);                 // 0: an exit is never cut off

}  // namespace VELT
