#include "tools/velt-queue/CommandLine.h"

#include <gtest/gtest.h>

namespace velt_queue {
namespace {

Options Parsed(std::vector<std::string> words) {
    words.insert(words.begin(), "velt-queue");
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    return ParseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

std::string Problem(std::vector<std::string> const& words) { return Parsed(words).problem; }

TEST(QueueCommandLine, ListsWithoutAWord) {
    Options const options = Parsed({});
    EXPECT_EQ(options.problem, "");
    EXPECT_EQ(options.command, Command::List);
    EXPECT_TRUE(options.concerns(Queue::Deferred) && options.concerns(Queue::Quarantine));
}

TEST(QueueCommandLine, TakesCommandsOptionsAndIdsInAnyOrder) {
    Options const options = Parsed({"--root", "/x//", "delete", "a1", "--dry-run", "--json", "--", "-b"});
    EXPECT_EQ(options.problem, "");
    EXPECT_EQ(options.command, Command::Delete);
    EXPECT_EQ(options.configuration.root, "/x");
    EXPECT_EQ(options.ids, (std::vector<std::string>{"a1", "-b"}));
    EXPECT_TRUE(options.dryRun && options.json);
}

TEST(QueueCommandLine, TakesFilters) {
    Options const options = Parsed({"list", "--older=2h", "--to", "*@x", "--from", "", "--verdict", "*EICAR*"});
    EXPECT_EQ(options.problem, "");
    EXPECT_EQ(options.filter.olderThan, 7200);
    EXPECT_EQ(options.filter.to, "*@x");
    EXPECT_EQ(options.filter.from, "");
    EXPECT_EQ(options.filter.verdict, "*EICAR*");
}

// What a filter chooses from is what the command is for; ids and --queue say more.
TEST(QueueCommandLine, ChoosesFromTheQueueOfTheCommand) {
    for (char const* const command : {"release", "delete"}) {
        Options const options = Parsed({command, "--older", "30d"});
        EXPECT_FALSE(options.concerns(Queue::Deferred)) << command;
        EXPECT_TRUE(options.concerns(Queue::Quarantine)) << command;
    }
    EXPECT_TRUE(Parsed({"retry", "--all"}).concerns(Queue::Deferred));
    EXPECT_FALSE(Parsed({"retry", "--all"}).concerns(Queue::Quarantine));
    EXPECT_TRUE(Parsed({"delete", "a1"}).concerns(Queue::Deferred));
    EXPECT_TRUE(Parsed({"delete", "--all", "--queue", "deferred"}).concerns(Queue::Deferred));
    EXPECT_FALSE(Parsed({"delete", "--all", "--queue", "deferred"}).concerns(Queue::Quarantine));
}

TEST(QueueCommandLine, SaysWhatIsWrong) {
    EXPECT_EQ(Problem({"remove"}), "no such command: remove");
    EXPECT_EQ(Problem({"list", "--oldest"}), "no such option: --oldest");
    EXPECT_EQ(Problem({"list", "--older"}), "--older takes a value");
    EXPECT_EQ(Problem({"list", "--older", "soon"}), "--older takes another value");
    EXPECT_EQ(Problem({"list", "--queue", "log"}), "--queue takes another value");
    for (char const* const command : {"show", "release", "retry", "delete"}) {
        EXPECT_EQ(Problem({command}), "which mail? Name ids, or a filter, or --all") << command;
    }
    EXPECT_EQ(Problem({"delete", "a1", "--all"}), "either ids or a filter");
    EXPECT_EQ(Problem({"show", "--body", "a1", "a2"}), "--body shows one mail");
    EXPECT_EQ(Problem({"list", "--body", "a1"}), "--body shows one mail");
    EXPECT_EQ(Problem({"show", "--body", "--json", "a1"}), "--body is the message as it is, which --json is not");
    EXPECT_EQ(Problem({"list", "--dry-run"}), "--dry-run is for what changes something");
}

// No other directory is worked on.
TEST(QueueCommandLine, TakesNoPathForAnId) {
    for (char const* const id : {"../x", "/etc/x", "a/b", ".", "..", ".hidden", ""}) {
        EXPECT_EQ(Problem({"delete", "--", id}), std::string("no id of a mail: ") + id);
    }
}

}  // namespace
}  // namespace velt_queue
