#include <velt/scanning/DebugScanAgent.h>

#include <system/UUID.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include <velt/Config.h>
#include <velt/results/SerialDecoding.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/scanning/ScanContext.h>
#include <velt/streams/ScannerStream.h>

namespace VELT {

namespace {

constexpr unsigned kAllOfIt = 0x7FFFFFFF;  // bytes

// The piece that ends a line which came in several is not an empty line, even if nothing is left for it.
void SkipHead(BufferedStream& stream) {
    bool within = false;
    for (;;) {
        char* line = nullptr;
        bool io_done = false;
        LINE_STATE_T state = LINE_CLOSED;
        int const length = stream.getline(line, true, io_done, state, true);
        if (length < 1 && !(within && state == LINE_COMPLETE)) return;
        within = state == LINE_OVERFLOW;
    }
}

bool CopyRest(BufferedStream& from, ScannerStream& to, unsigned limit) {
    while (limit > 0) {
        char* data = nullptr;
        bool io_done = false;
        int const got = from.readdata(data, limit, true, io_done);
        if (got <= 0) return got == 0;
        if (to.write(data, static_cast<unsigned>(got)) != got) return false;
        limit -= static_cast<unsigned>(got);
    }
    return true;
}

unsigned LimitOf(char const* text) {
    return static_cast<unsigned>(std::clamp(std::strtol(text, nullptr, 10), 0l, static_cast<long>(kAllOfIt)));
}

}  // namespace

// --- the keywords ---

class DebugScanAgent::DBSDecode {
public:
    DBSDecode(char const* keyword, DBSCmd command) { s_AsciiDecode[keyword] = command; }
};

std::map<std::string, DebugScanAgent::DBSCmd, std::less<>> DebugScanAgent::s_AsciiDecode;

DebugScanAgent::DBSDecode const DebugScanAgent::s_keywords[] = {
    {"exception", &DebugScanAgent::except}, {"alloc", &DebugScanAgent::alloc},
    {"segv", &DebugScanAgent::segv},        {"byebye", &DebugScanAgent::byebye},
    {"scantime", &DebugScanAgent::delay},   {"modified", &DebugScanAgent::modified},
};

std::unique_ptr<VELTCFG::debug_scan_agent::ExceptionTypes::value_type> DebugScanAgent::s_scan_exceptions;

// --- the agent ---

ScanAgent* DebugScanAgent::get() { return new DebugScanAgent; }

void DebugScanAgent::initialise(Config* config) {
    auto const types = ReadSetting<VELTCFG::debug_scan_agent::ExceptionTypes>(*config);
    s_scan_exceptions.reset();
    if (!types.empty()) s_scan_exceptions = std::make_unique<std::decay_t<decltype(types)>>(types);
}

void DebugScanAgent::start() {}

void DebugScanAgent::set_time(long) {}

int DebugScanAgent::setup_scan(ScanContext* scanContext, unsigned int& scans, long) {
    if (!scanContext || !scanContext->data) return -1;
    m_result = 0;
    m_modified = false;
    count = 1;
    scanContext->data->seek(0, 0);
    SkipHead(*scanContext->data);
    run_commands(*scanContext->data);
    context = scanContext;
    scans = count;
    return m_result;
}

// A line without a space ends the commands and is gone; so does an empty one.
void DebugScanAgent::run_commands(BufferedStream& stream) {
    for (;;) {
        char* line = nullptr;
        bool io_done = false;
        LINE_STATE_T state = LINE_CLOSED;
        int const length = stream.getline(line, true, io_done, state, true);
        if (length < 1 || state == LINE_OVERFLOW) return;
        if (line[0] == '#') continue;
        std::string text(line);
        if (text.find(' ') == std::string::npos) return;
        run_command(stream, std::move(text));
    }
}

// The line is a copy: a stream in memory gives out its own bytes, and the content stays as it was sent.
void DebugScanAgent::run_command(BufferedStream& stream, std::string line) {
    auto const space = line.find(' ');
    auto const found = s_AsciiDecode.find(line.substr(0, space));
    if (found == s_AsciiDecode.end()) return;
    char* const rest = line.data() + space;
    (this->*found->second)(&stream, rest + (results::SkipBlanks(rest) - rest));
}

bool DebugScanAgent::is_streaming_media() { return false; }

bool DebugScanAgent::is_av_scan_enabled(ScanContext*, long) { return true; }

int DebugScanAgent::scan(unsigned int index, ScanOutput*& output, bool fallback) {
    if (fallback) {
        delete output;
        output = nullptr;
    }
    if (index >= count || !context || !context->data) return -1;
    auto made = std::make_unique<ScanOutput>();
    std::unique_ptr<SerializedEFabricResult> verdict(SerializedEFabricResult::deserialize(context->data));
    if ((m_modified || index > 1) && !create_output_data(context->data, made->output)) return -1;
    made->result = verdict.release();
    output = made.release();
    return 0;
}

void DebugScanAgent::set_protocol(void*) {}

bool DebugScanAgent::create_output_data(BufferedStream* stream, ScannerStream*& out) {
    unsigned limit = kAllOfIt;
    if (count > 1) {
        char* line = nullptr;
        bool io_done = false;
        LINE_STATE_T state = LINE_CLOSED;
        if (stream->getline(line, true, io_done, state, true) > 0) limit = LimitOf(line);
    }
    auto made = std::make_unique<ScannerStream>(UUID::get(), false);
    if (!CopyRest(*stream, *made, limit) || made->seek(0, 0) != 0) return false;
    out = made.release();
    return true;
}

// --- the commands ---

void DebugScanAgent::result(BufferedStream*, char* value) {
    m_result = static_cast<int>(std::strtol(value, nullptr, 10));
}

void DebugScanAgent::except(BufferedStream*, char*) {}

void DebugScanAgent::alloc(BufferedStream*, char* value) {
    long const bytes = std::strtol(value, nullptr, 10);
    if (bytes == 0) return;
    void* volatile memory = std::malloc(static_cast<std::size_t>(bytes));  // volatile: not to be optimised away
    std::free(memory);
}

void DebugScanAgent::segv(BufferedStream*, char*) {
    int volatile* volatile nowhere = nullptr;
    *nowhere = 1;
}

void DebugScanAgent::byebye(BufferedStream*, char*) {
    bool volatile forEver = true;
    while (forEver) {
    }
}

void DebugScanAgent::delay(BufferedStream*, char* value) {
    long const microseconds = std::strtol(value, nullptr, 10);
    if (microseconds <= 0) return;
    ::usleep(
        static_cast<useconds_t>(std::min(microseconds, static_cast<long>(std::numeric_limits<useconds_t>::max()))));
}

void DebugScanAgent::modified(BufferedStream*, char* value) {
    std::string const text = value;
    m_modified = text == "1" || text == "on" || text == "true";
}

}  // namespace VELT
