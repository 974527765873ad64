// Requests to the scanner daemon, cut anywhere: it answers the same wherever the network cuts them, scans what the
// client sent and nothing else, and gives as many verdicts as it has scanned.
#include "Conversation.h"

#include <deque>
#include <set>
#include <string>

#include "fuzz/Input.h"
#include "testing/ScriptedStream.h"
#include "testing/SpoolRoom.h"
#include "velt/results/SerializedEFabricResult.h"
#include "velt/scanning/ScannerProcessScanOutput.h"

using velt_fuzz::Require;
using velt_testing::EndsWith;
using velt_testing::ScriptedStream;

namespace {

// Engines whose content after the scan is the item itself; they ask for the client's attributes twice.
class Desk : public scannerd::Desk {
public:
    bool Intern(std::string const& name, InternedString& interned) override {
        interned = InternedString(m_names.insert(name).first->c_str());
        return true;
    }
    int Scan(VELT::ScanContext& context, bool fallback, VELT::ScanOutput*& output) override {
        Require(context.policy && context.data && context.identities.size() == 1, "an item that is whole");
        std::string const content = velt_testing::ReadAll(*context.data);
        scanned += content + '\n';
        KORPropertyBag attributes;
        for (int i = 0; i < 2; ++i) conversation->FillAttributes(&attributes);
        auto made = std::make_unique<VELT::ScannerProcessScanOutput>();
        made->setResult(VELT::SerializedEFabricResult::deserialize(nullptr));
        made->output = &made->stream();
        velt_testing::Put(made->stream(), content);
        output = made.release();
        return fallback ? -1 : 0;
    }
    void ItemEnds() override {}
    void Note(scannerd::Step step) override { scans += step == scannerd::Step::ScanAsked; }
    void Tell(scannerd::Trouble, std::string const&) override { ++troubles; }

    scannerd::Conversation* conversation = nullptr;
    std::string scanned;
    unsigned scans = 0, troubles = 0;

private:
    std::set<std::string> m_names;
};

struct Course {
    std::string answers, scanned;
    unsigned scans = 0, troubles = 0;

    bool operator==(Course const&) const = default;
};

Course Run(std::deque<std::string> pieces, EndsWith end) {
    ScriptedStream client(std::move(pieces), end, 4096);
    scannerd::Wire wire(client, nullptr);
    scannerd::SessionSettings settings;
    settings.limits.itemBytes = 100000;
    Desk desk;
    scannerd::Conversation conversation(wire, desk, settings, true, nullptr);
    desk.conversation = &conversation;
    conversation.Run();
    return {client.written(), desk.scanned, desk.scans, desk.troubles};
}

unsigned Verdicts(std::string const& answers) {
    unsigned count = 0;
    for (std::size_t at = 0; (at = answers.find("State OK\nsize ", at)) != std::string::npos; ++at) ++count;
    return count;
}

}  // namespace

// The first byte says how the client ends, the second counts the cuts; the bytes after it are the lengths of the
// pieces; the rest is what it says.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 65536) return 0;
    static velt_testing::SpoolRoom const room(256);
    velt_fuzz::Input input(data, size);
    auto const end = static_cast<EndsWith>(input.Byte() % 3);
    std::string const lengths = input.Text(input.Byte());
    std::string const text = input.Rest();
    std::deque<std::string> pieces, whole;
    std::size_t at = 0;
    for (unsigned char const length : lengths) {
        if (at >= text.size() || length == 0) continue;
        pieces.push_back(text.substr(at, length));
        at += length;
    }
    if (at < text.size()) pieces.push_back(text.substr(at));
    if (!text.empty()) whole.push_back(text);
    Course const course = Run(whole, end);
    Require(course == Run(pieces, end), "the same wherever it is cut");
    Require(text.find("State OK\nsize ") != std::string::npos || Verdicts(course.answers) <= course.scans,
            "no verdict without a scan");
    Require(course.troubles <= course.scans + 1, "each way to fail once");
    return 0;
}
