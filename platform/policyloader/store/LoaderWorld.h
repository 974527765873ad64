// LoaderWorld: the fixture of the loader's tests: three files below a folder of the test's own, a loader over them, a
// clock that only the test moves, and what was said to syslog.
#pragma once

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include <KORtk/Text.h>
#include <eFabric/Report.h>
#include <policyloader/store/PolicyLoader.h>

#include "testing/TempRoot.h"

namespace policyloader {

// What goes to syslog meanwhile.
class Reports {
public:
    Reports() {
        said().clear();
        eFabric::ExchangeReportSink([](std::string const& line) {
            std::lock_guard const lock(mutex());
            said().push_back(line);
        });
    }
    ~Reports() { eFabric::ExchangeReportSink(nullptr); }
    Reports(Reports const&) = delete;
    Reports& operator=(Reports const&) = delete;

    int count() const {
        std::lock_guard const lock(mutex());
        return static_cast<int>(said().size());
    }
    std::string last() const {
        std::lock_guard const lock(mutex());
        return said().empty() ? "" : said().back();
    }

private:
    static std::mutex& mutex() {
        static std::mutex one;
        return one;
    }
    static std::vector<std::string>& said() {
        static std::vector<std::string> lines;
        return lines;
    }
};

class LoaderWorld : public ::testing::Test {
protected:
    static std::string Policies(std::string const& settings) {
        return "<rules><policy name='base'><settings section='s'>" + settings + "</settings></policy></rules>";
    }
    static std::string SetA(std::string const& value) { return Policies("<set name='a'>" + value + "</set>"); }

    bool Initialise() {
        auto const wide = [&](char const* name) { return KORtk::Utf8Array(root / name).wstr(); };
        eFabric::eConfig config{L"", wide("product.xml"), wide("rules.xml"), wide("dat"), L"", wide("scandir")};
        KORPropertyBag bag;
        bag.NewProperty("EngineXMLFilePath")->SetNarrow((root / "proxy.xml").c_str());
        return loader.initialise(config, 0, &bag);
    }

    // Replaces a file in one step, so that even its size and second may be the old ones.
    void Replace(char const* name, std::string const& content) {
        root.Write("new", content);
        std::filesystem::rename(root / "new", root / name);
    }

    eFabric::IProductValue const* Value(char const* policy, char const* name, std::time_t when) const {
        int status = 7;
        auto const* const value =
            loader.productValue(loader.internAttribute(policy), InternedString(), loader.internSettings("s"),
                                loader.internAttribute(name), when, &status);
        EXPECT_EQ(status, value ? 0 : 1);
        return value;
    }
    std::string Text(char const* policy, char const* name, std::time_t when) const {
        char const* text = nullptr;
        auto const* const value = Value(policy, name, when);
        return value && value->getString(&text) ? text : "(null)";
    }
    std::string A(std::time_t when = 0) const { return Text("base", "a", when); }
    std::time_t Later() { return now += PolicyLoader::LookInterval; }

    velt_testing::TempRoot root;
    Reports reports;
    PolicyLoader loader;
    std::time_t now = std::time(nullptr) + 100;  // ahead of the look that initialise made
};

}  // namespace policyloader
