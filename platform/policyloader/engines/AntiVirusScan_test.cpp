#include <thread>

#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

class VirusScans : public ScanFixture {
protected:
    static std::string Body(std::string const& head, std::string const& body) {
        return "From: a@example.test\r\n" + head + "\r\n\r\n" + body;
    }
    // Every block size cuts the object at other places.
    void ExpectFoundAtEveryBlockSize(std::string const& message) {
        for (std::size_t const size : {1u, 2u, 3u, 7u, 64u, 1000u}) {
            auto in = std::make_unique<MemoryTransport>(message);
            in->mostInOneRead = size;
            EXPECT_EQ(Scan(std::move(in)).found("KORAVScanner"), "EICAR-Test-File") << "blocks of " << size;
        }
    }
    void ExpectFound(std::string const& message) {
        auto const verdict = Scan(message);
        EXPECT_EQ(verdict.found("KORAVScanner"), "EICAR-Test-File") << message;
        EXPECT_EQ(verdict.action(), "DENY") << message;
        EXPECT_FALSE(verdict.hasError()) << message;
    }
    // As soft line breaks tear it.
    static std::string QuotedPrintable(std::string const& bytes) {
        std::string out;
        char hex[8];
        for (unsigned char const c : bytes) {
            std::snprintf(hex, sizeof hex, "=%02X", c);
            out += hex;
            if (out.size() % 5 == 0) out += "=\r\n";
        }
        return out;
    }
};

}  // namespace

TEST_F(VirusScans, LeaveACleanMessageAlone) {
    auto const verdict = Scan(WithAttachment("report.pdf", "harmless"));
    EXPECT_TRUE(verdict.isClean());
    EXPECT_FALSE(verdict.handler->IsModified());
    EXPECT_EQ(verdict.handler->GetMasterScanResult(), nullptr);
    EXPECT_EQ(verdict.out->bytes, verdict.in->bytes);
    EXPECT_FALSE(verdict.in->modified);
}

TEST_F(VirusScans, FindItPlain) {
    ExpectFoundAtEveryBlockSize(TestVirus());
    ExpectFoundAtEveryBlockSize(Body("Subject: x", TestVirus() + "\r\n"));
}

TEST_F(VirusScans, FindItInAnAttachmentAndNameTheAttachment) {
    ExpectFoundAtEveryBlockSize(WithAttachment("eicar.com", TestVirus()));
    auto const verdict = Scan(WithAttachment("eicar.com", TestVirus()));
    EXPECT_EQ(verdict.where("KORAVScanner"), "eicar.com");
    EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_TYPE"), "1");
    EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_ACTION"), "DENY");
    auto const* const result = verdict.resultOf("KORAVScanner");
    EXPECT_EQ(result, verdict.handler->GetMasterScanResult());
    EXPECT_EQ(result->InfectedItems(), 1);
    EXPECT_EQ(result->IsCleaned(), 0);
    EXPECT_TRUE(verdict.handler->IsTriggered());
    EXPECT_EQ(verdict.out->bytes, verdict.in->bytes);
    unsigned long type = 0;
    EXPECT_TRUE(result->GetPropertyBag()->GetProperty("E_SR_TYPE")->GetULong(type));
    EXPECT_EQ(result->GetPropertyBag()->GetProperty("E_SR_TYPE")->GetType(), KORProp_ULong);
    EXPECT_EQ(type, 1u);
}

TEST_F(VirusScans, CountEachInfectedPartAndNameEachFindingOnce) {
    std::string const part = "--c\r\nContent-Disposition: attachment; filename=";
    auto const verdict = Scan("A: b\r\nContent-Type: multipart/mixed; boundary=c\r\n\r\n" + part + "one.com\r\n\r\n" +
                              TestVirus() + "\r\n" + part + "two.com\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                              Base64(TestVirus()) + "--c--\r\n");
    EXPECT_EQ(verdict.resultOf("KORAVScanner")->InfectedItems(), 2);
    EXPECT_EQ(verdict.found("KORAVScanner"), "EICAR-Test-File");
    wchar_t names[64];
    EXPECT_TRUE(verdict.handler->GetInfectedComponentNames(names, 64, L','));
    EXPECT_EQ(std::wstring(names), L"one.com,two.com,");
    EXPECT_TRUE(verdict.handler->GetInfectionNames(names, 64, L' '));
    EXPECT_EQ(std::wstring(names), L"EICAR-Test-File ");
}

TEST_F(VirusScans, FindItInEachTransferEncoding) {
    ExpectFoundAtEveryBlockSize(Body("Content-Transfer-Encoding: quoted-printable", QuotedPrintable(TestVirus())));
    ExpectFoundAtEveryBlockSize(Body("Content-Transfer-Encoding: base64", Base64(TestVirus(), 4)));
    ExpectFound(Body("Content-Transfer-Encoding: base64", Base64(TestVirus(), 1)));
    ExpectFound(Body("Content-Transfer-Encoding: base64", Base64("\r\n" + TestVirus())));
}

TEST_F(VirusScans, FindItInANestedMessage) {
    auto const inner = WithAttachment("eicar.com", TestVirus());
    std::string const outer = "A: b\r\nContent-Type: multipart/mixed; boundary=out\r\n\r\n--out\r\n";
    ExpectFoundAtEveryBlockSize(outer + "Content-Type: message/rfc822\r\n\r\n" + inner + "\r\n--out--\r\n");
    // A message that is encoded itself, which is not allowed and seen all the same.
    ExpectFoundAtEveryBlockSize(outer + "Content-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                                Base64(inner) + "--out--\r\n");
    ExpectFound(
        outer +
        "Content-Type: application/octet-stream; name=\"mail.eml\"\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
        Base64(inner) + "--out--\r\n");
}

TEST_F(VirusScans, FindItBehindBrokenBase64) {
    auto const wire = Base64(TestVirus(), 64);
    for (std::size_t at = 0; at < 60; at += 7) {
        for (auto const* const dirt : {"!", "=", "==", " ", "\r\n", "\xFF"}) {
            auto broken = wire;
            broken.insert(at, dirt);
            ExpectFound(Body("Content-Transfer-Encoding: base64", broken));
        }
    }
    ExpectFound(Body("Content-Transfer-Encoding: base64", "QQ==\r\n" + wire));
    ExpectFound(Body("Content-Transfer-Encoding: base64", "QQ=\r\n" + wire));
    ExpectFound(Body("Content-Transfer-Encoding: base64", wire.substr(0, wire.find('='))));
}

TEST_F(VirusScans, FindItWhicheverOfTwoFieldsAReaderTakes) {
    for (auto const* const other : {"7bit", "quoted-printable", "x-unknown", "binary"}) {
        std::string const one = "Content-Transfer-Encoding: base64",
                          two = std::string("Content-Transfer-Encoding: ") + other;
        ExpectFound(Body(one + "\r\n" + two, Base64(TestVirus())));
        ExpectFound(Body(two + "\r\n" + one, Base64(TestVirus())));
    }
    std::string const a = "Content-Type: multipart/mixed; boundary=aa",
                      b = "Content-Type: multipart/mixed; boundary=bb";
    std::string const body = "--aa\r\nContent-Transfer-Encoding: base64\r\n\r\n" + Base64(TestVirus()) + "--aa--\r\n";
    ExpectFound(Body(a + "\r\n" + b, body));
    ExpectFound(Body(b + "\r\n" + a, body));
    ExpectFound(Body("Content-Type: text/plain\r\n" + a, body));
    ExpectFound(Body(a + "\r\nContent-Type: text/plain", body));
}

TEST_F(VirusScans, FindItBehindABrokenStructure) {
    std::string const part = "Content-Transfer-Encoding: base64\r\n\r\n" + Base64(TestVirus());
    ExpectFound(Body("Content-Type: multipart/mixed", "--q\r\n" + part + "--q--\r\n"));         // no boundary
    ExpectFound(Body("Content-Type: multipart/mixed; boundary=q", "--other\r\n" + part));       // another one
    ExpectFound(Body("Content-Type: multipart/mixed; boundary=q", "--q\r\n" + part));           // never closed
    ExpectFound(Body("Content-Type: multipart/mixed; boundary=q", part));                       // never opened
    ExpectFound(Body("Content-Type: multipart/mixed; boundary=q", "--q--\r\n--q\r\n" + part));  // closed first
    ExpectFound("\r\nContent-Type: multipart/mixed; boundary=q\r\n\r\n--q\r\n" + part +
                "--q--\r\n");                                                         // blank line first
    ExpectFound(" Content-Type: multipart/mixed; boundary=q\r\n\r\n--q\r\n" + part);  // folded nothing
    ExpectFound("no header\r\nContent-Type: x/y\r\n" + part);
    ExpectFound(
        Body("Content-Type: multipart/mixed; boundary=q", "--q\r\nContent-Type: x/y\r\nbroken line\r\n" + part));
    ExpectFound(Body("Content-Type : multipart/mixed; boundary=q", "--q\r\n" + part + "--q--"));
    ExpectFound(Body("Content-Transfer-Encoding: base46", Base64(TestVirus())));
    ExpectFound(Body("Content-Transfer-Encoding: 7bit\r\nnot a field", "x\r\n\r\n" + Base64(TestVirus())));
}

TEST_F(VirusScans, FindItWithBareLineFeeds) {
    auto text = WithAttachment("eicar.com", TestVirus());
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    ExpectFoundAtEveryBlockSize(text);
}

TEST_F(VirusScans, TakeTheActionThatThePolicySays) {
    Policy("<settings section=\"KORAVScanner\"><set name=\"Action\">LOG</set></settings>");
    auto const verdict = Scan(TestVirus());
    EXPECT_EQ(verdict.action(), "LOG");
    EXPECT_TRUE(verdict.handler->DidActionOccur("LOG"));
    EXPECT_FALSE(verdict.handler->DidActionOccur("LO"));
    EXPECT_FALSE(verdict.handler->DidActionOccur("DENY"));
    char list[16];
    unsigned size = sizeof list, count = 9;
    EXPECT_TRUE(verdict.handler->GetActionList(list, size, ',', count));
    EXPECT_STREQ(list, "LOG,");
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(count, 1u);
}

TEST_F(VirusScans, AreOffWhereThePolicySaysSo) {
    Policy("<settings section=\"KORAVScanner\"><set name=\"Enabled\">false</set></settings>");
    auto const verdict = Scan(TestVirus());
    EXPECT_TRUE(verdict.isClean());
    ScanTime now;
    now.Set(1000, ST_LOCAL);
    EXPECT_FALSE(verdict.object->IsSettingOn("Settings:KORAVScanner:Kortex Anti-Virus Settings", &now));
    EXPECT_TRUE(verdict.object->IsSettingOn("Settings:KORContentScanner:any", &now));
    EXPECT_TRUE(verdict.object->IsSettingOn("Settings:Nothing", nullptr));
}

TEST_F(VirusScans, FollowTheSelectionOfEngines) {
    auto& thread = Thread();
    EXPECT_TRUE(thread.SelectEngines(false, nullptr));
    EXPECT_TRUE(Scan(TestVirus()).isClean());
    EXPECT_TRUE(thread.SelectEngines(true, "KORAVScanner"));
    EXPECT_EQ(Scan(TestVirus()).action(), "DENY");
    EXPECT_FALSE(thread.SelectEngines(true, "NoSuchEngine"));
    EXPECT_TRUE(thread.LastError().IsSet());
    EXPECT_TRUE(thread.SelectEngines(true, nullptr));
    EXPECT_EQ(Scan(TestVirus()).action(), "DENY");
}

TEST_F(VirusScans, InFallbackLookAtTheRawObjectAlone) {
    auto scan = [&](std::string const& text) {
        auto in = std::make_unique<MemoryTransport>(text);
        in->bag.NewProperty("ES_FORCEDHOST")->SetNarrow("DefaultFormatPlugin");
        return Scan(std::move(in));
    };
    Policy("<settings section=\"KORFormatScanner\"><set name=\"MaxScanSize\">10</set></settings>");
    Thread().SelectEngines(false, nullptr);
    Thread().SelectEngines(true, "KORAVScanner");
    EXPECT_EQ(scan(TestVirus()).action(), "DENY");
    EXPECT_TRUE(scan(WithAttachment("eicar.com", TestVirus())).isClean());
}

TEST_F(VirusScans, RunOnTwoThreadsAtOnce) {
    ASSERT_TRUE(Start());
    auto const infected = WithAttachment("eicar.com", TestVirus()), clean = WithAttachment("a.txt", "fine");
    auto const work = [&](int* right) {
        auto const thread = NewThread();
        for (int i = 0; i < 50; ++i) {
            MemoryTransport in(i % 2 ? infected : clean), out;
            ObjectHandle const object(thread->NewScanObject(in, InternedString()));
            *right += object->Scan(&out, nullptr)->IsTriggered() == (i % 2 == 1);
        }
    };
    int first = 0, second = 0;
    std::thread one(work, &first), two(work, &second);
    one.join();
    two.join();
    EXPECT_EQ(first, 50);
    EXPECT_EQ(second, 50);
}

TEST_F(VirusScans, LeaveTheVerdictWithTheScanObjectWhenTheThreadIsGone) {
    auto const verdict = Scan(TestVirus());
    m_thread.reset();
    EXPECT_EQ(verdict.found("KORAVScanner"), "EICAR-Test-File");
}

TEST_F(VirusScans, OfAnObjectThatEndsEarlyAreErrors) {
    auto in = std::make_unique<MemoryTransport>(std::string(100000, 'x'));
    in->endsEarlyAt = 70000;
    auto const verdict = Scan(std::move(in));
    EXPECT_TRUE(verdict.hasError());
    EXPECT_EQ(verdict.text("KORFormatScanner", "E_SR_SCANERROR_ID"), "102");
}

TEST_F(VirusScans, WhoseOutputCannotBeWrittenAreErrors) {
    Verdict verdict;
    verdict.in = std::make_unique<MemoryTransport>("A: b\r\n\r\n" + std::string(1000, 'x'));
    verdict.out = std::make_unique<MemoryTransport>();
    verdict.out->roomToWrite = 10;
    verdict.object.reset(Thread().NewScanObject(*verdict.in, InternedString()));
    verdict.handler = verdict.object->Scan(verdict.out.get(), nullptr);
    EXPECT_TRUE(verdict.hasError());
    EXPECT_EQ(verdict.text("KORFormatScanner", "E_SR_SCANERROR_ID"), "103");
}

TEST_F(VirusScans, OfAnEmptyObjectAreClean) { EXPECT_TRUE(Scan("").isClean()); }

TEST_F(VirusScans, TellOfTheComponentsInATree) {
    auto const verdict = Scan(WithAttachment("eicar.com", TestVirus()));
    auto const* const part = verdict.resultOf("KORAVScanner")->GetScanPolContext();
    wchar_t text[100];
    part->GetScanContextString(text, 100, L' ', L':');
    EXPECT_EQ(std::wstring(text), L"Object Message Part:eicar.com");
    part->GetScanContextString(text, 8, L' ', L':');
    EXPECT_EQ(std::wstring(text), L"Object ");
    auto const* const start = verdict.handler->GetScanContextStart();
    EXPECT_TRUE(part->IsChildOf(start));
    EXPECT_FALSE(start->IsChildOf(part));
    EXPECT_TRUE(start->IsTopLevel());
    EXPECT_EQ(part->GetInfectedStatus(), 1);
    EXPECT_TRUE(part->CheckInContext("Message", false, true));
    EXPECT_FALSE(part->CheckInContext("Message", true, false));
    long pos = 0;
    auto const* const message = start->GetFirstChild(pos);
    EXPECT_EQ(part->GetParent(), message);
    EXPECT_EQ(start->GetNextChild(pos), nullptr);
    EXPECT_NE(message->GetFirstChild(pos), nullptr);
    EXPECT_EQ(message->GetNextChild(pos), part);
}

TEST_F(VirusScans, ReportOneEngineAloneWhenAsked) {
    auto const verdict = Scan(TestVirus());
    long pos = 0;
    verdict.handler->ReportSpecificScanner("KORContentScanner");
    EXPECT_EQ(verdict.handler->FindFirstScanResult(pos), nullptr);
    verdict.handler->ResetReportSpecificScanner();
    EXPECT_NE(verdict.handler->FindFirstScanResult(pos), nullptr);
}
