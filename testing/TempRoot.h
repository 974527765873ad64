// TempRoot: a folder of a test's own that stands for the system's root (VELT_ROOT) while the object lives.
// Owner: the fixture. Thread: the test's main thread, before others start, as it writes the environment.
// Failure: the constructor throws std::runtime_error. The folder and all in it are removed by the destructor.
#pragma once

#include <string>
#include <string_view>

namespace velt_testing {

class TempRoot {
public:
    TempRoot();
    ~TempRoot();
    TempRoot(TempRoot const&) = delete;
    TempRoot& operator=(TempRoot const&) = delete;

    std::string const& path() const { return m_path; }
    std::string operator/(std::string_view below) const;  // "/config/x" or "config/x" below the root

    void Write(std::string_view below, std::string_view content) const;  // makes the folders on the way
    std::string Read(std::string_view below) const;                      // empty when there is no such file
    bool Exists(std::string_view below) const;

private:
    std::string m_path;
};

}  // namespace velt_testing
