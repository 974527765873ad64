#include <velt/scanning/SpinBundle.h>

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/SignalText.h>
#include <velt/scanning/ThreadTraces.h>
#include <velt/streams/ScannerStream.h>

#include <atomic>
#include <filesystem>
#include <system_error>

namespace VELT {

namespace {

constexpr int kMostBundles = 16;  // of one process

char s_directory[PATH_MAX] = "";  // empty: nothing is kept
std::atomic<int> s_written{0};

// Appends to a name that has room for it.
char* Append(char* to, long number) {
    char digits[24];
    int count = 0;
    do digits[count++] = static_cast<char>('0' + number % 10);
    while ((number /= 10) != 0);
    while (count > 0) *to++ = digits[--count];
    return to;
}

// A directory of this name that is a link, or somebody else's, is not written into.
int OpenOwn(int parent, char const* name) {
    int const fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat facts;
    if (fd >= 0 && ::fstat(fd, &facts) == 0 && (facts.st_uid == ::geteuid() || facts.st_uid == 0)) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

int MakeBundle(int number) {
    int const parent = OpenOwn(AT_FDCWD, s_directory);
    if (parent < 0) return -1;
    char name[80];
    char* end = Append(name, ::getpid());
    *end++ = '-';
    end = Append(end, ::time(nullptr));
    *end++ = '-';
    *Append(end, number) = '\0';
    int const bundle = ::mkdirat(parent, name, 0700) == 0 ? OpenOwn(parent, name) : -1;
    ::close(parent);
    return bundle;
}

char const* TextOf(InternedString text) { return text ? text.c_str() : ""; }

void WriteReport(int bundle, WatchedItem const& item, char const* session, std::time_t seconds) {
    SignalText out(bundle, "report");
    out << "process: " << static_cast<long>(::getpid()) << "\nthread: " << static_cast<long>(item.thread)
        << "\nseconds: " << static_cast<long>(seconds) << "\nsession: " << session
        << "\npolicy: " << TextOf(item.policy) << "\nidentity: " << TextOf(item.identity)
        << "\nitem: " << (item.data ? item.data->get_spool_file().c_str() : "") << "\n";
    if (item.data) out << "size: " << static_cast<long>(item.data->size()) << "\n";
}

}  // namespace

void SpinBundle::start() {
    std::string const& scanDir = Proxy::s_pProxyInstance->m_scanDir;
    std::error_code ignored;
    std::filesystem::create_directories(scanDir, ignored);
    std::string const directory = scanDir + "/spins";
    ::mkdir(directory.c_str(), 0700);
    if (directory.size() < sizeof s_directory) directory.copy(s_directory, directory.size());
    ThreadTraces::Prepare();
}

void SpinBundle::write(WatchedItem const& item, char const* session, std::time_t seconds) {
    if (s_directory[0] == '\0') return;
    int const number = s_written.fetch_add(1);
    if (number >= kMostBundles) return;
    int const bundle = MakeBundle(number);
    if (bundle < 0) return;
    WriteReport(bundle, item, session, seconds);
    ThreadTraces::Write(bundle, item);
    ::close(bundle);
}

}  // namespace VELT
