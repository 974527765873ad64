// A scan runs on the thread of a session, whose stack is small: no object may make it overflow.
#include <pthread.h>

#include <functional>

#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

#ifdef VELT_SANITIZED
constexpr std::size_t kStackBytes = 1u << 20;  // the sanitizers widen every frame
#else
constexpr std::size_t kStackBytes = 128u << 10;
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
    for (int i = 0; i < 200; ++i)
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
