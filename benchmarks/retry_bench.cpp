// What a walk through the deferred directory costs while no file is due, by the file; beside the least that a walk can
// do which takes each file: reading the directory, opening, looking at the times, locking, closing. FULL in the
// environment: 100,000 files.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <velt/Config.h>
#include <velt/retry/RetryerServiceLoop.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/EFabricScanAgent.h>

namespace {

namespace fs = std::filesystem;

constexpr long kInterval = 3600;  // seconds that a file rests: longer than any run
constexpr long kBehind = 86400;   // of the modification time: not new

// A directory of mail that rests, and a retryer for it.
class World {
public:
    static World& get() {
        static World world;
        return world;
    }
    ~World() { fs::remove_all(m_folder); }

    std::string const& directory() const { return m_directory; }
    std::size_t files() const { return m_files; }
    VELT::RetryerServiceLoop& loop() { return *m_loop; }
    bool good() const { return m_loop != nullptr; }

private:
    World() : m_files(std::getenv("FULL") ? 100000 : 20000) {
        m_folder = fs::temp_directory_path() / "velt-retry-bench-XXXXXX";
        if (!::mkdtemp(m_folder.data())) return;
        m_directory = m_folder + "/waiting/";
        fs::create_directories(m_directory);
        for (std::size_t i = 0; i < m_files; ++i) Rest(m_directory + "a3f0c2d4-" + std::to_string(i) + ".rmd");
        fs::create_directories(m_folder + "/config/qxxmlconf");
        std::ofstream(m_folder + "/config/qxxmlconf/rules.xml")
            << "<rules version=\"1\"><policy name=\"base\"><settings section=\"smtpretryer\"><set name=\"ScanDir\">"
            << m_directory << "</set></settings></policy></rules>";
        ::setenv("VELT_ROOT", m_folder.c_str(), 1);
        m_proxy = std::make_unique<VELT::Proxy>();
        if (!VELT::EFabricScanAgent::load("", "bench", false, nullptr)) return;
        VELT::Config::initialise(VELT::EFabricScanAgent::getPolicyLoader());
        m_loop = std::make_unique<VELT::RetryerServiceLoop>(&m_proxy->m_config, "smtp");
    }

    static void Rest(std::string const& path) {
        std::ofstream(path) << "a mail that waits\n";
        timespec const times[2] = {{0, UTIME_OMIT}, {::time(nullptr) - kBehind, 0}};
        ::utimensat(AT_FDCWD, path.c_str(), times, 0);
    }

    std::size_t m_files;
    std::string m_folder;
    std::string m_directory;
    std::unique_ptr<VELT::Proxy> m_proxy;
    std::unique_ptr<VELT::RetryerServiceLoop> m_loop;
};

void Walk_noneDue(benchmark::State& state) {
    World& world = World::get();
    if (!world.good()) return state.SkipWithError("no retryer");
    for (auto _ : state) world.loop().ScanDir(false, kInterval);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(world.files()));
}
BENCHMARK(Walk_noneDue);

std::size_t TakeEach(std::string const& directory) {
    std::size_t taken = 0;
    std::unique_ptr<DIR, int (*)(DIR*)> const listing(::opendir(directory.c_str()), ::closedir);
    while (dirent const* const entry = ::readdir(listing.get())) {
        if (entry->d_name[0] == '.') continue;
        int const fd = ::open((directory + entry->d_name).c_str(), O_RDWR | O_CLOEXEC);
        struct stat facts {};
        taken += ::fstat(fd, &facts) == 0 && ::lockf(fd, F_TLOCK, 0) == 0;
        ::close(fd);
    }
    return taken;
}

void Walk_bare(benchmark::State& state) {
    World const& world = World::get();
    for (auto _ : state) {
        if (TakeEach(world.directory()) != world.files()) return state.SkipWithError("a file could not be taken");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(world.files()));
}
BENCHMARK(Walk_bare);

}  // namespace
