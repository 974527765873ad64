#include "Conversation.h"

#include <eFabric/Property.h>
#include <system/UUID.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <typeinfo>

#include <velt/results/SerializedEFabricResult.h>
#include <velt/scanning/ScanAgent.h>
#include <velt/streams/FileStream.h>

namespace scannerd {
namespace {

using VELT::ScanOutput;
using VELT::SerializedEFabricResult;
using VELT::StreamRequest;

constexpr unsigned long kMostBlock = 64 * 1024;        // bytes of a header block
constexpr std::size_t kMostHeaders = 32;               // lines of one
constexpr std::size_t kMostLine = 8 * 1024;            // bytes of such a line
constexpr unsigned long kMostSection = 1024 * 1024;    // bytes of a section of properties
constexpr unsigned long kMostRest = 16 * 1024 * 1024;  // bytes that a refused client is heard to the end for
constexpr unsigned kRestMs = 2000;                     // and for how long
constexpr unsigned kFirstRestMs = 200;                 // until it says something more
constexpr int kGraceMs = 1000;                         // for the first request of a client, when the process stops

// The properties by which the engines are told that the client has the item, and say that they left it out.
constexpr char kChangedOnly[] = "ES_CHANGED_OUTPUT_ONLY";
constexpr char kLeftOut[] = "ES_OUTPUT_LEFT_OUT";

constexpr char const* kNoRoomForName = "more names of policies and identities than a process keeps";

// A plain output is a scan agent's of tests: it owns neither its result nor its content.
struct DropOutput {
    void operator()(ScanOutput* output) const {
        if (output && typeid(*output) == typeid(ScanOutput)) {
            delete output->result;
            delete output->output;
        }
        delete output;
    }
};

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

bool IsWithinLimits(StreamRequest const& request) {
    return request.size() <= kMostHeaders && std::all_of(request.begin(), request.end(), [](auto const& header) {
               auto const& [name, value] = header;
               return name.size() + value.size() < kMostLine && std::none_of(value.begin(), value.end(), IsControl);
           });
}

std::string const* Find(StreamRequest const& request, char const* name) {
    auto const header = request.find(name);
    return header == request.end() || header->second.empty() ? nullptr : &header->second;
}

bool IsSet(StreamRequest const& request, char const* name) {
    std::string const* const value = Find(request, name);
    return value && std::strtol(value->c_str(), nullptr, 10) != 0;
}

template <class Number>
std::optional<Number> ReadNumber(std::string const& text) {
    Number number = 0;
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc::result_out_of_range && text.front() != '-') return std::numeric_limits<Number>::max();
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

// Some engines hand an item over that they have not changed, too. The client has it already, and takes its own. An
// output that is empty for no stated reason is what it is.
void KeepUnchanged(ScanOutput& output, std::uint64_t size, bool leftOut) {
    bool const own = !output.output_in_input && output.output;
    if (!own || output.result->IsModified()) return;
    if (output.output->size() != (leftOut ? 0 : size)) return;
    output.output_in_input = true;
    output.input_modified = false;
}

// What follows the verdict on the wire; null: nothing does.
VELT::ScannerStream* ContentOf(ScanOutput const& output) {
    return output.output_in_input && !output.input_modified ? nullptr : output.output;
}

// An agent that looks at nothing gives a result without a word, and no content: to a client it would be a clean
// verdict.
bool SaysNothing(ScanOutput const& output) {
    IScanResultHandler const& result = *output.result;
    char const* const action = result.GetMasterActionCode();
    bool const acted = (action && *action) || result.IsTriggered() || result.IsModified();
    long position = 0;
    return !output.output && !acted && !result.GetMasterScanResult() && !result.FindFirstScanResult(position);
}

std::string HeadOf(ScanOutput const& output, VELT::ScannerStream const* content) {
    auto const flag = [](bool on) { return on ? " 1\n" : " 0\n"; };
    std::string head = "State OK\nsize " + std::to_string(content ? content->size() : 0) + '\n';
    head += std::string("output_in_input") + flag(output.output_in_input);
    head += std::string("cached") + flag(false);  // a client's own file is never written to
    return head + "input_modified" + flag(output.input_modified) + '\n';
}

}  // namespace

Conversation::Conversation(Wire& wire, Desk& desk, SessionSettings const& settings, bool local,
                           VELT::Connection* session)
    : m_wire(wire),
      m_desk(desk),
      m_limits(settings.limits),
      m_gate(settings.spoolRoots),
      m_local(local),
      m_session(session) {}

Conversation::~Conversation() { DropItem(); }

void Conversation::Run() {
    while (m_state != State::Closed) m_state = Next();
}

void Conversation::Report(Trouble trouble, std::string const& why) { m_desk.Tell(trouble, why); }

Allowance Conversation::NextRequest() const {
    unsigned const first = m_state == State::Ready    ? m_limits.itemMs
                           : m_state == State::Parked ? m_limits.parkMs
                                                      : m_limits.idleMs;
    int const leave = m_state == State::Ready ? -1 : m_state == State::Parked ? 0 : kGraceMs;
    return {kMostBlock, first, m_limits.requestMs, false, leave};
}

Conversation::State Conversation::Next() {
    m_wire.Begin(NextRequest());
    StreamRequest request;
    int const result = request.read_headers(&m_wire);
    if (m_wire.end() != Wire::End::None) return Ended(m_wire.begun() ? "in a request" : nullptr);
    if (result != 0) return Refuse(Trouble::RequestRefused, "not a request");
    if (!IsWithinLimits(request)) return Refuse(Trouble::RequestRefused, "a header that is too long, or too many");
    std::string const* const verb = Find(request, "get");
    for (Row const& row : s_rows) {
        if (row.state == m_state && verb && *verb == row.verb) return (this->*row.handler)(request);
    }
    return Refuse(Trouble::RequestRefused, "a request that is unknown, or comes at the wrong time");
}

// A client that has its verdicts may leave as it likes; so may one that has begun nothing.
Conversation::State Conversation::Ended(char const* where) {
    if (m_wire.end() == Wire::End::Stopping) return State::Closed;
    if (m_wire.end() == Wire::End::TooMuch) return Refuse(Trouble::RequestRefused, "more bytes than it may have");
    bool const unfinished = m_state == State::Ready && m_itemScans == 0;
    if (!where && !unfinished) return State::Closed;
    Report(m_wire.end() == Wire::End::Silent ? Trouble::ClientSilent : Trouble::ClientGone,
           where ? where : "before the item was scanned");
    return State::Closed;
}

// The client is told, and heard out: what it still sends would otherwise destroy the answer on its way.
Conversation::State Conversation::Refuse(Trouble trouble, char const* why) {
    Report(trouble, why);
    DropItem();
    if (Say("DENIED", State::Closed) == State::Closed && !m_wire.lost())
        m_wire.Discard({kMostRest, kFirstRestMs, kRestMs});
    return State::Closed;
}

Conversation::State Conversation::Say(char const* state, State next) {
    std::string const block = std::string("State ") + state + "\n\n";
    unsigned sent = 0;
    m_wire.write(block.data(), static_cast<unsigned>(block.size()), &sent);
    return m_wire.Flush() ? next : State::Closed;
}

bool Conversation::TakeSection(char const* name, IKORPropertyBag& bag) {
    m_wire.Begin({kMostSection, m_limits.requestMs, m_limits.requestMs});
    bool ended = false;
    SerializedEFabricResult::deserialize(&m_wire, name, bag, &ended);
    return ended && m_wire.end() == Wire::End::None;
}

// Null: all that an item needs is there.
char const* Conversation::TakeFields(StreamRequest const& request) {
    std::string const* const time = Find(request, "time");
    std::string const* const size = Find(request, "size");
    std::string const* const policy = Find(request, "policy");
    if (!Find(request, "protocol")) return "no protocol";
    if (!time || !ReadNumber<long>(*time)) return "no time";
    auto const number = size ? ReadNumber<std::uint64_t>(*size) : std::nullopt;
    if (!number) return "no size";
    if (!policy) return "no policy";
    m_size = *number;
    if (!m_desk.Intern(*policy, m_context.policy)) return kNoRoomForName;
    return nullptr;
}

Conversation::State Conversation::SetUp(StreamRequest const& request) {
    if (char const* const why = TakeFields(request)) return Refuse(Trouble::RequestRefused, why);
    if (m_size > m_limits.itemBytes) return Refuse(Trouble::ItemTooLarge, "larger than MaxItemSize");
    if (!TakeSection("scan_properties", m_context.properties)) {
        if (m_wire.end() != Wire::End::None) return Ended("in an item's properties");
        return Refuse(Trouble::RequestRefused, "a section of properties that cannot be read");
    }
    m_context.properties.NewProperty(kChangedOnly)->SetLong(1);
    m_data = std::make_unique<VELT::ScannerStream>(UUID::get(), false);
    m_context.data = m_data.get();
    m_context.connection = m_session;
    std::string const* const file = Find(request, "filename");
    return file ? TakeFile(*file) : TakeContent();
}

Conversation::State Conversation::TakeContent() {
    m_wire.Begin({std::numeric_limits<unsigned long>::max(), m_limits.dataMs, m_limits.dataMs, true});
    if (m_data->take_from_stream(&m_wire, static_cast<unsigned>(m_size)) != 0) {
        if (m_wire.end() != Wire::End::None) return Ended("in an item's content");
        return Refuse(Trouble::SpoolFailed, "no room for the item");
    }
    m_desk.Note(Step::ItemTaken);
    return Say("OK", State::Ready);
}

Conversation::State Conversation::TakeFile(std::string const& path) {
    if (!m_local) return Refuse(Trouble::FileRefused, "a file named by another machine");
    char const* why = nullptr;
    int const fd = m_gate.Open(path, m_size, why);
    if (fd < 0) return Refuse(Trouble::FileRefused, why);
    bool const loaded = Load(fd);
    ::close(fd);
    if (!loaded) return Refuse(Trouble::SpoolFailed, "the client's file cannot be read");
    m_desk.Note(Step::ItemTaken);
    m_desk.Note(Step::FileTaken);
    return Say("OK", State::Ready);
}

// Another name of what is open, so that it is this file and no other. Where the engines will change the item itself
// they get a copy.
bool Conversation::Load(int fd) {
    std::string const path = "/proc/self/fd/" + std::to_string(fd);
    if (!VELT::ScanAgent::output_in_input(&m_context)) {
        return m_data->spool_from_disk(path.c_str()) == 0 && m_data->size() == m_size;
    }
    VELT::FileStream file(4096u);
    return file.spool_from_disk(path.c_str()) == 0 && file.size() == m_size && file.spool_to_stream(m_data.get()) == 0;
}

bool Conversation::TakeIdentity(StreamRequest const& request) {
    std::string const* const identity = Find(request, "identity");
    m_context.identities.assign(1, InternedString());
    return !identity || m_desk.Intern(*identity, m_context.identities[0]);
}

// The engines own the attributes from the first scan on, and keep what they have read.
int Conversation::RunScan(bool fallback, ScanOutput*& output) {
    if (m_mayAsk && m_session && !m_attributesGiven) {
        m_context.connection_attributes = new VELT::ScanConnectionAttributes(m_session);
        m_attributesGiven = true;
    }
    m_context.properties.DeleteProperty(kLeftOut);
    ++m_itemScans;
    m_desk.Note(Step::ScanAsked);
    int const result = m_desk.Scan(m_context, fallback, output);
    m_mayAsk = false;
    return result;
}

Conversation::State Conversation::Scan(StreamRequest const& request) {
    if (!TakeIdentity(request)) return Refuse(Trouble::RequestRefused, kNoRoomForName);
    m_mayAsk = IsSet(request, "connattr");
    m_badAnswer = false;
    ScanOutput* made = nullptr;
    int const result = RunScan(IsSet(request, "fallbackscan"), made);
    std::unique_ptr<ScanOutput, DropOutput> const output(made);
    if (m_wire.end() != Wire::End::None || m_wire.lost()) return Ended("while it was asked for its attributes");
    if (m_badAnswer) return Refuse(Trouble::RequestRefused, "attributes that cannot be read");
    if (!m_wire.IsPeerThere()) return Report(Trouble::ClientGone, "during a scan"), State::Closed;
    if (result != 0 || !output || !output->result) return ScanFailed("the engines gave no verdict");
    if (SaysNothing(*output)) return ScanFailed("nobody looked at the item");
    return Answer(*output);
}

Conversation::State Conversation::ScanFailed(char const* why) {
    Report(Trouble::ScanFailed, why);
    return Say("FAILED", State::Ready);
}

// Writes gather in the wire; what cannot go shows at the end of it.
Conversation::State Conversation::Answer(ScanOutput& output) {
    KeepUnchanged(output, m_size, m_context.properties.GetProperty(kLeftOut) != nullptr);
    VELT::ScannerStream* const content = ContentOf(output);
    std::string const head = HeadOf(output, content);
    unsigned sent = 0;
    m_wire.write(head.data(), static_cast<unsigned>(head.size()), &sent);
    SerializedEFabricResult::serialize(&m_wire, output.result);
    SerializedEFabricResult::serialize(&m_wire, "properties", &output.properties);
    bool const whole = !content || content->spool_to_stream(&m_wire) == 0;
    if (!m_wire.Flush()) return Report(Trouble::ClientGone, "in its answer"), State::Closed;
    if (!whole) return Report(Trouble::SpoolFailed, "the scanned content cannot be read"), State::Closed;
    return State::Ready;
}

Conversation::State Conversation::Park(StreamRequest const&) {
    DropItem();
    if (m_wire.stopping()) return State::Closed;  // the client's next item finds another server
    m_desk.Note(Step::Parked);
    return Say("OK", State::Parked);
}

Conversation::State Conversation::WakeUp(StreamRequest const&) {
    if (m_wire.stopping()) return State::Closed;
    m_desk.Note(Step::WokenUp);
    return Say("OK", State::Idle);
}

void Conversation::DropItem() {
    m_desk.ItemEnds();
    m_context.Reset();
    m_data.reset();
    m_itemScans = 0;
    m_attributesGiven = false;
}

void Conversation::FillAttributes(IKORPropertyBag* bag) {
    if (!m_mayAsk || m_wire.end() != Wire::End::None) return;
    m_mayAsk = false;
    m_desk.Note(Step::AttributesAsked);
    if (Say("Attributes", State::Ready) == State::Closed) return;
    if (TakeSection("conattr", *bag)) return;
    bag->Clear();
    m_badAnswer = true;
}

Conversation::Row const Conversation::s_rows[4] = {
    {State::Idle, "setup_scan", &Conversation::SetUp},
    {State::Ready, "scan", &Conversation::Scan},
    {State::Ready, "stasis", &Conversation::Park},
    {State::Parked, "wakeup", &Conversation::WakeUp},
};

}  // namespace scannerd
