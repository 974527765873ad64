// Conversation: the server's side of the exchange with one scan client, from its first byte to its end. One item at a
// time: it is set up and its content comes here, it is scanned as often as the client asks, and then the client leaves,
// or parks the connection until its next item. The bytes are told in docs/formats.
// Owner: the session. Thread: the session's. Units: bytes, milliseconds.
// Failure: whatever cannot be answered rightly ends the connection without a verdict, so that no client takes an item
// for scanned that was not; each way to fail is reported once, by its Trouble.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <velt/scanning/ScanContext.h>
#include <velt/scanning/StreamRequest.h>
#include <velt/streams/ScannerStream.h>

#include "ScannerdSettings.h"
#include "SpoolGate.h"
#include "Wire.h"

namespace scannerd {

enum class Trouble { RequestRefused, ItemTooLarge, FileRefused, SpoolFailed, ScanFailed, ClientGone, ClientSilent };

enum class Step { ItemTaken, FileTaken, ScanAsked, AttributesAsked, Parked, WokenUp };

// What a conversation stands on: the engines, and whoever is told of its steps and of what went wrong.
class Desk {
public:
    virtual ~Desk() = default;

    // Of a policy or an identity. False: there is no room for another name.
    virtual bool Intern(std::string const& name, InternedString& interned) = 0;
    // One scan, of the context's only identity. 0: `output` is set, and the caller's; anything else: nothing is known.
    virtual int Scan(VELT::ScanContext& context, bool fallback, VELT::ScanOutput*& output) = 0;
    virtual void ItemEnds() = 0;  // the context is about to be used anew
    virtual void Note(Step step) = 0;
    virtual void Tell(Trouble trouble, std::string const& why) = 0;
};

class Conversation {
public:
    // `local`: the client is this machine. `session` may be null; it is asked for attributes then by nobody.
    Conversation(Wire& wire, Desk& desk, SessionSettings const& settings, bool local, VELT::Connection* session);
    ~Conversation();
    Conversation(Conversation const&) = delete;
    Conversation& operator=(Conversation const&) = delete;

    void Run();  // returns when the connection is to be closed

    // From the engines, during a scan: the client's facts, asked for over the wire, once a scan. Nothing is added where
    // the client did not offer them, or does not give them.
    void FillAttributes(IKORPropertyBag* bag);

private:
    enum class State {
        Idle,    // no item
        Ready,   // an item is here
        Parked,  // no item; the client keeps the connection
        Closed,
    };
    struct Row {
        State state;
        char const* verb;
        State (Conversation::*handler)(VELT::StreamRequest const&);
    };
    static Row const s_rows[4];

    State Next();
    State Ended(char const* where);  // the wire has; null: between two requests
    State Refuse(Trouble trouble, char const* why);
    State Say(char const* state, State next);
    void Report(Trouble trouble, std::string const& why);

    State SetUp(VELT::StreamRequest const& request);
    char const* TakeFields(VELT::StreamRequest const& request);
    State TakeContent();
    State TakeFile(std::string const& path);
    bool Load(int fd);
    State Scan(VELT::StreamRequest const& request);
    bool TakeIdentity(VELT::StreamRequest const& request);
    State ScanFailed(char const* why);
    State Answer(VELT::ScanOutput& output);
    State Park(VELT::StreamRequest const& request);
    State WakeUp(VELT::StreamRequest const& request);
    void DropItem();
    Allowance NextRequest() const;
    bool TakeSection(char const* name, IKORPropertyBag& bag);
    int RunScan(bool fallback, VELT::ScanOutput*& output);

    Wire& m_wire;
    Desk& m_desk;
    Limits const& m_limits;
    SpoolGate m_gate;
    bool m_local;
    VELT::Connection* m_session;
    State m_state = State::Idle;

    // The item.
    std::unique_ptr<VELT::ScannerStream> m_data;  // goes after the context
    VELT::ScanContext m_context;
    std::uint64_t m_size = 0;
    unsigned long m_itemScans = 0;
    bool m_attributesGiven = false;

    // The scan.
    bool m_mayAsk = false;     // the client has offered its attributes, and was not asked yet
    bool m_badAnswer = false;  // to the question for them
};

}  // namespace scannerd
