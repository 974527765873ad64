#include "core/Outcome.h"

#include <gtest/gtest.h>

namespace smtp {
namespace {

using Kind = RecipientFate::Kind;

RecipientFate Delivered() { return {Kind::Delivered, {250, "2.0.0", "ok"}, "mx"}; }
RecipientFate Refused() { return {Kind::Refused, {554, "5.7.1", "refused: EICAR"}, ""}; }
RecipientFate Permanent() { return {Kind::Failed, {550, "5.1.1", "unknown"}, "mx"}; }
RecipientFate Kept() { return {Kind::Kept, {450, "", "greylisted"}, "mx"}; }
RecipientFate Held() { return {Kind::Held, {}, ""}; }
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
        {"all kept", {Kept(), Kept()}, 250, "2.0.0", false},
        {"delivered and kept", {Delivered(), Kept()}, 250, "2.0.0", false},
        {"kept and refused", {Kept(), Refused()}, 250, "2.0.0", true},
        {"kept and deferred", {Kept(), Temporary()}, 250, "2.0.0", true},
        {"all held", {Held(), Held()}, 250, "2.0.0", false},
        {"held and delivered", {Held(), Delivered()}, 250, "2.0.0", false},
        {"held and refused", {Held(), Refused()}, 250, "2.0.0", true},
        {"held and deferred: the client keeps it for both", {Held(), Temporary()}, 451, "4.0.0", false},
        {"held, kept and deferred", {Held(), Kept(), Temporary()}, 250, "2.0.0", true},
        {"nobody", {}, 451, "4.3.0", false},
    };
    for (Row const& row : rows) {
        Decision const decision = Decide(row.fates, "id");
        EXPECT_EQ(decision.reply.code, row.code) << row.name;
        EXPECT_EQ(decision.reply.status, row.status) << row.name;
        EXPECT_EQ(decision.notify, row.notify) << row.name;
    }
}

TEST(Outcome, WithoutNotificationIsARefusalThatTheClientReportsAndDoesNotRepeat) {
    for (auto const& missed : {Refused(), Permanent(), Temporary()}) {
        Reply const reply = WithoutNotification({Delivered(), missed});
        EXPECT_EQ(reply.code, 554);
        EXPECT_EQ(reply.status, '5' + StatusOf(missed.reply).substr(1));
        EXPECT_NE(reply.text.find(missed.reply.text), std::string::npos) << reply.text;
    }
}

}  // namespace
}  // namespace smtp
