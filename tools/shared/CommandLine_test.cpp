#include "tools/shared/CommandLine.h"

#include <gtest/gtest.h>

namespace velt_tools {
namespace {

struct ToolOptions : CommonOptions {
    bool loud = false;
    std::string colour;
    std::vector<std::string> words;
};

constexpr FlagOption<ToolOptions> kToolFlags[] = {{"--loud", [](ToolOptions& o) -> bool& { return o.loud; }}};
constexpr ValueOption<ToolOptions> kToolValues[] = {
    {"--colour", [](ToolOptions& o, std::string const& v) { return (o.colour = v) != "none"; }}};

ToolOptions Read(std::vector<std::string> words) {
    words.insert(words.begin(), "tool");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    return CommandLine<ToolOptions>(static_cast<int>(argv.size()), argv.data(), kToolFlags, kToolValues)
        .read([](ToolOptions& options, std::string const& word) { options.words.push_back(word); });
}

}  // namespace

TEST(CommandLines, HaveWordsAndOptionsInAnyOrder) {
    ToolOptions const options = Read({"a", "--colour", "red", "-", "--json", "--colour=blue=green", "b", "--loud"});
    EXPECT_EQ(options.problem, "");
    EXPECT_EQ(options.words, (std::vector<std::string>{"a", "-", "b"}));
    EXPECT_EQ(options.colour, "blue=green");
    EXPECT_TRUE(options.loud && options.json && !options.help);
}

TEST(CommandLines, HaveNoOptionsBehindTwoDashes) {
    ToolOptions const options = Read({"--", "--loud", "--", "-x"});
    EXPECT_EQ(options.words, (std::vector<std::string>{"--loud", "--", "-x"}));
    EXPECT_FALSE(options.loud);
}

TEST(CommandLines, ChooseAConfiguration) {
    Configuration const chosen = Read({"--root=/tmp/x//", "--product", "mail", "--proxy", "smtp"}).configuration;
    EXPECT_EQ(chosen.root, "/tmp/x");
    EXPECT_EQ(chosen.product, "mail");
    EXPECT_EQ(chosen.proxy, "smtp");
    EXPECT_EQ(Read({"--root", "/"}).configuration.root, "") << "as without it";
}

TEST(CommandLines, HaveOneProblemTheFirst) {
    EXPECT_EQ(Read({"--quiet", "--colour"}).problem, "no such option: --quiet");
    EXPECT_EQ(Read({"--colour"}).problem, "--colour takes a value");
    EXPECT_EQ(Read({"--colour=none"}).problem, "--colour takes another value");
    EXPECT_EQ(Read({"--root="}).problem, "--root takes another value");
    EXPECT_EQ(Read({"--loud=1"}).problem, "no such option: --loud=1");
    EXPECT_EQ(Read({"--help", "--quiet"}).problem, "") << "who asks for help gets it";
}

TEST(CommandLines, MayHaveNoWordAtAll) {
    EXPECT_TRUE(CommandLine<ToolOptions>(0, nullptr, kToolFlags, kToolValues).read([](auto&, auto&) {}).goOn());
}

}  // namespace velt_tools
