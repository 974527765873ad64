// ScannerdSession: one scan client of the daemon. What is said is the Conversation's affair; here it meets the engines
// of this process, the counters and the log.
// Owner: whoever runs it. Thread: one.
// Failure: each way to fail is one event and one counter; nothing throws out of Start.
#pragma once

#include <memory>
#include <string>

#include <velt/connection/Connection.h>
#include <velt/scanning/Scanner.h>

#include "Conversation.h"

namespace scannerd {

class ScannerdSession : public VELT::Connection, private Desk {
public:
    ScannerdSession();
    ~ScannerdSession() override;

    void Run() override;  // scan clients of this machine are served beside the health monitor, which speaks HTTP
    void Start() override;
    void InitialiseConnectionClass(bool transparent, VELT::Config& config) override;
    void getConnectionAttributes(IKORPropertyBag* bag) override;  // the client's, over the wire

private:
    bool Intern(std::string const& name, InternedString& interned) override;
    int Scan(VELT::ScanContext& context, bool fallback, VELT::ScanOutput*& output) override;
    void ItemEnds() override;
    void Note(Step step) override;
    void Tell(Trouble trouble, std::string const& why) override;

    void Converse(Wire& wire);
    void ReportEnd() const;

    Conversation* m_conversation = nullptr;    // null but in Converse
    std::unique_ptr<VELT::Scanner> m_scanner;  // of the item
    unsigned long m_items = 0;
    unsigned long m_scans = 0;
};

}  // namespace scannerd
