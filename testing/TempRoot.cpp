#include "testing/TempRoot.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace velt_testing {

TempRoot::TempRoot() : m_path("/tmp/velt-test-XXXXXX") {
    if (!::mkdtemp(m_path.data())) throw std::runtime_error("mkdtemp " + m_path);
    ::setenv("VELT_ROOT", m_path.c_str(), 1);
}

TempRoot::~TempRoot() {
    ::unsetenv("VELT_ROOT");
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempRoot::operator/(std::string_view below) const {
    std::string full = m_path;
    if (below.empty() || below.front() != '/') full += '/';
    return full.append(below);
}

void TempRoot::Write(std::string_view below, std::string_view content) const {
    std::filesystem::path const file = *this / below;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    if (!out.write(content.data(), static_cast<std::streamsize>(content.size())))
        throw std::runtime_error("write " + file.string());
}

std::string TempRoot::Read(std::string_view below) const {
    std::ifstream in(*this / below, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool TempRoot::Exists(std::string_view below) const { return std::filesystem::exists(*this / below); }

}  // namespace velt_testing
