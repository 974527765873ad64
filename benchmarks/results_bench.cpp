// A verdict written and read, as a scan server and its client do for each item. Writing stands beside sending the same
// lines ready made, reading beside making the same bags by hand: what is left is the form itself.
#include <benchmark/benchmark.h>
#include <eFabric/Property.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/BufferedStream.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// A wire without costs: what is written is kept in memory, and read again from its start.
class Wire : public VELT::BufferedStream {
public:
    Wire() : m_pool(65536, 1) { m_text.reserve(65536); }
    ~Wire() override { reset_buffered_stream(); }
    int read(char* data, unsigned length, unsigned* received) override {
        *received = static_cast<unsigned>(std::min<std::size_t>(length, m_text.size() - m_at));
        std::memcpy(data, m_text.data() + m_at, *received);
        m_at += *received;
        return 0;
    }
    int write(char const* data, unsigned length, unsigned* sent) override {
        m_text.append(data, length);
        *sent = length;
        return 0;
    }
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override {
        for (unsigned i = 0; i < count; ++i) m_text.append(buffers[i], lengths[i]);
        *sent = 0;
        return 0;
    }
    VELT::BufferPool* get_pool() override { return &m_pool; }

    void Clear() { m_text.clear(); }
    void Again() {
        m_at = 0;
        invalidate_buffer(false);
    }
    std::string const& text() const { return m_text; }

private:
    VELT::BufferPool m_pool;
    std::string m_text;
    std::size_t m_at = 0;
};

std::string Wide(std::string const& text) {
    std::wstring const wide(text.begin(), text.end());
    return std::to_string(wide.size()) + "\n" +
           std::string(reinterpret_cast<char const*>(wide.data()), wide.size() * sizeof(wchar_t));
}

// What an anti-virus scanner says of an attachment, line by line.
std::vector<std::string> TypicalLines() {
    std::string const property = "property .", engine = "property .QX_PROPERTIES<0>.";
    return {"msr.triggered sl 1\n",
            "msr.modified sl 0\n",
            "msr.action ss 5\nBLOCK",
            "msr.master.result\n",
            "infectionlist " + Wide("EICAR-Test-File"),
            "cleanstatus sl 0\n",
            "errorstatus sl 0\n",
            "classname ss 2\nAV",
            "infecteditems sl 1\n",
            property + "E_SR_TYPE sL 1\n",
            property + "E_SR_ACTION ss " + Wide("BLOCK"),
            property + "E_SR_DESCRIPTION_P ss " + Wide("Infected by EICAR-Test-File"),
            property + "E_SR_INFECTIONNAME ss " + Wide("EICAR-Test-File"),
            engine + "QX_SYSTEM_NAME ss " + Wide("scan1"),
            engine + "QX_ENGINE ss " + Wide("1.4.3"),
            engine + "QX_DATS ss " + Wide("27812"),
            "scanpolcontext  scan_context_string " + Wide("Object Message Part:eicar.com"),
            "scanpolcontext  scan_context_component_name " + Wide("eicar.com"),
            "\n",
            "\n"};
}

std::string Joined(std::vector<std::string> const& lines) {
    std::string text;
    for (auto const& line : lines) text += line;
    return text;
}

using Verdict = std::unique_ptr<VELT::SerializedEFabricResult>;

Verdict Read(Wire& wire) {
    wire.Again();
    return Verdict(VELT::SerializedEFabricResult::deserialize(&wire));
}

void Send(Wire& wire, std::string const& line) {
    unsigned sent = 0;
    unsigned length = static_cast<unsigned>(line.size());
    char const* data = line.data();
    wire.writev(1, &length, &data, &sent);
}

void Verdict_encode(benchmark::State& state) {
    Wire source, wire;
    Send(source, Joined(TypicalLines()));
    Verdict const verdict = Read(source);
    if (!verdict) return state.SkipWithError("no verdict");
    for (auto _ : state) {
        wire.Clear();
        VELT::SerializedEFabricResult::serialize(&wire, verdict.get());
        benchmark::DoNotOptimize(wire.text().data());
    }
    if (wire.text().size() < source.text().size()) state.SkipWithError("not all of the verdict");
}

void Verdict_readyLines(benchmark::State& state) {
    std::vector<std::string> const lines = TypicalLines();
    Wire wire;
    for (auto _ : state) {
        wire.Clear();
        for (auto const& line : lines) Send(wire, line);
        benchmark::DoNotOptimize(wire.text().data());
    }
}

void Verdict_decode(benchmark::State& state) {
    Wire wire;
    Send(wire, Joined(TypicalLines()));
    for (auto _ : state) {
        Verdict const verdict = Read(wire);
        if (!verdict || !verdict->GetMasterScanResult()) state.SkipWithError("no verdict");
        benchmark::DoNotOptimize(verdict.get());
    }
}

// The same properties, and the other texts in strings.
void Verdict_byHand(benchmark::State& state) {
    for (auto _ : state) {
        std::string const action("BLOCK"), scanner("AV");
        std::wstring const names(L"EICAR-Test-File"), place(L"Object Message Part:eicar.com"), part(L"eicar.com");
        KORPropertyBag bag;
        bag.NewProperty("E_SR_TYPE")->SetULong(1);
        bag.NewProperty("E_SR_ACTION")->SetWide(L"BLOCK");
        bag.NewProperty("E_SR_DESCRIPTION_P")->SetWide(L"Infected by EICAR-Test-File");
        bag.NewProperty("E_SR_INFECTIONNAME")->SetWide(L"EICAR-Test-File");
        IKORPropertyBag& engine = *bag.NewPropertyBagProperty("QX_PROPERTIES")->GetBag();
        engine.NewProperty("QX_SYSTEM_NAME")->SetWide(L"scan1");
        engine.NewProperty("QX_ENGINE")->SetWide(L"1.4.3");
        engine.NewProperty("QX_DATS")->SetWide(L"27812");
        engine.GetProperty("QX_SYSTEM_NAME")->SetNarrow("gate_scan1");
        benchmark::DoNotOptimize(&bag);
        benchmark::DoNotOptimize(action.data());
        benchmark::DoNotOptimize(scanner.data());
        benchmark::DoNotOptimize(names.data());
        benchmark::DoNotOptimize(place.data());
        benchmark::DoNotOptimize(part.data());
    }
}

BENCHMARK(Verdict_encode);
BENCHMARK(Verdict_readyLines);
BENCHMARK(Verdict_decode);
BENCHMARK(Verdict_byHand);

}  // namespace
