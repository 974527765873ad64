// Scans that ask the real virus scan server of the system, with a database of two lines.
#include <atomic>
#include <filesystem>
#include <optional>

#include <sys/stat.h>

#include <policyloader/engines/RealServer.h>
#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

constexpr char kClamd[] = "/usr/sbin/clamd";
constexpr char kMarker[] = "planted-for-the-scan-server";

std::string Hex(std::string const& text) {
    std::string out;
    char two[3];
    for (unsigned char const c : text) {
        std::snprintf(two, sizeof two, "%02x", c);
        out += two;
    }
    return out;
}

class RealServerScans : public ScanFixture {
protected:
    void SetUp() override {
        if (!RealServer::isInstalled(kClamd)) GTEST_SKIP() << kClamd << " is not installed";
        ::mkdir((m_folder + "/db").c_str(), 0700);
        std::ofstream(m_folder + "/db/own.ndb") << "Own.Marker:0:*:" << Hex(kMarker) << "\n";
        std::ofstream(Conf()) << "DatabaseDirectory " << m_folder << "/db\nLocalSocket " << Socket()
                              << "\nForeground yes\nMaxThreads 2\nStreamMaxLength 1M\nTemporaryDirectory " << m_folder
                              << "\nSelfCheck 0\n";
        Policy("<settings section='KORAVScanner'><list name='ClamdSockets'><item>" + Socket() +
               "</item></list></settings>");
        m_server.emplace(std::vector<std::string>{kClamd, "-c", Conf()}, Socket());
        m_server->start();
    }
    void TearDown() override {
        m_server.reset();
        std::filesystem::remove_all(m_folder);
    }
    std::string Conf() const { return m_folder + "/conf"; }
    std::string Socket() const { return m_folder + "/socket"; }

    std::optional<RealServer> m_server;
};

}  // namespace

TEST_F(RealServerScans, FindWhatTheServersDatabaseKnows) {
    EXPECT_TRUE(Scan("Subject: a\r\n\r\nfine\r\n").isClean());
    EXPECT_EQ(Scan(std::string("Subject: a\r\n\r\n") + kMarker).found("KORAVScanner"), "Own.Marker.UNOFFICIAL");
    auto const verdict = Scan(WithAttachment("bad.bin", std::string(1000, '\0') + kMarker));
    EXPECT_EQ(verdict.found("KORAVScanner"), "Own.Marker.UNOFFICIAL");
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_TRUE(Scan(WithAttachment("good.bin", std::string(500000, 'x'))).isClean());
    EXPECT_EQ(Scan(std::string(900000, 'x') + kMarker).found("KORAVScanner"), "Own.Marker.UNOFFICIAL");
}

TEST_F(RealServerScans, LongerThanItsStreamLengthAreErrors) {
    auto const verdict = Scan(std::string(3000000, 'x'));
    EXPECT_FALSE(verdict.isClean());
    EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_SCANERROR_ID"), "123");
    EXPECT_TRUE(Scan("Subject: a\r\n\r\nfine\r\n").isClean());
}

TEST_F(RealServerScans, GoOnAfterItWasKilledAndStartedAgain) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(Scan("fine").isClean());
        m_server->stop(SIGKILL);
        auto const verdict = Scan("fine");
        EXPECT_FALSE(verdict.isClean());
        EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_SCANERROR_ID"), "120");
        m_server->start();
    }
}

// Nothing is clean that the server has not seen, whenever it dies.
TEST_F(RealServerScans, KilledUnderLoadAreNeverClean) {
    ASSERT_TRUE(m_host.initialise(m_folder, m_error));
    std::atomic<bool> stop{false};
    std::atomic<int> passed{0}, found{0}, failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            auto const thread = NewThread();
            std::string const bad = std::string(100000, 'x') + kMarker;
            while (!stop) {
                MemoryTransport in(bad), out;
                ObjectHandle const object(thread->NewScanObject(in, InternedString()));
                auto const* const handler = object->Scan(&out, nullptr);
                long pos = 0;
                ++(handler->IsTriggered() ? found : handler->FindFirstScanResult(pos) ? failed : passed);
            }
        });
    }
    for (int i = 0; i < 3; ++i) {
        int const before = found;
        if (i > 0) m_server->start();
        while (found < before + 5) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        m_server->stop(SIGKILL);
    }
    int const before = failed;
    while (failed < before + 5) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    stop = true;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(passed, 0);
}
