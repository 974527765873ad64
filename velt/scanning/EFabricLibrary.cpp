#include <velt/scanning/EFabricLibrary.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <libgen.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

namespace VELT {

namespace {

constexpr int kPriority = LOG_DAEMON | LOG_INFO;
constexpr int kDescriptorsSearched = 32;

void* eFabricPolicyLibrary = nullptr;
eFabric::IPolicyLoader* (*pFNCreatePolicyLoader)(int, int) = nullptr;
void (*pFNShutDownPolicyLoader)() = nullptr;

int s_scandotdat = -1;
std::array<char, 256> s_strLinkname;

template <class Function>
bool Find(Function& function, char const* name) {
    function = reinterpret_cast<Function>(::dlsym(eFabricPolicyLibrary, name));
    if (function) return true;
    ::syslog(kPriority, "%s:%d Cannot find function %s", __func__, __LINE__, name);
    return false;
}

// Each character's low byte, as the record's readers expect it.
std::string Narrow(wchar_t const* text) {
    std::string narrow;
    for (; text && *text; ++text) narrow += static_cast<char>(*text & 0xff);
    return narrow;
}

bool IsScanDat(int descriptor) {
    std::array<char, 64> link;
    std::snprintf(link.data(), link.size(), "/proc/%d/fd/%d", static_cast<int>(::getpid()), descriptor);
    ssize_t const length = ::readlink(link.data(), s_strLinkname.data(), s_strLinkname.size() - 1);
    if (length < 0) return false;
    s_strLinkname[static_cast<std::size_t>(length)] = '\0';
    std::string path = s_strLinkname.data();
    return std::strcmp(::basename(path.data()), "scan.dat") == 0;
}

}  // namespace

bool load_efabric_library() {
    if (eFabricPolicyLibrary) return true;
    eFabricPolicyLibrary = ::dlopen("libpolicyloader.so", RTLD_NOW | RTLD_GLOBAL);
    if (!eFabricPolicyLibrary) {
        ::syslog(kPriority, "%s:%d Cannot load the policy loader", __func__, __LINE__);
        return false;
    }
    return Find(pFNCreatePolicyLoader, "CreatePolicyLoader") && Find(pFNShutDownPolicyLoader, "ShutdownPolicyLoader");
}

eFabric::IPolicyLoader* EFabricLibrary::CreateLoader() {
    return pFNCreatePolicyLoader ? pFNCreatePolicyLoader(3, 1) : nullptr;
}

void EFabricLibrary::Shutdown() {
    if (pFNShutDownPolicyLoader) pFNShutDownPolicyLoader();
}

void write_efabric_error(char const* function, int line, char const* text, IKORError const& error) {
    static constexpr std::array<char const*, 5> kLevels = {"INFO", "WARN", "ERROR", "FATAL", "?"};
    if (!error.IsSet()) {
        ::syslog(kPriority, "%s:%d %s Error structure not set", function, line, text);
        return;
    }
    int const level = error.GetLevel();
    char const* const levelName = kLevels[level >= 0 && level <= 3 ? static_cast<std::size_t>(level) : 4];
    ::syslog(kPriority, "%s:%d %s %s:%lu %s %s", function, line, text, levelName, error.GetCode(),
             Narrow(error.GetText()).c_str(), Narrow(error.GetDetail()).c_str());
    long position = 0;
    for (char const* name = error.FirstAttribute(position); name; name = error.NextAttribute(position)) {
        char const* const value = error.GetAttribute(name);
        ::syslog(kPriority, "%s:%d Attr %s:%s", function, line, name, value ? value : "");
    }
}

void debug_wide_log(char const* function, int line, wchar_t const* text) {
    ::syslog(kPriority, "%s:%d ERROR %s", function, line, Narrow(text).c_str());
}

void pre_fork_init_filedescriptors() {
    if (s_scandotdat >= 0) return;
    for (int descriptor = 0; descriptor < kDescriptorsSearched; ++descriptor) {
        if (!IsScanDat(descriptor)) continue;
        s_scandotdat = descriptor;
        return;
    }
}

void post_fork_init_filedescriptors() {
    if (s_scandotdat < 0) return;
    int const fresh = ::open(s_strLinkname.data(), O_RDONLY | O_CLOEXEC);
    if (fresh < 0) return;
    ::dup2(fresh, s_scandotdat);
    if (fresh != s_scandotdat) ::close(fresh);
}

}  // namespace VELT
