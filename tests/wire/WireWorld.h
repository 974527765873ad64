// WireWorld: both ends of the scan protocol in one process. A mail is scanned as the gateway scans it, by the remote
// scanner; at the far end are the scanner daemon's own conversation and the engines. What the server said is kept, and
// can be said to the gateway again: as it was, cut, or with a bit turned over.
// Owner: the test, one at a time. Threads: one of its own while it records; the verbs are the test's.
// Failure: fails the test.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Verdict.h"
#include "testing/ManagerModel.h"
#include "testing/SessionWorld.h"
#include "testing/Sockets.h"
#include "velt/scanning/ScanContext.h"

namespace VELT {
class ScannerServer;
class ScannerStream;
}  // namespace VELT

namespace velt_wire {

using Answers = std::vector<std::string>;  // what a server says, each when it was asked for

// What a gateway has scanned.
struct Item {
    std::string name;
    std::string content;
    std::string policy = "content";
    std::vector<char const*> identities{"staff"};  // null: none
    bool byName = false;                           // the server is this machine; a content above 4 KiB lies in a file
    bool inPlace = false;                          // the engines change the content itself
    bool attributes = false;
    long properties = 0;                             // how many of them go with it
    bool changesFile = false;                        // the server does, before it answers the scan
    std::function<void(Answers& said)> retell = {};  // what another server would have said, out of what this one did
};

// What came of the scan for one identity. The signs are those that a host finds in the output of a scan that succeeded.
struct Judgement {
    smtp::Verdict::Fate fate;
    std::string finding;
    std::string rewritten = {};     // the mail that goes on in place of the original
    bool looksClean = false;        // to whom looks at every sign in the verdict
    bool looksUntriggered = false;  // to whom looks at the first alone
    bool givesOriginal = false;     // the content after the scan is that before it

    bool operator==(Judgement const&) const = default;
};
using Judgements = std::vector<Judgement>;

enum class Ending { Close, Reset, Silence };

class WireWorld {
public:
    WireWorld();
    ~WireWorld();

    Answers Record(Item const& item);  // from the answer to the set-up on
    Judgements Replay(Item const& item, Answers const& said, Ending ending = Ending::Close);
    bool IsFree() const { return m_manager.held(0) == 0; }  // no server is occupied

    // The result of the first scan of the item, by a server that listens there. Once the wire has broken no wait is
    // long; `isLost`: one for an answer ends with the server's resource then.
    int ScanAt(sockaddr_in const& where, int id, Item const& item, std::function<bool()> hasBroken, bool isLost);
    void CloseIdle();  // connections that ScanAt has left
    std::string SpoolFolder() { return m_world.root() / "scandir"; }

private:
    struct Prepared;

    Judgements Scan(Item const& item);
    velt_testing::Fd Connect(bool local);  // an idle connection that the next scan takes; its far end
    void Tidy(bool local);

    velt_testing::ManagerModel m_manager;
    velt_testing::SessionWorld m_world;  // whose root counts
    std::unique_ptr<VELT::Connection> m_session;
    sockaddr_in m_addresses[2];
    VELT::ScannerServer* m_servers[2];
    int m_sequence;
    int m_lastId = 0;                    // of ScanAt
    std::function<void()> m_onCallback;  // of the session
};

std::vector<Item> Items();  // every kind of mail and of answer
Item ItemNamed(std::string const& name);

}  // namespace velt_wire
