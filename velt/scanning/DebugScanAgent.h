// DebugScanAgent: takes its verdict, and its misbehaviour on request, from the content itself, so that a crafted
// message exercises all of the road of a scan. For tests only: who may send it content may end the process. The
// content: a head, an empty line, commands ("KEYWORD VALUE" each), a line without a space, a verdict in its text form,
// and what is to replace the content if "modified" was said. Commands run in setup_scan, outside of any watch. Owner:
// as every ScanAgent. Thread: one. Units: "scantime" is in microseconds, "alloc" in bytes. Failure: -1. The outputs are
// plain ones: whoever takes one deletes its `result` and the stream in `output` as well.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <velt/Export.h>
#include <velt/config_details/settings/debug_scan_agent.h>
#include <velt/scanning/ScanAgent.h>

namespace VELT {

class BufferedStream;
class ScannerStream;

class VELT_API DebugScanAgent : public ScanAgent {
public:
    using DBSCmd = void (DebugScanAgent::*)(BufferedStream*, char*);
    class DBSDecode;  // enters one keyword

    static ScanAgent* get();
    static void initialise(Config* config);
    static void start();
    static void set_time(long now);

    int setup_scan(ScanContext* scanContext, unsigned int& scans, long time) override;
    bool is_streaming_media() override;
    bool is_av_scan_enabled(ScanContext* scanContext, long time) override;
    int scan(unsigned int index, ScanOutput*& output, bool fallback) override;  // a broken verdict is a null result
    void set_protocol(void* protocol) override;

    static std::unique_ptr<VELTCFG::debug_scan_agent::ExceptionTypes::value_type> s_scan_exceptions;  // null: not set

protected:
    // The rest of the stream as a new stream, which the caller owns. With more than one scan its first line says how
    // many bytes. False, and no stream, when it cannot be written.
    bool create_output_data(BufferedStream* stream, ScannerStream*& out);

    void result(BufferedStream* stream, char* value);  // no keyword leads here
    void except(BufferedStream* stream, char* value);
    void alloc(BufferedStream* stream, char* value);
    void segv(BufferedStream* stream, char* value);
    void byebye(BufferedStream* stream, char* value);
    void delay(BufferedStream* stream, char* value);
    void modified(BufferedStream* stream, char* value);

    int m_result = 0;  // what setup_scan gives
    bool m_modified = false;
    unsigned count = 1;  // how many scans may run
    ScanContext* context = nullptr;

private:
    void run_commands(BufferedStream& stream);
    void run_command(BufferedStream& stream, std::string line);

    static std::map<std::string, DBSCmd, std::less<>> s_AsciiDecode;
    static DBSDecode const s_keywords[];
};

}  // namespace VELT
