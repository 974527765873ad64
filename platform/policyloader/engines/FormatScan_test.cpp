// Files judged by what they are and what they are called, and archives that nobody can look into.
#include <policyloader/engines/ArchiveWriter.h>
#include <policyloader/engines/FileTypes.h>
#include <policyloader/engines/ScanFixture.h>
#include <policyloader/engines/TextCase.h>

using namespace policyloader;

namespace {

class FormatScans : public ScanFixture {
protected:
    static constexpr char const* kEngine = "KORFormatScanner";
    void Rules(std::string const& rules) { Policy("<settings section=\"KORFormatScanner\">" + rules + "</settings>"); }
    void Set(std::string const& name, std::string const& value) {
        Rules("<set name=\"" + name + "\">" + value + "</set>");
    }
    std::string Action(std::string const& object) { return Scan(object).action(); }
    static std::string Program() {
        std::string out = "MZ" + std::string(58, '\0') + std::string("\x80\0\0\0", 4) + std::string(64, '\0');
        return out + std::string("PE\0\0\x64\x86\x01\0", 8) + std::string(400, '\0');
    }
    static std::string Encrypted(char const* method) {
        return MakeArchive("zip", {{"secret.exe", "content"}}, "none", method, "password");
    }
    void ExpectFinding(std::string const& object, std::string const& name, std::string const& where,
                       std::string const& action = "DENY") {
        auto const verdict = Scan(object);
        EXPECT_EQ(verdict.found(kEngine), name);
        EXPECT_EQ(verdict.where(kEngine), where);
        EXPECT_EQ(verdict.action(), action);
        EXPECT_EQ(verdict.text(kEngine, "E_SR_TYPE"), "4");
        EXPECT_NE(verdict.text(kEngine, "E_SR_DESCRIPTION_P"), "");
        EXPECT_EQ(verdict.text(kEngine, "E_SR_DOS_TYPE"), "");
        EXPECT_FALSE(verdict.hasError());
    }
};

}  // namespace

TEST_F(FormatScans, SayNothingWithoutRules) {
    EXPECT_TRUE(Scan(WithAttachment("setup.exe", Program())).isClean());
    EXPECT_TRUE(Scan(WithAttachment("a.zip", MakeArchive("zip", {{"setup.exe", Program()}}))).isClean());
}

TEST_F(FormatScans, KnowAFileByItsContentWhateverItIsCalled) {
    Rules("<rule name=\"programs\" type=\"exe,elf\" match=\"*.exe\" action=\"DENY\"/>");
    ExpectFinding(WithAttachment("holiday.jpg", Program()), "programs", "holiday.jpg");
    ExpectFinding(WithAttachment("setup.EXE", "only called so"), "programs", "setup.EXE");
    ExpectFinding(Program(), "programs", "");
    EXPECT_TRUE(Scan(WithAttachment("holiday.jpg", "\xFF\xD8\xFF\xE0 an image")).isClean());
    EXPECT_TRUE(Scan(WithAttachment("exe", "hello")).isClean());
}

TEST_F(FormatScans, KnowAFileWithinArchivesAndMails) {
    Rules("<rule name=\"programs\" type=\"exe\" match=\"*.scr\" action=\"DENY\"/>");
    for (auto const& file : Files{{"a/holiday.jpg", Program()}, {"a/x.scr", "text"}}) {
        auto const zip = MakeArchive("zip", {{"readme", "hello"}, file});
        ExpectFinding(WithAttachment("a.zip", zip), "programs", file.first);
        ExpectFinding(zip, "programs", file.first);
        ExpectFinding(MakeArchive("gnutar", {{"mail.eml", WithAttachment("a.zip", zip)}}, "gzip"), "programs",
                      file.first);
    }
}

TEST_F(FormatScans, KnowNamesInTheFormsThatReadersTakeThemIn) {
    Rules("<rule name=\"n\" match=\"*.exe, bad?.txt\" action=\"DENY\"/>");
    for (auto const* const name : {"a.exe", "A.EXE", "a.exe.", "a.exe .", "bad1.txt", "BADx.TXT"})
        EXPECT_EQ(Action(WithAttachment(name, "x")), "DENY") << name;
    for (auto const* const name : {"a.exe.txt", "bad.txt", "bad12.txt", "aexe", "notbad1.txt"})
        EXPECT_EQ(Action(WithAttachment(name, "x")), "") << name;
    EXPECT_EQ(Action(MakeArchive("zip", {{"in\\here\\bad1.txt", "x"}})), "DENY");
    Rules("<rule name=\"n\" match=\"regex:^(a|b)+\\.dat$\" action=\"DENY\"/>");
    EXPECT_EQ(Action(WithAttachment("abba.dat", "x")), "DENY");
    EXPECT_EQ(Action(WithAttachment("abba.date", "x")), "");
}

TEST_F(FormatScans, KnowEveryNameThatAReaderMayTake) {
    auto const named = [](std::string const& names) {
        return "Subject: x\r\nContent-Type: application/octet-stream\r\nContent-Disposition: attachment" + names +
               "\r\n\r\nx\r\n";
    };
    Rules(
        "<rule name='ours' match='update.exe' action='EFABRIC:ALLOWTHRU'/>"
        "<rule name='n' match='*.exe' action='DENY'/>");
    for (auto const* const names : {"; filename=a.txt; filename=a.exe", "; filename=a.exe; filename=a.txt",
                                    "; name=a.exe; filename=a.txt", "; filename=a.txt; filename*=utf-8''a%2Eexe",
                                    "; filename=update.exe; filename=a.exe", "; filename=a.exe; filename=update.exe"})
        EXPECT_EQ(Action(named(names)), "DENY") << names;
    EXPECT_EQ(Action(named("; filename=update.exe")), "EFABRIC:ALLOWTHRU");
    EXPECT_EQ(Action("Subject: x\r\n\r\nHello.\r\nbegin 644 a.exe\r\n#0V%T\r\n`\r\nend\r\n"), "DENY");
}

TEST_F(FormatScans, KnowNamesOfFilesThatNobodyCanOpen) {
    Rules("<set name=\"OnEncrypted\">LOG</set><rule name=\"programs\" match=\"*.exe\" action=\"DENY\"/>");
    auto const verdict = Scan(WithAttachment("a.zip", Encrypted("zip:encryption=aes256")));
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_EQ(verdict.found(kEngine), "encrypted archive programs");
}

TEST_F(FormatScans, KnowTheSizeOfAFile) {
    Rules("<rule name=\"large\" size=\"1000\" action=\"DENY\"/>");
    EXPECT_EQ(Action(WithAttachment("a", std::string(1000, 'x'))), "");
    EXPECT_EQ(Action(WithAttachment("a", std::string(1001, 'x'))), "DENY");
    Rules("<rule name=\"large\" type=\"text\" size=\"1000\" action=\"DENY\"/>");
    EXPECT_EQ(Action(WithAttachment("a", Program() + std::string(1000, '\0'))), "");
    EXPECT_EQ(Action(WithAttachment("a", std::string(1001, 'x'))), "DENY");
}

TEST_F(FormatScans, TakeTheFirstRuleThatFitsAFile) {
    Rules(
        "<rule name=\"ours\" match=\"update.exe\" action=\"EFABRIC:ALLOWTHRU\"/>"
        "<rule name=\"programs\" type=\"exe\" action=\"DENY\"/>");
    ExpectFinding(WithAttachment("update.exe", Program()), "ours", "update.exe", "EFABRIC:ALLOWTHRU");
    ExpectFinding(WithAttachment("other.exe", Program()), "programs", "other.exe");
    // One that is allowed does not hide one that is not, and is not told of beside it.
    auto const both = Scan(WithAttachment("a.zip", MakeArchive("zip", {{"update.exe", Program()}, {"b", Program()}})));
    EXPECT_EQ(both.found(kEngine), "programs");
    EXPECT_EQ(both.where(kEngine), "b");
    EXPECT_FALSE(both.handler->DidActionOccur("EFABRIC:ALLOWTHRU"));
}

TEST_F(FormatScans, OfWhatIsAllowedLeaveTheObjectAsItIs) {
    Rules("<rule name=\"ours\" match=\"*.exe\" action=\"EFABRIC:ALLOWTHRU\"/>");
    auto const verdict = Scan(WithAttachment("update.exe", Program()));
    EXPECT_EQ(verdict.text(kEngine, "E_SR_ACTION"), "EFABRIC:ALLOWTHRU");
    EXPECT_EQ(verdict.resultOf(kEngine)->InfectedItems(), 0);
    EXPECT_EQ(verdict.out->bytes, verdict.in->bytes);
    EXPECT_FALSE(verdict.handler->IsModified());
    // A virus in it is one all the same.
    EXPECT_EQ(Action(WithAttachment("update.exe", TestVirus())), "DENY");
}

TEST_F(FormatScans, ReplaceAFileByAText) {
    Rules(
        "<set name=\"AlertText\">%FILENAME% went (%INFECTIONS%)</set><rule name=\"p\" type=\"exe\" "
        "action=\"REPLACE\"/>");
    auto const verdict = Scan(WithAttachment("setup.exe", Program(), "keep me"));
    EXPECT_EQ(verdict.action(), "REPLACE");
    EXPECT_TRUE(verdict.handler->IsModified());
    EXPECT_NE(verdict.out->bytes.find("keep me"), std::string::npos);
    EXPECT_NE(verdict.out->bytes.find("setup.exe went (p)"), std::string::npos);
}

TEST_F(FormatScans, TakeTheSectionsActionWhereARuleHasNone) {
    Rules("<set name=\"Action\">LOG</set><rule name=\"p\" type=\"exe\"/>");
    EXPECT_EQ(Action(Program()), "LOG");
    Rules("<set name=\"Enabled\">off</set><rule name=\"p\" type=\"exe\"/>");
    EXPECT_EQ(Action(Program()), "");
}

TEST_F(FormatScans, FollowTheSelectionOfEngines) {
    Rules("<rule name=\"p\" type=\"exe\"/>");
    EXPECT_TRUE(Thread().SelectEngines(false, kEngine));
    EXPECT_EQ(Action(Program()), "");
    EXPECT_TRUE(Thread().SelectEngines(true, kEngine));
    EXPECT_EQ(Action(Program()), "DENY");
}

TEST_F(FormatScans, TellOfRulesThatCannotBeUsed) {
    for (auto const* const rule : {"<rule type=\"exe\"/>", "<rule name=\"p\"/>", "<rule name=\"p\" type=\"exf\"/>",
                                   "<rule name=\"p\" match=\"regex:(\"/>", "<rule name=\"p\" match=\"regex:\"/>",
                                   "<rule name=\"p\" size=\"big\"/>", "<rule name=\"p\" size=\"10k\"/>"}) {
        Rules(rule);
        auto const verdict = Scan("A: b\r\n\r\nhello");
        EXPECT_TRUE(verdict.hasError()) << rule;
        EXPECT_EQ(verdict.text(kEngine, "E_SR_SCANERROR_ID"), "105") << rule;
    }
}

TEST_F(FormatScans, TellOfEncryptedArchives) {
    for (auto const* const method : {"zip:encryption=aes256", "zip:encryption=traditional"}) {
        auto const zip = Encrypted(method);
        ExpectFinding(WithAttachment("a.zip", zip), "encrypted archive", "a.zip");
        ExpectFinding(zip, "encrypted archive", "");
        ExpectFinding(WithAttachment("o.tgz", MakeArchive("gnutar", {{"in.zip", zip}}, "gzip")), "encrypted archive",
                      "in.zip");
    }
    Set("OnEncrypted", "LOG");
    ExpectFinding(Encrypted("zip:encryption=aes256"), "encrypted archive", "", "LOG");
    Set("OnEncrypted", "EFABRIC:ALLOWTHRU");
    ExpectFinding(Encrypted("zip:encryption=aes256"), "encrypted archive", "", "EFABRIC:ALLOWTHRU");
}

TEST_F(FormatScans, TellOfBrokenArchivesAndLookAtWhatCanBeRead) {
    Files const files{{"eicar.com", TestVirus()}, {"b", std::string(20000, 'b')}};
    for (auto const* const kind : {"gnutar", "newc", "7zip", "zip"}) {
        SCOPED_TRACE(kind);
        bool const zip = kind == std::string("zip");
        auto const whole = MakeArchive(kind, files, "none", zip ? "zip:compression=store" : nullptr);
        auto const cut = whole.substr(0, whole.size() - 20 - (whole.size() > 15000 ? 15000 : 0));
        auto const verdict = Scan(WithAttachment("a.bin", cut));
        EXPECT_EQ(verdict.found(kEngine), "broken archive");
        EXPECT_EQ(verdict.action(), "DENY");
        // A list at its end is the only way into a 7z.
        bool const listed = kind == std::string("7zip");
        EXPECT_EQ(verdict.found("KORAVScanner"), listed ? "" : "EICAR-Test-File");
    }
    for (auto const* const filter : {"gzip", "bzip2", "xz", "zstd", "lz4", "lzip"}) {
        SCOPED_TRACE(filter);
        auto const whole = Compressed(filter, std::string(100000, 'x') + Program());
        ExpectFinding(WithAttachment("a", whole.substr(0, whole.size() / 2)), "broken archive", "a");
    }
    ExpectFinding(WithAttachment("a.gz", Compressed("gzip", Compressed("gzip", "x"))), "broken archive", "a.gz");
    ExpectFinding(WithAttachment("a.gz", "\x1F\x8B\x08\xFF and no more"), "broken archive", "a.gz");
    Set("OnBroken", "LOG");
    ExpectFinding(WithAttachment("a.zip", std::string("PK\x03\x04 and nothing", 16)), "broken archive", "a.zip", "LOG");
}

TEST_F(FormatScans, AreNotMadeInTheFallback) {
    Rules("<rule name=\"p\" type=\"exe\"/>");
    for (auto const& object : {Program(), Encrypted("zip:encryption=aes256")}) {
        auto in = std::make_unique<MemoryTransport>(object);
        in->bag.NewProperty("ES_FORCEDHOST")->SetNarrow("DefaultFormatPlugin");
        EXPECT_TRUE(Scan(std::move(in)).isClean());
    }
}

TEST_F(FormatScans, OfEqualStrengthSayMoreThanALimit) {
    Rules("<set name=\"MaxParts\">3</set><rule name=\"p\" type=\"exe\"/>");
    auto const verdict = Scan(MakeArchive("gnutar", {{"a", Program()}, {"b", "x"}, {"c", "x"}, {"d", "x"}}));
    auto const* const master = verdict.handler->GetMasterScanResult();
    ASSERT_NE(master, nullptr);
    EXPECT_EQ(KORtk::Utf8Array(master->GetInfectionList(L' ')).str(), "p");
}

TEST(FileKinds, HaveTheWordsThatRulesName) {
    FileTypes types;
    auto const fits = [&](char const* word, std::string const& content) {
        bool any = false;
        for (auto const& pattern : TypesOfWord(word))
            for (auto const& type : types.of(content)) any |= FitsBeginning(pattern, type);
        return any;
    };
    EXPECT_TRUE(fits("zip", MakeArchive("zip", {{"a", "x"}})));
    EXPECT_TRUE(fits("archive", MakeArchive("7zip", {{"a", "x"}})));
    EXPECT_TRUE(fits("7z", MakeArchive("7zip", {{"a", "x"}})));
    EXPECT_TRUE(fits("tar", MakeArchive("gnutar", {{"a", "x"}})));
    EXPECT_TRUE(fits("gzip", Compressed("gzip", "x")));
    EXPECT_TRUE(fits("pdf", "%PDF-1.4\n1 0 obj\n"));
    EXPECT_TRUE(fits("html", "<!DOCTYPE html><html><body>x</body></html>"));
    EXPECT_TRUE(fits("script", "#!/bin/sh\necho hello\n"));
    EXPECT_TRUE(fits("text", "hello, world\n"));
    EXPECT_TRUE(fits("image", std::string("\x89PNG\r\n\x1A\n\0\0\0\rIHDR\0\0\0\1\0\0\0\1\x8\2\0\0\0", 29)));
    EXPECT_TRUE(fits("image/png", std::string("\x89PNG\r\n\x1A\n\0\0\0\rIHDR\0\0\0\1\0\0\0\1\x8\2\0\0\0", 29)));
    EXPECT_FALSE(fits("exe", "hello, world\n"));
    EXPECT_TRUE(TypesOfWord("nothing").empty());
    EXPECT_FALSE(types.of("").empty());
}
