// Names in a directory of files that wait: whatever they are, a walk takes those that end as its files do and hands on
// the rest of the name, a pass finds each by that, and nothing else is opened.
#include <testing/FakePolicyStore.h>
#include <testing/TempRoot.h>
#include <unistd.h>
#include <velt/Config.h>
#include <velt/retry/RetryerServiceLoop.h>
#include <velt/runtime/Proxy.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/Input.h"

using velt_fuzz::Require;

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxNames = 8, kMaxName = 255;

std::vector<std::string> s_taken;

VELT::Connection* Note(int fd, bool, std::string& directory, std::string& id, bool) {
    char path[64], target[4096];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    ssize_t const length = ::readlink(path, target, sizeof target);
    Require(length > 0 && std::string(target, static_cast<std::size_t>(length)) == directory + id + ".rmd",
            "the file of the id is the one that is open");
    s_taken.push_back(id);
    return nullptr;
}

class World {
public:
    World() {
        fs::create_directories(m_directory);
        m_store.Put("base", "smtpretryer", "ScanDir", velt_testing::FakeValue::Text(m_directory));
        VELT::Config::initialise(&m_store);
        VELT::RetryerServiceLoop::setRetryerFactory(Note);
        auto* const proxy = new VELT::Proxy;  // for as long as the process
        fs::path const folder = fs::current_path();
        m_loop = new VELT::RetryerServiceLoop(&proxy->m_config, "smtp");
        fs::current_path(folder);  // which a loop leaves: the fuzzer finds its corpus from there
    }

    enum Kind { File, Folder, Link };
    bool Make(std::string const& name, Kind kind) const {
        bool const can = !name.empty() && name.size() <= kMaxName && name != "." && name != ".." &&
                         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
        if (!can || fs::exists(fs::symlink_status(m_directory + name))) return false;
        if (kind == File) std::ofstream(m_directory + name) << "x";
        if (kind == Folder) fs::create_directory(m_directory + name);
        if (kind == Link) fs::create_symlink("nowhere", m_directory + name);
        return true;
    }
    void Empty() const {
        for (auto const& entry : fs::directory_iterator(m_directory)) fs::remove(entry.path());
    }
    std::vector<std::string> Walk() const {
        s_taken.clear();
        m_loop->ScanDir(true, 0);
        std::sort(s_taken.begin(), s_taken.end());
        return s_taken;
    }
    std::vector<std::string> Pass(std::vector<std::string> ids) const {
        std::vector<char*> arguments;
        for (std::string& id : ids) arguments.push_back(id.data());
        s_taken.clear();
        m_loop->ProcessIds(static_cast<int>(arguments.size()), arguments.data());
        return s_taken;
    }

private:
    velt_testing::TempRoot m_root;
    velt_testing::FakePolicyStore m_store;
    std::string const m_directory = m_root / "waiting/";
    VELT::RetryerServiceLoop* m_loop;
};

bool IsTaken(std::string const& name) { return name.size() > 4 && name[0] != '.' && name.ends_with(".rmd"); }

}  // namespace

// A name each line, behind a byte that says what bears it.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static World const world;
    velt_fuzz::Input input(data, size);
    std::vector<std::string> expected;
    for (std::size_t made = 0; made < kMaxNames && !input.empty(); ++made) {
        auto const kind = static_cast<World::Kind>(input.Byte() % 3);
        std::string const name = input.Line();
        if (!world.Make(name, kind) || kind != World::File || !IsTaken(name)) continue;
        expected.push_back(name.substr(0, name.size() - 4));
    }
    std::sort(expected.begin(), expected.end());
    Require(world.Walk() == expected, "a walk takes the files that end so, and no others");
    Require(world.Pass(expected) == expected, "a pass finds them by their ids, in the order of these");
    world.Empty();
    return 0;
}
