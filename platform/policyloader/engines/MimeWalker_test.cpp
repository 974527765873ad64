#include <gtest/gtest.h>

#include <gmime/gmime.h>

#include <policyloader/engines/MimeWalker.h>

using namespace policyloader;

namespace {

// Writes down what the walker tells: one line for each entity, its content behind it.
class Record final : public EntitySink {
public:
    struct Seen {
        std::string type, content;
        unsigned depth;
        Component* component;
    };
    std::vector<Seen> seen;
    std::size_t stopAfter = 1000;
    bool tooLong = false;

    Component* entity(EntityHead const& head, Component* parent, unsigned depth) override {
        if (seen.size() >= stopAfter) return nullptr;
        auto& component = tree.add(parent, Component::Part, head.fileName);
        seen.push_back({head.type + "/" + head.subtype, "", depth, &component});
        return &component;
    }
    std::unique_ptr<EntityBody> body(EntityHead const&, Component& component, unsigned) override {
        return std::make_unique<Content>(*this, component);
    }
    void headTooLong() override { tooLong = true; }

    std::string summary() const {
        std::string out;
        for (auto const& one : seen) out += std::to_string(one.depth) + " " + one.type + " [" + one.content + "]\n";
        return out;
    }

private:
    struct Content final : EntityBody {
        Content(Record& record, Component& component) : record(record), component(component) {}
        void data(std::string_view piece) override {
            for (auto& one : record.seen)
                if (one.component == &component) one.content += piece;
        }
        void end() override {}
        Record& record;
        Component& component;
    };
    ComponentTree tree;
};

struct Walked {
    Record record;
    bool doubtful = false;
};

void Walk(Walked& walked, std::string const& text, std::size_t cut = std::string::npos) {
    g_mime_init();
    MimeWalker walker(walked.record, nullptr, 0, true);
    walker.feed(text.substr(0, cut));
    if (cut < text.size()) walker.feed(text.substr(cut));
    walker.finish();
    walked.doubtful = walker.doubtful();
}

std::string Summary(std::string const& text) {
    Walked walked;
    Walk(walked, text);
    return walked.record.summary();
}

bool Doubtful(std::string const& text) {
    Walked walked;
    Walk(walked, text);
    return walked.doubtful;
}

char const kNested[] =
    "Subject: a\r\nContent-Type: multipart/mixed; boundary=out\r\n\r\n--out\r\nContent-Type: text/plain\r\n\r\none\r\n"
    "--out\r\nContent-Type: multipart/alternative; boundary=\"in ner\"\r\n\r\n--in ner\r\n\r\ntwo\r\n\r\n--in ner--\r\n"
    "--out\r\nContent-Type: message/rfc822\r\n\r\nSubject: b\r\n\r\n-three\r\n--\r\n--out--\r\n";

}  // namespace

TEST(MimeWalking, FindsTheSamePartsAtEveryCut) {
    std::string const text = kNested;
    std::string const whole =
        "0 multipart/mixed []\n1 text/plain [one]\n1 multipart/alternative []\n2 text/plain [two\r\n]\n"
        "1 message/rfc822 []\n2 text/plain [-three\r\n--]\n";
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        Walked walked;
        Walk(walked, text, cut);
        EXPECT_EQ(walked.record.summary(), whole) << "cut at " << cut;
        EXPECT_FALSE(walked.doubtful) << "cut at " << cut;
    }
}

TEST(MimeWalking, TellsWhereEachPartStands) {
    std::string const text = kNested;
    Walked walked;
    Walk(walked, text);
    auto const& range = walked.record.seen[1].component->range();
    EXPECT_EQ(text.substr(range.headBegin, range.bodyEnd - range.headBegin), "Content-Type: text/plain\r\n\r\none");
    EXPECT_EQ(text.substr(range.bodyBegin, range.bodyEnd - range.bodyBegin), "one");
}

TEST(MimeWalking, OfPlainTextKeepsItsLastLineEnd) { EXPECT_EQ(Summary("A: b\n\nx\n"), "0 text/plain [x\n]\n"); }
TEST(MimeWalking, TakesAHeaderWithoutAnEnd) { EXPECT_EQ(Summary("Subject: x"), "0 text/plain []\n"); }
TEST(MimeWalking, EndsAnInnerMultipartAtTheOuterBoundary) {
    EXPECT_EQ(Summary("Content-Type: multipart/mixed; boundary=o\n\n--o\nContent-Type: multipart/mixed; boundary=i\n\n"
                      "--i\n\na\n--o\n\nb\n--o--\n"),
              "0 multipart/mixed []\n1 multipart/mixed []\n2 text/plain [a]\n1 text/plain [b]\n");
}
TEST(MimeWalking, TakesTheFirstMarkWhereNoBoundaryIsNamed) {
    std::string const text = "Content-Type: multipart/mixed\n\n--q\n\na\n--q--\n";
    EXPECT_EQ(Summary(text), "0 multipart/mixed []\n1 text/plain [a]\n");
    EXPECT_TRUE(Doubtful(text));
}
TEST(MimeWalking, FollowsBothBoundariesOfATypeThatStandsTwice) {
    std::string const text =
        "Content-Type: multipart/mixed; boundary=a\nContent-Type: multipart/mixed; "
        "boundary=b\n\n--b\n\nx\n--a\n\ny\n--a--\n";
    EXPECT_EQ(Summary(text), "0 multipart/mixed []\n1 text/plain [x]\n1 text/plain [y]\n");
    EXPECT_TRUE(Doubtful(text));
}
TEST(MimeWalking, ShowsAPartWithoutAHeaderAsContent) {
    std::string const text = "Content-Type: multipart/mixed; boundary=b\n\n--b\nno header here\n\nmore\n--b--\n";
    EXPECT_EQ(Summary(text), "0 multipart/mixed []\n1 text/plain [no header here\n\nmore]\n");
    EXPECT_TRUE(Doubtful(text));
}
TEST(MimeWalking, TakesTheUntypedPartsOfADigestForMessages) {
    EXPECT_EQ(Summary("Content-Type: multipart/digest; boundary=b\n\n--b\n\nSubject: in\n\nx\n--b--\n"),
              "0 multipart/digest []\n1 text/plain []\n2 text/plain [x]\n");
}
TEST(MimeWalking, DoubtsWhatReadersMayTakeInAnotherWay) {
    EXPECT_TRUE(Doubtful("Content-Transfer-Encoding: base64\nContent-Transfer-Encoding: 7bit\n\nx\n"));
    EXPECT_TRUE(Doubtful("Content-Transfer-Encoding: base46\n\nx\n"));
    EXPECT_TRUE(Doubtful("Content-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n"));           // never closed
    EXPECT_TRUE(Doubtful("Content-Type: multipart/mixed; boundary=b\n\n--bad\n\nx\n--b--\n"));  // nearly the boundary
    EXPECT_TRUE(Doubtful("\nContent-Type: text/plain\n\nx\n"));
    EXPECT_FALSE(Doubtful("Subject: x\n\nx\n"));
}
TEST(MimeWalking, StopsWhenTheSinkSaysSo) {
    Walked walked;
    walked.record.stopAfter = 2;
    Walk(walked, kNested);
    EXPECT_EQ(walked.record.seen.size(), 2u);
}
TEST(MimeWalking, GivesUpOnAHeaderThatDoesNotEnd) {
    Walked walked;
    Walk(walked, "A: b\n" + std::string(2u << 20, 'x'));
    EXPECT_TRUE(walked.record.tooLong);
}
TEST(MimeWalking, PassesALineOfMegabytesOnAsItComes) {
    std::string const line = "--" + std::string(3u << 20, 'x');
    Walked walked;
    Walk(walked, "A: b\n\n" + line, 100);
    EXPECT_EQ(walked.record.seen[0].content, line);
}

TEST(EntityHeads, ReadTheNameOfAnAttachmentInEachWriting) {
    g_mime_init();
    for (auto const* head :
         {"Content-Disposition: attachment; filename=\"a b.exe\"", "Content-Type: x/y; name=\"a b.exe\"",
          "Content-Disposition: attachment; filename*=utf-8''a%20b.exe",
          "Content-Type: x/y; name=\"=?utf-8?B?YSBiLmV4ZQ==?=\"",
          "Content-Disposition: attachment;\n filename*0=\"a \";\n filename*1=\"b.exe\""})
        EXPECT_EQ(EntityHead::parse(head).fileName, "a b.exe") << head;
}
TEST(EntityHeads, TakeABlankBeforeTheColon) {
    g_mime_init();
    EXPECT_EQ(EntityHead::parse("Content-Transfer-Encoding : base64\n").encodings.front(), TransferEncoding::Base64);
}
