// Scans that ask a virus scan server, against scripted servers: every fault of theirs is an error and never clean.
#include <atomic>
#include <thread>

#include <poll.h>
#include <sys/wait.h>

#include <policyloader/engines/FakeClamd.h>
#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

using Question = FakeClamd::Question;
using Reply = FakeClamd::Reply;

constexpr char kAway[] = "120", kSlow[] = "121", kAnswer[] = "122", kRefused[] = "123";
std::string const kEnd(1, '\0');

class ServerScans : public ScanFixture {
protected:
    ServerScans() { Ask({"one"}); }
    std::string Path(std::string const& name) const { return m_folder + "/" + name; }
    void Ask(std::vector<std::string> const& names, std::string const& more = "", std::string const& action = "DENY") {
        std::string items;
        for (auto const& name : names) items += "<item>" + Path(name) + "</item>";
        Policy("<settings section='KORAVScanner'><set name='Action'>" + action + "</set><list name='ClamdSockets'>" +
               items + "</list>" + more + "</settings>");
    }
    std::string ErrorOf(Verdict const& verdict) const {
        if (!verdict.hasError()) return "";
        return verdict.text("KORAVScanner", "E_SR_SCANERROR_ID");
    }
    void ExpectError(Verdict const& verdict, std::string const& number, std::string const& text = "") {
        EXPECT_FALSE(verdict.isClean());
        EXPECT_EQ(ErrorOf(verdict), number);
        EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_SCANERROR_LVL"), "2");
        EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_TYPE"), "1");
        EXPECT_NE(verdict.text("KORAVScanner", "E_SR_DESCRIPTION_P").find(text), std::string::npos)
            << verdict.text("KORAVScanner", "E_SR_DESCRIPTION_P");
    }
    // A small content, one of some pieces, and one that no socket takes at once.
    static std::vector<std::string> Sizes() { return {"x", std::string(200000, 'x'), std::string(1000000, 'x')}; }
};

std::string const kClean = "Subject: a\r\n\r\nfine";
std::string const kBad = "Subject: a\r\n\r\nplanted";

}  // namespace

TEST_F(ServerScans, TakeTheServersWord) {
    FakeClamd const clamd(Path("one"), FakeClamd::Judge);
    EXPECT_TRUE(Scan(kClean).isClean());
    auto const verdict = Scan(kBad);
    EXPECT_EQ(verdict.found("KORAVScanner"), "Test.Planted");
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_FALSE(verdict.hasError());
    EXPECT_EQ(verdict.resultOf("KORAVScanner")->InfectedItems(), 1);
}

TEST_F(ServerScans, ShowTheServerTheObjectByteForByte) {
    FakeClamd const clamd(Path("one"), FakeClamd::Judge);
    std::string all;
    for (int i = 0; i < 200000; ++i) all += static_cast<char>(i * 7 + i / 256);
    for (std::size_t const size : {std::size_t(1), std::size_t(65535), std::size_t(65536), std::size_t(65537),
                                   std::size_t(131072), all.size()}) {
        EXPECT_TRUE(Scan(all.substr(0, size)).isClean()) << size;
        EXPECT_EQ(clamd.questions().back().content, all.substr(0, size)) << size;
    }
}

TEST_F(ServerScans, AskOverOneConnectionAgainAndAgain) {
    FakeClamd const clamd(Path("one"), FakeClamd::Judge);
    for (unsigned long i = 1; i <= 20; ++i) {
        EXPECT_EQ(Scan(i % 2 ? kClean : kBad).isClean(), i % 2 == 1);
        EXPECT_EQ(clamd.questions().back().request, i);
    }
    EXPECT_EQ(clamd.connections(), 1);
}

TEST_F(ServerScans, OfNothingAskNobody) {
    EXPECT_TRUE(Scan("").isClean());
    Policy("");
    EXPECT_TRUE(Scan(kClean).isClean());
}

TEST_F(ServerScans, FindWhatTheServerDoesNotKnow) {
    FakeClamd const clamd(Path("one"), FakeClamd::Judge);
    EXPECT_EQ(Scan(TestVirus() + " planted").found("KORAVScanner"), "EICAR-Test-File Test.Planted");
}

TEST_F(ServerScans, WithoutAServerAreErrors) {
    ExpectError(Scan(kClean), kAway, Path("one"));
    { std::ofstream(Path("one")) << "no socket"; }
    ExpectError(Scan(kClean), kAway, Path("one"));
    ::unlink(Path("one").c_str());
}

TEST_F(ServerScans, WithoutAServerStillTellWhatWasFound) {
    auto const verdict = Scan(TestVirus());
    EXPECT_EQ(verdict.found("KORAVScanner"), "EICAR-Test-File");
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_TRUE(verdict.hasError());
}

TEST_F(ServerScans, WithAnAddressThatCannotBeReadAreErrors) {
    Policy("<settings section='KORAVScanner'><set name='ClamdSockets'>scanner</set></settings>");
    ExpectError(Scan(kClean), "105", "scanner");
}

TEST_F(ServerScans, ThatAreCutAreErrors) {
    for (std::string const text : {"", "1", "1: stream: OK", "1: stream: OK\n"}) {
        FakeClamd const clamd(Path("one"), [&](Question const&) { return Reply{text, true}; });
        for (auto const& content : Sizes()) ExpectError(Scan(content), kAway, "left before");
    }
}

TEST_F(ServerScans, ThatAreCutInTheMiddleOfTheContentAreErrors) {
    for (std::size_t const enough : {0u, 1u, 70000u, 500000u}) {
        FakeClamd const clamd(
            Path("one"),
            [](Question const&) {
                return Reply{"", true};
            },
            enough);
        ExpectError(Scan(Sizes().back()), kAway);
    }
}

TEST_F(ServerScans, OfWhichTheServerKnowsTheAnswerTooEarlyAreErrors) {
    for (std::size_t const enough : {0u, 70000u, 500000u}) {
        FakeClamd const clamd(
            Path("one"),
            [](Question const& question) {
                return Reply{question.id() + "stream: OK" + kEnd, false, true};
            },
            enough);
        ExpectError(Scan(Sizes().back()), kAnswer, "not seen to its end");
    }
}

TEST_F(ServerScans, AnsweredWithRubbishAreErrors) {
    std::string const answers[] = {kEnd,
                                   "OK" + kEnd,
                                   "stream: OK" + kEnd,
                                   "2: stream: OK" + kEnd,
                                   "1: stream: OK" + kEnd + kEnd,
                                   "1: stream: OK" + kEnd + "2: stream: OK" + kEnd,
                                   "1: stream: OK\r\n" + kEnd,
                                   "1: stream:  FOUND" + kEnd,
                                   "HTTP/1.1 200 OK\r\n\r\n" + kEnd,
                                   std::string(100000, 'x'),
                                   std::string(3, '\xff') + kEnd};
    for (auto const& text : answers) {
        FakeClamd const clamd(Path("one"), [&](Question const&) { return Reply{text, false, true}; });
        for (auto const& content : Sizes()) ExpectError(Scan(content), kAnswer, "answered");
    }
}

TEST_F(ServerScans, ThatTheServerRefusesAreErrors) {
    for (std::string const text : {"1: INSTREAM size limit exceeded. ERROR", "1: stream: no memory ERROR",
                                   "UNKNOWN COMMAND", "COMMAND READ TIMED OUT ERROR"}) {
        FakeClamd const clamd(Path("one"), [&](Question const&) { return Reply{text + kEnd, true}; });
        for (auto const& content : Sizes()) ExpectError(Scan(content), kRefused, text);
    }
}

TEST_F(ServerScans, BeyondTheServersStreamLengthAreErrors) {
    FakeClamd const clamd(
        Path("one"),
        [](Question const& question) {
            return Reply{question.id() + "INSTREAM size limit exceeded. ERROR" + kEnd, true};
        },
        100000);
    ExpectError(Scan(Sizes().back()), kRefused, "INSTREAM size limit exceeded");
    EXPECT_EQ(clamd.questions().size(), 1u);
}

TEST_F(ServerScans, OfASlowServerAreErrorsAfterTheTimeLimit) {
    Ask({"one"}, "<set name='ClamdTimeout'>0.2</set>");
    FakeClamd const clamd(Path("one"), [](Question const&) { return Reply{"1: stream: O", false, true}; });
    for (auto const& content : Sizes()) ExpectError(Scan(content), kSlow, Path("one"));
}

TEST_F(ServerScans, OfAServerThatReadsNothingAreErrorsAfterTheTimeLimit) {
    Ask({"one"}, "<set name='ClamdTimeout'>0.2</set>");
    ScriptedServer const deaf(Path("one"), [](int fd, int) {
        pollfd entry = {fd, 0, 0};
        ::poll(&entry, 1, -1);
    });
    ExpectError(Scan(Sizes().back()), kSlow, Path("one"));
}

TEST_F(ServerScans, HaveOneTimeLimitForAllTheServersTogether) {
    Ask({"one", "two"}, "<set name='ClamdTimeout'>0.3</set>");
    auto const silent = [](Question const&) { return Reply{"", false, true}; };
    FakeClamd const one(Path("one"), silent), two(Path("two"), silent);
    ExpectError(Scan(kClean), kSlow);
    EXPECT_LE(one.connections() + two.connections(), 1);
}

TEST_F(ServerScans, GoToTheNextServerWhenOneIsAway) {
    Ask({"away", "one"});
    FakeClamd const clamd(Path("one"), FakeClamd::Judge);
    for (auto const& content : Sizes()) EXPECT_TRUE(Scan(content).isClean());
    for (int i = 0; i < 5; ++i) EXPECT_EQ(Scan(kBad).found("KORAVScanner"), "Test.Planted");
}

TEST_F(ServerScans, OfSmallContentGoToTheNextServerWhenOneFails) {
    Ask({"one", "two"});
    FakeClamd const bad(Path("one"), [](Question const&) { return Reply{"rubbish" + kEnd, true}; });
    FakeClamd const good(Path("two"), FakeClamd::Judge);
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(Scan(kClean).isClean());
        EXPECT_EQ(Scan(kBad).action(), "DENY");
    }
}

TEST_F(ServerScans, TakeARefusalFromTheFirstThatGivesIt) {
    Ask({"one", "two"});
    auto const refuse = [](Question const& question) { return Reply{question.id() + "stream: broken ERROR" + kEnd}; };
    FakeClamd const one(Path("one"), refuse), two(Path("two"), refuse);
    ExpectError(Scan(kClean), kRefused);
    EXPECT_EQ(one.questions().size() + two.questions().size(), 1u);
}

TEST_F(ServerScans, AreSpreadOverTheServers) {
    Ask({"one", "two", "three"});
    FakeClamd const one(Path("one"), FakeClamd::Judge), two(Path("two"), FakeClamd::Judge),
        three(Path("three"), FakeClamd::Judge);
    for (int i = 0; i < 30; ++i) EXPECT_TRUE(Scan(kClean).isClean());
    EXPECT_EQ(one.questions().size(), 10u);
    EXPECT_EQ(two.questions().size(), 10u);
    EXPECT_EQ(three.questions().size(), 10u);
}

TEST_F(ServerScans, SurviveAServerThatEndsASessionBetweenTwoScans) {
    FakeClamd const clamd(Path("one"), [](Question const& question) {
        auto reply = FakeClamd::Judge(question);
        reply.leave = true;
        return reply;
    });
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(Scan(kClean).isClean()) << i;
}

TEST_F(ServerScans, FindTheServerAgainAfterItsRestart) {
    for (int i = 0; i < 3; ++i) {
        ExpectError(Scan(kClean), kAway);
        FakeClamd const clamd(Path("one"), FakeClamd::Judge);
        EXPECT_TRUE(Scan(kClean).isClean());
        EXPECT_EQ(Scan(kBad).action(), "DENY");
    }
}

TEST_F(ServerScans, BeyondTheSizeOfThePolicyAreTheSignaturesAffair) {
    Ask({"one"}, "<set name='ClamdMaxSize'>100000</set>");
    FakeClamd const clamd(Path("one"), FakeClamd::Judge);
    EXPECT_EQ(Scan("planted" + std::string(99993, 'x')).action(), "DENY");
    EXPECT_TRUE(Scan("planted" + std::string(99994, 'x')).isClean());
    EXPECT_EQ(Scan(TestVirus() + std::string(5000000, 'x')).found("KORAVScanner"), "EICAR-Test-File");
    EXPECT_TRUE(Scan(kClean).isClean());
}

TEST_F(ServerScans, AskAboutEachPartWhereInfectedOnesAreReplaced) {
    Ask({"one"}, "", "REPLACE");
    FakeClamd const clamd(Path("one"), [](Question const& question) {
        auto seen = question;
        // As the real one, which undoes the encoding of an attachment.
        if (seen.content.find(Base64("planted").substr(0, 10)) != std::string::npos) seen.content = "planted";
        return FakeClamd::Judge(seen);
    });
    auto const verdict = Scan(WithAttachment("bad.bin", "planted", "Hello."));
    EXPECT_EQ(verdict.where("KORAVScanner"), "bad.bin");
    EXPECT_EQ(verdict.found("KORAVScanner"), "Test.Planted");
    EXPECT_EQ(verdict.action(), "REPLACE");
    EXPECT_TRUE(verdict.handler->IsModified());
    EXPECT_EQ(verdict.out->bytes.find(Base64("planted").substr(0, 10)), std::string::npos);
    EXPECT_NE(verdict.out->bytes.find("Hello."), std::string::npos);
    EXPECT_LE(clamd.connections(), 2);
}

TEST_F(ServerScans, OfAForkedProcessHaveConnectionsOfTheirOwn) {
    FakeClamd const clamd(Path("one"), FakeClamd::Judge);
    EXPECT_TRUE(Scan(kClean).isClean());
    pid_t const child = ::fork();
    if (child == 0) ::_exit(Scan(kBad).action() == "DENY" ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(Scan(kClean).isClean());
    EXPECT_EQ(clamd.connections(), 2);
    EXPECT_EQ(clamd.questions().back().connection, 0);
}

TEST_F(ServerScans, OnManyThreadsNeverGetEachOthersAnswers) {
    FakeClamd const clamd(Path("one"), FakeClamd::Judge);
    ASSERT_TRUE(Start());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            auto const thread = NewThread();
            for (int i = 0; i < 50; ++i) {
                bool const bad = (i * 7 + t) % 3 == 0;
                MemoryTransport in(bad ? kBad : kClean), out;
                ObjectHandle const object(thread->NewScanObject(in, InternedString()));
                auto const* const handler = object->Scan(&out, nullptr);
                long pos = 0;
                wrong += handler->IsTriggered() != bad || (!bad && handler->FindFirstScanResult(pos));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}
