// Options: the command line of the load tool. Failure: a line on standard error and exit code 2.
#pragma once

#include <string>

#include "Exchange.h"

namespace velt_load {

struct Options {
    Target target;
    double rate = 0;  // new connections a second; 0: as many as the clients make
    unsigned clients = 64;
    double seconds = 0;  // 0: no such end
    unsigned sessions = 0;
    unsigned timeoutMs = 20000;
    unsigned connections = 0;
    double ramp = 2000;  // new connections a second
    unsigned intervalMs = 1000;
    bool abandon = false;
    std::string failureLog;
    std::string address = "127.0.0.1";
    unsigned short port = 0;
    std::string file;
    std::string socket;
};

Options ReadOptions(int argc, char** argv);  // those behind the sub-command
[[noreturn]] void Usage();

int RunConnect(Options const& options);
int RunIdle(Options const& options);
int RunSlow(Options const& options);
int RunBulk(Options const& options);
int RunPing(Options const& options);
int RunMail(Options const& options);
int RunScan(Options const& options);
int RunServe(Options const& options);
int RunSink(Options const& options);
int RunRelayLoop(Options const& options);
int RunRelaySplice(Options const& options);

}  // namespace velt_load
