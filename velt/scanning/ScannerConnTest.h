// What the tests of the remote scanner share: an item, a resource manager's model that offers a scripted scanner
// process for it, and what the two say to each other. A wait of a second for the answer to a scan takes milliseconds.
// The program is linked with what is wrapped in ScannerConnTest.cpp and ServerTest.cpp. Owner: the test. Thread: the
// test's.
#pragma once

#include <QXStats/QXCounter.h>

#include <memory>
#include <string>
#include <vector>

#include "testing/FakePolicyStore.h"
#include "testing/ScannerPeer.h"
#include "velt/Config.h"
#include "velt/logging/Events.h"
#include "velt/scanning/ScanContext.h"
#include "velt/scanning/ScannerConn.h"
#include "velt/scanning/ServerTest.h"
#include "velt/streams/ScannerStream.h"

namespace velt_testing {

// What the test's thread has sent, one text for each call, since it last asked.
std::vector<std::string> TakeSent();
std::vector<std::string> TakeHeldBack();  // of it, what was to leave with what follows

std::vector<int> TakeWaits();  // what each of its waits was bounded by, in milliseconds, likewise

int StepsOfASecond();  // of waits that ran out, in this test

// The next "X pass" of this server is a stall: a read of the test's thread that waits for it runs out. What the server
// says then has come when the read is told.
void Stall(ScannerPeer& server);

// The same, but the read goes on with what the server says then.
void Pause(ScannerPeer& server);
bool IsPaused();  // nothing has waited for it yet

unsigned long Counted(char const* name);

class ItemSession : public WaitingSession {
public:
    void getConnectionAttributes(IKORPropertyBag* bag) override {
        ++asked;
        bag->NewProperty("HOPS")->SetLong(3);
    }

    int asked = 0;
};

class ScannerConnTest : public testing::Test {
protected:
    ScannerConnTest();
    ~ScannerConnTest() override;

    static constexpr int kResource = 7;
    static constexpr char const* kOk = "State OK\n\n";
    static constexpr char const* kClean = "msr.triggered sl 0\nmsr.modified sl 0\n\n";
    static constexpr char const* kFound = "msr.triggered sl 1\nmsr.modified sl 1\n\n";
    static constexpr char const* kNoProperties = "\r\n";
    static constexpr char const* kStasis = "get stasis\n\n";
    static constexpr char const* kWakeup = "get wakeup\n\n";

    void Set(char const* section, char const* key, FakeValue const& value) { store.Put("base", section, key, value); }
    void Initialise();
    InternedString Intern(char const* text) { return store.internAttribute(text); }

    void Offer(ScannerPeer& server, int id = 1);  // to the next search; its resource is kResource - 1 + id
    // Offers the server, and has these steps over the connection that is made to it.
    void Converse(ScannerPeer& server, ScannerPeer::Conversation steps);

    // The request as it is: the item's content follows, or what the test says.
    std::string SetupBlock(std::string const& more = "") const;
    std::string InLine() const { return SetupBlock() + "\r\n" + content; }
    static std::string Answer(std::string const& size, int inInput, int cached, int modified);
    // A whole answer of a scan whose content, if any, is its own stream's.
    static std::string Clean(std::string const& content = "") {
        return Answer(std::to_string(content.size()), 0, 0, 0) + kClean + kNoProperties + content;
    }

    void Fill(std::string const& text);         // the item's content
    void FillSpool(std::size_t length = 9000);  // the same, so that it lies in a file
    std::string All(VELT::ScannerStream& stream);

    int Scan(unsigned index = 0, bool fallback = false);  // by the scanner of this item; the last output goes
    void DropScanner() { scanner.reset(); }
    bool IsOccupied() const { return manager.held(0) != 0; }

    // The one event that came.
    KORlog::InfoBag TheReport(QXlog::Event const& event);

    ManagerModel manager;
    SessionWorld world;
    FixedTime time;
    FakePolicyStore store;
    EventCapture events;
    ItemSession session;
    ScannerPeer local{"127.0.0.1"};
    ScannerPeer remote{"127.0.0.2"};
    std::string content;
    std::unique_ptr<VELT::ScannerStream> body;
    VELT::ScanContext context;
    std::unique_ptr<VELT::ScannerConn> scanner;
    VELT::ScanOutput* output = nullptr;
    int sequence;
    unsigned long scansBefore, failuresBefore;
};

}  // namespace velt_testing
