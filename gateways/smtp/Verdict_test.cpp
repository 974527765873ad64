#include "Verdict.h"

#include <gtest/gtest.h>

namespace smtp {
namespace {

using Fate = Verdict::Fate;

TEST(ActionOfPolicy, PassesHoldsRefusesOrDefersWhatItDoesNotKnow) {
    struct Row {
        char const* action;
        Fate fate;
    };
    for (Row const& row : {Row{"LOG", Fate::Pass}, Row{"CLEAN", Fate::Pass}, Row{"REPLACE", Fate::Pass},
                           Row{"EFABRIC:ALLOWTHRU", Fate::Pass}, Row{"DENY", Fate::Refuse}, Row{"deny", Fate::Defer},
                           Row{"QUARANTINE", Fate::Hold}, Row{"QUARANTINE:DENY", Fate::Refuse},
                           Row{"quarantine", Fate::Defer}, Row{"QUARANTINE:LOG", Fate::Defer}, Row{"", Fate::Defer}}) {
        EXPECT_EQ(FateOfAction(row.action), row.fate) << row.action;
    }
}

}  // namespace
}  // namespace smtp
