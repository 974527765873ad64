// A scan runs on the thread of a session, whose stack is small: no object may make it overflow.
#include <pthread.h>

#include <functional>

#include <policyloader/engines/ArchiveWriter.h>
#include <policyloader/engines/ScanFixture.h>
#include <policyloader/engines/ScriptedServer.h>

using namespace policyloader;

namespace {

#ifdef VELT_SANITIZED
constexpr std::size_t kStackBytes = 1u << 20;  // the sanitizers widen every frame
constexpr int kRules = 40;                     // and take long to compile expressions
#else
constexpr std::size_t kStackBytes = 128u << 10;
constexpr int kRules = 200;
#endif

class OnASmallStack : public ScanFixture {
protected:
    void ScanThere(std::string const& message) {
        ASSERT_TRUE(Start());
        std::function<void()> const work = [&] {
            auto const thread = NewThread();
            MemoryTransport in(message), out;
            ObjectHandle const object(thread->NewScanObject(in, InternedString()));
            m_triggered = object->Scan(&out, nullptr)->IsTriggered();
        };
        pthread_attr_t attributes;
        pthread_t thread;
        ASSERT_EQ(pthread_attr_init(&attributes), 0);
        ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStackBytes), 0);
        ASSERT_EQ(pthread_create(&thread, &attributes, &Run, const_cast<std::function<void()>*>(&work)), 0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
    }
    bool m_triggered = false;

private:
    static void* Run(void* work) {
        (*static_cast<std::function<void()>*>(work))();
        return nullptr;
    }
};

std::string Repeated(std::string const& text, std::size_t bytes) {
    std::string out;
    while (out.size() < bytes) out += text;
    return out;
}

}  // namespace

TEST_F(OnASmallStack, RulesCompileAndMatch) {
    std::string rules;
    for (int i = 0; i < kRules; ++i)
        rules += "<rule name=\"r" + std::to_string(i) + "\" where=\"any\" match=\"regex:(a|b(c|d)+){1,9}x" +
                 std::to_string(i) + "[a-z]{3,20}\"/>";
    Policy("<settings section=\"KORContentScanner\">" + rules + "</settings>");
    ScanThere("Subject: a\r\n\r\nabcdx7hello\r\n");
    EXPECT_TRUE(m_triggered);
}

TEST_F(OnASmallStack, HeadersOfNearlyAMegabyteAreRead) {
    Policy("<settings section=\"KORContentScanner\"><rule name=\"r\" where=\"any\" match=\"needle\"/></settings>");
    for (auto const& head : {"Subject: " + Repeated("=?utf-8?B?YWJj?= ", 900000), "Subject: " + Repeated("x", 900000),
                             "Content-Type: text/plain" + Repeated("; a=\"b\"", 900000),
                             "Content-Type: text/plain; name=\"" + Repeated("=?utf-8?Q?a?= ", 900000) + "\"",
                             "Content-Type: " + Repeated("(", 900000),
                             "Content-Disposition: attachment" + Repeated("; filename*0*=utf-8''%20", 900000)}) {
        ScanThere(head + "\r\n\r\nneedle\r\n");
        EXPECT_TRUE(m_triggered) << head.substr(0, 60);
    }
}

TEST_F(OnASmallStack, DeepNestingEndsInTheLimit) {
    std::string plain = "A: b\r\n", encoded = "A: b\r\n\r\nx";
    for (int i = 0; i < 3000; ++i)
        plain += "Content-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\r\n\r\n--b" + std::to_string(i) +
                 "\r\n";
    for (int i = 0; i < 20; ++i)
        encoded = "A: b\r\nContent-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n\r\n" + Base64(encoded);
    for (auto const& message : {plain, encoded}) {
        ScanThere(message);
        EXPECT_TRUE(m_triggered);
    }
}

TEST_F(OnASmallStack, AServerIsAskedOverHttpAndItsAnswerRead) {
    std::string const message = "Subject: a\r\n\r\n" + Repeated("text\r\n", 20000) + "end";
    std::string const nested = "\"nested\":" + std::string(40, '[') + std::string(40, ']');
    std::string const answer = "{\"score\":9,\"required_score\":5,\"symbols\":{}," + nested + "}";
    ScriptedServer const server(m_folder + "/one", [&](int fd, int) {
        std::string const end = "\r\n\r\n" + message;
        std::string question;
        char byte = 0;
        while (!question.ends_with(end) && ReadExactly(fd, &byte, 1)) question += byte;
        Say(fd, "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(answer.size()) + "\r\n\r\n" + answer);
    });
    Policy(
        "<settings section='SpamScanner'><set name='Source'>rspamd</set><set name='Action'>DENY</set><set "
        "name='Servers'>" +
        server.path() + "</set></settings>");
    ScanThere(message);
    EXPECT_TRUE(m_triggered);
}

TEST_F(OnASmallStack, ArchivesInsideEachOtherAreUnpackedAndTheirFilesKnown) {
    Policy("<settings section=\"KORFormatScanner\"><rule name=\"r\" type=\"exe\" match=\"needle\"/></settings>");
    for (auto const* const kind : {"zip", "7zip", "gnutar", "newc"}) {
        std::string object = MakeArchive(kind, {{"needle", Repeated("<html>{\"a\": [", 100000)}});
        for (int i = 0; i < 14; ++i) object = MakeArchive(kind, {{"next", object}});
        ScanThere(WithAttachment("a.bin", object));
        EXPECT_TRUE(m_triggered) << kind;
    }
    for (auto const* const filter : {"gzip", "bzip2", "xz", "zstd", "lz4", "compress"}) {
        ScanThere(WithAttachment("needle.gz", Compressed(filter, "x")));
        EXPECT_TRUE(m_triggered) << filter;
    }
}
