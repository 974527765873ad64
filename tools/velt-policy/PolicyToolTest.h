// PolicyToolTest: the fixture of the tool's tests: it writes a configuration and runs the tool itself on it.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "testing/TempRoot.h"

class PolicyToolTest : public ::testing::Test {
protected:
    // A configuration in which nothing is wrong.
    PolicyToolTest() {
        Write("rules.xml", "<rules/>");
        Write("outside.txt", "NETWORK *\n");
    }
    void Write(std::string const& name, std::string const& text) { m_root.Write("/config/qxxmlconf/" + name, text); }
    void Rules(std::string const& policies) { Write("rules.xml", "<rules>\n" + policies + "\n</rules>\n"); }
    void Identities(std::string const& identities) {
        Write("identities.xml", "<identities>\n" + identities + "\n</identities>\n");
    }

    int Run(std::string const& arguments, std::string const& input = "") {
        m_root.Write("/input", input);
        std::string const streams = " <" + (m_root / "/input") + " 2>" + (m_root / "/error");
        FILE* const pipe = ::popen((std::string(VELT_POLICY) + ' ' + arguments + streams).c_str(), "r");
        m_out.clear();
        char block[4096];
        while (std::size_t const n = std::fread(block, 1, sizeof block, pipe)) m_out.append(block, n);
        int const status = ::pclose(pipe);
        m_error = m_root.Read("/error");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // What check prints, without the folder in front of the files; "(clean)" with the status of that.
    std::string Check(std::string const& options = "") {
        int const status = Run("check " + m_root.path() + ' ' + options);
        EXPECT_EQ(status, m_out.empty() ? 0 : 1) << m_error;
        Cut(m_out);
        return m_out.empty() ? "(clean)\n" : m_out;
    }
    std::string Explain(std::string const& options) {
        EXPECT_EQ(Run("explain " + m_root.path() + ' ' + options), 0) << m_error;
        Cut(m_out);
        return m_out;
    }
    // The answer to a query in JSON, up to the time that it took.
    std::string Answer(std::string const& query) {
        EXPECT_EQ(Run("explain --batch " + m_root.path(), query + '\n'), 0) << m_error << m_out;
        Cut(m_out);
        return m_out.substr(0, m_out.find(",\"microseconds\""));
    }
    void Cut(std::string& text) const {
        std::string const folder = m_root / "/config/qxxmlconf/";
        for (std::size_t at; (at = text.find(folder)) != std::string::npos;) text.erase(at, folder.size());
    }

    velt_testing::TempRoot m_root;
    std::string m_out;
    std::string m_error;
};
