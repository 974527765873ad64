#include <velt/runtime/MemCheck.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include <QXStats/QXCounter.h>
#include <velt/Config.h>
#include <velt/config_details/settings/process.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/runtime/ServiceLoop.h>

namespace VELT {

namespace {

constexpr std::string_view kDataSize = "VmData:";
constexpr int kLineBytes = 512;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

unsigned MemCheck::s_Size = 0;
unsigned MemCheck::s_Rate = 0;
unsigned MemCheck::s_Timer = 0;
QXStats::QXCounter* MemCheck::s_Counter = nullptr;

void MemCheck::initialise(Config* config) {
    if (!s_Counter) s_Counter = new QXStats::QXCounter("recycle.mem");
    s_Size = ReadSetting<VELTCFG::process::MemoryLimit>(*config);
    s_Rate = ReadSetting<VELTCFG::process::MemoryLimitRate>(*config);
    s_Timer = s_Rate;
}

void MemCheck::setMemSize(unsigned kB) { s_Size = kB; }

// A process that is stopping already is neither measured nor counted again.
void MemCheck::Check() {
    if (s_Size == 0 || s_Rate == 0) return;
    if (--s_Timer != 0) return;
    s_Timer = s_Rate;
    if (ServiceLoop::shutdown) return;
    unsigned long const size = GetProcSize();
    if (size > s_Size) Recycle(size);
}

void MemCheck::Recycle(unsigned long size) {
    (*s_Counter)++;
    LogEvent(events::RECYCLE_MEMORY,
             [size] { return QXPROP_VELT_MEMORY_SIZE(size) | QXPROP_VELT_MEMORY_SIZE_LIMIT(s_Size); });
    ServiceLoop::shutdown = true;
}

unsigned long GetProcSize() { return DataSizeIn("/proc/self/status"); }

unsigned long DataSizeIn(char const* statusFile) {
    std::unique_ptr<std::FILE, CloseFile> const file(std::fopen(statusFile, "re"));
    if (!file) return 0;
    char line[kLineBytes];
    while (std::fgets(line, sizeof line, file.get())) {
        if (!std::string_view(line).starts_with(kDataSize)) continue;
        return static_cast<unsigned long>(std::strtol(line + kDataSize.size(), nullptr, 10));
    }
    return 0;
}

}  // namespace VELT
