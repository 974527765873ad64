// Runs a fuzz target once over each file that is named, and over each file of a folder that is named.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/Input.h"

namespace {

void Run(std::filesystem::path const& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<char> const bytes{std::istreambuf_iterator<char>(in), {}};
    std::printf("%s\n", file.filename().c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
}

int RunAll(std::filesystem::path const& place) {
    if (!std::filesystem::is_directory(place)) {
        Run(place);
        return 1;
    }
    int count = 0;
    for (auto const& entry : std::filesystem::directory_iterator(place)) {
        Run(entry.path());
        ++count;
    }
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::exists(argv[i])) continue;
        count += RunAll(argv[i]);
    }
    if (count == 0) std::fprintf(stderr, "no input to replay\n");
    return count == 0;
}
