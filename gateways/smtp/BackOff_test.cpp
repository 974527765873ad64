#include "BackOff.h"

#include <gtest/gtest.h>

#include <future>

namespace smtp {
namespace {

using namespace std::chrono_literals;

using Answer = BackOff::Answer;
using Outcome = BackOff::Outcome;

constexpr PauseLimits kLimits{100, 1000};

TEST(Pause, DoublesUpToItsLimitAndIsNeverNone) {
    EXPECT_EQ(PauseAfter(1, kLimits, 0.5), 100);
    EXPECT_EQ(PauseAfter(2, kLimits, 0.5), 200);
    EXPECT_EQ(PauseAfter(4, kLimits, 0.5), 800);
    EXPECT_EQ(PauseAfter(5, kLimits, 0.5), 1000);
    EXPECT_EQ(PauseAfter(4000000000u, kLimits, 0.5), 1000);
    EXPECT_EQ(PauseAfter(1, {1, 1}, 0), 1);
}

TEST(Pause, IsUpToAQuarterShorterOrLonger) {
    EXPECT_EQ(PauseAfter(1, kLimits, 0), 75);
    EXPECT_EQ(PauseAfter(1, kLimits, 1), 125);
}

TEST(BackOff, LetsOneFindOutWhetherANewDestinationAnswers) {
    BackOff backOff(3);
    EXPECT_EQ(backOff.Ask("a", 1000), Answer::Go);
    EXPECT_EQ(backOff.Ask("a", 1000), Answer::Busy);
    EXPECT_EQ(backOff.Ask("b", 1000), Answer::Go) << "another destination";
    backOff.Tell("a", Outcome::Unknown, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("a", 1000), Answer::Go) << "the first one did not try";
}

TEST(BackOff, LetsSomeAtOnceGoToADestinationThatAnswers) {
    BackOff backOff(3);
    EXPECT_EQ(backOff.Ask("a", 1000), Answer::Go);
    backOff.Tell("a", Outcome::Reached, 1000, kLimits);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(backOff.Ask("a", 1000), Answer::Go);
    EXPECT_EQ(backOff.Ask("a", 1000), Answer::Busy);
    backOff.Tell("a", Outcome::Reached, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("a", 1000), Answer::Go);
}

TEST(BackOff, LetsOneTryAfterThePauseAndTheOthersWaitForIt) {
    BackOff backOff(3);
    backOff.Tell("a", Outcome::Failed, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("a", 1001), Answer::Rest);
    EXPECT_EQ(backOff.Ask("b", 1001), Answer::Go) << "another destination";
    EXPECT_EQ(backOff.Ask("a", 1126), Answer::Go);
    EXPECT_EQ(backOff.Ask("a", 1126), Answer::Busy);
    backOff.Tell("a", Outcome::Reached, 1127, kLimits);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(backOff.Ask("a", 1127), Answer::Go);
}

TEST(BackOff, LeavesRoomForDestinationsThatAnswerBesideAllOthersTogether) {
    BackOff backOff(2);
    EXPECT_EQ(backOff.Ask("answers", 1000), Answer::Go);
    backOff.Tell("answers", Outcome::Reached, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("a", 1000), Answer::Go);
    EXPECT_EQ(backOff.Ask("b", 1000), Answer::Go);
    EXPECT_EQ(backOff.Ask("c", 1000), Answer::Busy);
    EXPECT_EQ(backOff.Ask("answers", 1000), Answer::Go);
    backOff.Tell("a", Outcome::Failed, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("c", 1000), Answer::Go);
    backOff.Tell("b", Outcome::Reached, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("d", 1000), Answer::Go);
    EXPECT_EQ(backOff.Ask("e", 1000), Answer::Busy);
}

TEST(BackOff, LeavesRoomForDestinationsOfWhichNothingIsKnownBesideThoseThatFailed) {
    BackOff backOff(4);
    for (char const* const one : {"a", "b", "c"}) backOff.Tell(one, Outcome::Failed, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("a", 1126), Answer::Go);
    EXPECT_EQ(backOff.Ask("b", 1126), Answer::Go);
    EXPECT_EQ(backOff.Ask("c", 1126), Answer::Busy);
    EXPECT_EQ(backOff.Ask("new", 1126), Answer::Go);
    EXPECT_EQ(backOff.Ask("newer", 1126), Answer::Go);
    EXPECT_EQ(backOff.Ask("newest", 1126), Answer::Busy) << "of all together there are no more than before";
    backOff.Tell("new", Outcome::Failed, 1127, kLimits);
    EXPECT_EQ(backOff.Ask("c", 1127), Answer::Busy) << "their number is as it was";
    EXPECT_EQ(backOff.Ask("newest", 1127), Answer::Go);
    backOff.Tell("a", Outcome::Failed, 1128, kLimits);
    EXPECT_EQ(backOff.Ask("c", 1128), Answer::Go);
}

TEST(BackOff, LetsTheOnlyThreadTryThoseThatFailed) {
    BackOff backOff(1);
    backOff.Tell("a", Outcome::Failed, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("a", 1126), Answer::Go);
    EXPECT_EQ(backOff.Ask("new", 1126), Answer::Busy);
}

TEST(BackOff, GivesADestinationMoreTimeWithEachFailureAndAnyOnceItWasReached) {
    BackOff backOff(3);
    EXPECT_EQ(backOff.LimitOf("a", 10s), 10s);
    backOff.Tell("a", Outcome::Failed, 1000, kLimits);
    EXPECT_EQ(backOff.LimitOf("a", 10s), 20s);
    backOff.Tell("a", Outcome::Failed, 2000, kLimits);
    EXPECT_EQ(backOff.LimitOf("a", 10s), 40s);
    for (int i = 3; i < 100; ++i) backOff.Tell("a", Outcome::Failed, 10000 * i, kLimits);
    EXPECT_EQ(backOff.LimitOf("a", 10s), 1h);
    backOff.Tell("a", Outcome::Reached, 1000001, kLimits);
    EXPECT_EQ(backOff.LimitOf("a", 10s), 0s);
    backOff.Tell("a", Outcome::Failed, 1000002, kLimits);
    EXPECT_EQ(backOff.LimitOf("a", 10s), 20s);
}

TEST(BackOff, GoesWhereSomebodyInsistsAndCountsThat) {
    BackOff backOff(3);
    backOff.Tell("a", Outcome::Failed, 1000, kLimits);
    backOff.Insist("a");
    EXPECT_EQ(backOff.Ask("a", 1126), Answer::Busy);
}

TEST(BackOff, EndsAPauseForWhoeverAsksUnlessItWasTriedSince) {
    BackOff backOff(3);
    backOff.EndPause("a", 1000);
    backOff.Tell("a", Outcome::Failed, 1000, kLimits);
    backOff.EndPause("a", 999);
    EXPECT_EQ(backOff.Ask("a", 1010), Answer::Rest);
    backOff.EndPause("a", 1005);
    EXPECT_EQ(backOff.Ask("a", 1010), Answer::Go);
    EXPECT_EQ(backOff.Ask("a", 1010), Answer::Busy);
    backOff.Tell("a", Outcome::Failed, 1011, kLimits);
    backOff.EndPause("a", 1005);
    EXPECT_EQ(backOff.Ask("a", 1012), Answer::Rest) << "those that were asked for with it";
}

// --- waiting ---

bool Never() { return false; }

TEST(BackOffPatience, EndsWithWhatBecomesOfTheOther) {
    for (Outcome const outcome : {Outcome::Reached, Outcome::Failed, Outcome::Unknown}) {
        BackOff backOff(3);
        ASSERT_EQ(backOff.AskPatiently("a", 60s, Never), Answer::Go);
        auto waiting = std::async(std::launch::async, [&] { return backOff.AskPatiently("a", 60s, Never); });
        backOff.Tell("a", outcome, BackOff::Now(), kLimits);
        EXPECT_EQ(waiting.get(), outcome == Outcome::Failed ? Answer::Rest : Answer::Go);
    }
}

TEST(BackOffPatience, OfTheFirstIsThatOfAllUntilSomethingIsHeard) {
    BackOff backOff(3);
    ASSERT_EQ(backOff.Ask("a", 1000), Answer::Go);
    EXPECT_EQ(backOff.AskPatiently("a", 1ms, Never), Answer::Busy);
    EXPECT_EQ(backOff.AskPatiently("a", 600s, Never), Answer::Busy) << "at once";
    backOff.Tell("a", Outcome::Unknown, 1000, kLimits);
    EXPECT_EQ(backOff.AskPatiently("a", 600s, Never), Answer::Go);
}

TEST(BackOffPatience, WithAllUnknownOnesTogetherIsThatOfAllToo) {
    BackOff backOff(1);
    ASSERT_EQ(backOff.Ask("a", 1000), Answer::Go);
    EXPECT_EQ(backOff.AskPatiently("b", 1ms, Never), Answer::Busy);
    EXPECT_EQ(backOff.AskPatiently("c", 600s, Never), Answer::Busy) << "at once";
    EXPECT_EQ(backOff.AskPatiently("a", 600s, Never), Answer::Busy) << "at once";
    backOff.Tell("a", Outcome::Reached, 1000, kLimits);
    EXPECT_EQ(backOff.AskPatiently("c", 600s, Never), Answer::Go);
}

TEST(BackOffPatience, ThatIsOverForLongIsSilence) {
    BackOff backOff(1);
    ASSERT_EQ(backOff.Ask("a", 1000), Answer::Go);
    EXPECT_EQ(backOff.AskPatiently("a", 1ms, Never), Answer::Busy);
    EXPECT_EQ(backOff.AskPatiently("a", 1ms, Never), Answer::Silent) << "a step of the wait is long enough";
    EXPECT_EQ(backOff.AskPatiently("a", 600s, Never), Answer::Busy) << "of longer patience";
}

// Where each may take so long, nobody can say how long one waits for all of them.
TEST(BackOffPatience, ThatIsOverForLongWithAllUnknownOnesTogetherIsSilenceToo) {
    BackOff backOff(2);
    for (char const* const one : {"a", "b"}) ASSERT_EQ(backOff.Ask(one, 1000), Answer::Go);
    EXPECT_EQ(backOff.AskPatiently("c", 1ms, Never), Answer::Busy);
    EXPECT_EQ(backOff.AskPatiently("d", 600s, Never), Answer::Busy) << "not for long yet";
    EXPECT_EQ(backOff.AskPatiently("d", 1ms, Never), Answer::Silent) << "a step of the wait is long enough";
    backOff.Tell("a", Outcome::Failed, 1000, kLimits);
    EXPECT_EQ(backOff.AskPatiently("d", 600s, Never), Answer::Go);
}

TEST(BackOffPatience, IsLessWithADestinationThatFailed) {
    BackOff backOff(3);
    backOff.Tell("a", Outcome::Failed, BackOff::Now() - 1000, kLimits);
    backOff.Insist("a");
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(backOff.AskPatiently("a", 10ms, Never), Answer::Busy);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 2ms);
    EXPECT_EQ(backOff.AskPatiently("b", 10ms, Never), Answer::Go);
}

TEST(BackOffPatience, EndsWithTheProcess) {
    BackOff backOff(3);
    ASSERT_EQ(backOff.Ask("a", 1000), Answer::Go);
    EXPECT_EQ(backOff.AskPatiently("a", 600s, [] { return true; }), Answer::Busy);
}

TEST(BackOffPatience, BeginsNothingOnceTheProcessStops) {
    BackOff backOff(3);
    EXPECT_EQ(backOff.AskPatiently("a", 600s, [] { return true; }), Answer::Busy);
    EXPECT_EQ(backOff.AskPatiently("a", 600s, Never), Answer::Go) << "nobody tries it";
}

TEST(BackOffPatience, WithThoseThatFailedIsNotThatOfOthers) {
    BackOff backOff(2);
    for (char const* const one : {"a", "b"}) backOff.Tell(one, Outcome::Failed, BackOff::Now() - 1000, kLimits);
    ASSERT_EQ(backOff.AskPatiently("a", 1ms, Never), Answer::Go);
    EXPECT_EQ(backOff.AskPatiently("b", 1ms, Never), Answer::Busy);
    EXPECT_EQ(backOff.AskPatiently("b", 600s, Never), Answer::Busy) << "at once";
    EXPECT_EQ(backOff.AskPatiently("new", 600s, Never), Answer::Go);
}

TEST(BackOff, DoublesThePauseWithEachFailureAndNotWithEachOfManyAtOnce) {
    BackOff backOff(3);
    for (int i = 0; i < 6; ++i) backOff.Tell("a", Outcome::Failed, 1000, kLimits);
    EXPECT_EQ(backOff.Ask("a", 1125), Answer::Go) << "one pause";
    backOff.Tell("a", Outcome::Failed, 1125, kLimits);
    EXPECT_EQ(backOff.Ask("a", 1125 + 149), Answer::Rest);
    EXPECT_EQ(backOff.Ask("a", 1125 + 250), Answer::Go);
}

TEST(BackOff, KnowsABoundedNumberOfDestinations) {
    BackOff backOff(3);
    for (int i = 0; i <= 10000; ++i) backOff.Tell(std::to_string(i), Outcome::Failed, 1000 + i, {1000000, 1000000});
    EXPECT_EQ(backOff.Ask("0", 11001), Answer::Go) << "the oldest is forgotten";
    EXPECT_EQ(backOff.Ask("2", 11001), Answer::Rest);
}

}  // namespace
}  // namespace smtp
