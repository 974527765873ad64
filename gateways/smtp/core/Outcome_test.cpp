#include "core/Outcome.h"

#include <gtest/gtest.h>

namespace smtp {
namespace {

using Kind = RecipientFate::Kind;

RecipientFate Delivered() { return {Kind::Delivered, {250, "2.0.0", "ok"}, "mx"}; }
RecipientFate Refused() { return {Kind::Refused, {554, "5.7.1", "refused: EICAR"}, ""}; }
RecipientFate Permanent() { return {Kind::Failed, {550, "5.1.1", "unknown"}, "mx"}; }
RecipientFate Temporary() { return {Kind::Failed, {450, "", "greylisted"}, "mx"}; }

struct Row {
    char const* name;
    std::vector<RecipientFate> fates;
    int code;
    char const* status;
    bool notify;
};

TEST(Outcome, IsOneAnswerForTheWholeMessage) {
    Row const rows[] = {
        {"all delivered", {Delivered(), Delivered()}, 250, "2.0.0", false},
        {"all refused", {Refused(), Refused()}, 554, "5.7.1", false},
        {"all unknown", {Permanent(), Permanent()}, 554, "5.1.1", false},
        {"refused and unknown", {Permanent(), Refused()}, 554, "5.7.1", false},
        {"refused and deferred", {Refused(), Temporary()}, 451, "4.0.0", false},
        {"unknown and deferred", {Permanent(), Temporary()}, 451, "4.0.0", false},
        {"delivered and refused", {Delivered(), Refused()}, 250, "2.0.0", true},
        {"delivered and unknown", {Permanent(), Delivered()}, 250, "2.0.0", true},
        {"delivered and deferred", {Delivered(), Temporary()}, 250, "2.0.0", true},
        {"nobody", {}, 451, "4.3.0", false},
    };
    for (Row const& row : rows) {
        Decision const decision = Decide(row.fates, "id");
        EXPECT_EQ(decision.reply.code, row.code) << row.name;
        EXPECT_EQ(decision.reply.status, row.status) << row.name;
        EXPECT_EQ(decision.notify, row.notify) << row.name;
    }
}

TEST(Outcome, WithoutNotificationKeepsMailThatWouldBeLostWithTheClient) {
    Reply const accepted{250, "2.0.0", "ok"};
    EXPECT_EQ(WithoutNotification({Delivered(), Refused()}, accepted).code, 250);
    EXPECT_EQ(WithoutNotification({Delivered(), Permanent()}, accepted).code, 451);
    EXPECT_EQ(WithoutNotification({Delivered(), Refused(), Temporary()}, accepted).code, 451);
}

}  // namespace
}  // namespace smtp
