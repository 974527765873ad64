// velt_load: bounded load on a TCP service that says back a line, or on a relay with a sink behind it, messages, and
// the bare programs that they are compared with. Each load prints one JSON object at its end.
#include <string_view>

#include "Loop.h"
#include "Options.h"

int main(int argc, char** argv) {
    using namespace velt_load;
    if (argc < 2) Usage();
    std::string_view const command = argv[1];
    Options const options = ReadOptions(argc - 1, argv + 1);
    RaiseDescriptorLimit();
    if (command == "connect") return RunConnect(options);
    if (command == "idle") return RunIdle(options);
    if (command == "slow") return RunSlow(options);
    if (command == "bulk") return RunBulk(options);
    if (command == "ping") return RunPing(options);
    if (command == "mail") return RunMail(options);
    if (command == "scan") return RunScan(options);
    if (command == "serve") return RunServe(options);
    if (command == "sink") return RunSink(options);
    if (command == "relay-loop") return RunRelayLoop(options);
    if (command == "relay-splice") return RunRelaySplice(options);
    Usage();
}
