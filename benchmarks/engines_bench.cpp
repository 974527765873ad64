// What one message costs in the engines: reading, unpacking, matching, copying. A message of 4 KiB should
// cost some microseconds, one of 256 KiB below a millisecond.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <policyloader/engines/EngineHost.h>
#include <policyloader/store/ErrorState.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreSnapshot.h>

namespace {

using namespace policyloader;

class Memory final : public eFabric::IStreamTransport {
public:
    std::string bytes;

    bool get(unsigned char& c) override { return read(&c, 1) == 1; }
    bool put(unsigned char c) override { return write(&c, 1) == 1; }
    unsigned long read(unsigned char* to, unsigned long count) override {
        std::size_t const got = std::min<std::size_t>(count, bytes.size() - m_at);
        std::memcpy(to, bytes.data() + m_at, got);
        m_at += got;
        return got;
    }
    unsigned long write(unsigned char const* from, unsigned long count) override {
        bytes.append(reinterpret_cast<char const*>(from), count);
        return count;
    }
    bool close() override { return true; }
    bool CanSeekTell() override { return true; }
    bool CanReportLength() override { return true; }
    bool seek(unsigned long to) override {
        m_at = to;
        return true;
    }
    unsigned long tell() override { return m_at; }
    unsigned long size() override { return bytes.size(); }
    bool seteof() override { return true; }
    bool setsize(unsigned long size) override {
        bytes.resize(size);
        return true;
    }
    void SetRecommendedBase(eFabric::RecommendedBaseType) override {}
    eFabric::RecommendedBaseType GetRecommendedBase() override { return eFabric::Base_Byte; }
    bool IsReadOnly() override { return false; }
    bool IsModified() override { return false; }
    void SetReadOnly(bool) override {}
    IKORPropertyBag* GetPropertyBag() override { return nullptr; }

private:
    std::size_t m_at = 0;
};

std::string TextMessage(std::size_t size) {
    std::string out = "From: a@example.test\r\nTo: b@example.test\r\nSubject: figures\r\n\r\n";
    while (out.size() < size) out += "The quick brown fox jumps over the lazy dog, and then it does so once again.\r\n";
    return out;
}

std::string AttachmentMessage(std::size_t size) {
    std::string out =
        "From: a@example.test\r\nTo: b@example.test\r\nSubject: figures\r\nMIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=cut\r\n\r\n--cut\r\n\r\nSee the figures.\r\n--cut\r\n"
        "Content-Type: application/octet-stream; name=figures.bin\r\nContent-Transfer-Encoding: base64\r\n\r\n";
    unsigned seed = 1;
    char const alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    while (out.size() < size) {
        for (int i = 0; i < 76; ++i) out += alphabet[(seed = seed * 1103515245 + 12345) >> 16 & 63];
        out += "\r\n";
    }
    return out + "--cut--\r\n";
}

char const kRules[] =
    "<rules version=\"1\"><policy name=\"content_in\"><settings section=\"KORContentScanner\">"
    "<rule name=\"a\" where=\"body\" match=\"strictly confidential\"/>"
    "<rule name=\"b\" where=\"body\" match=\"regex:top[ -]secret\"/>"
    "<rule name=\"c\" where=\"subject\" match=\"you have won\"/>"
    "<rule name=\"d\" where=\"attachment\" match=\"regex:\\.(exe|scr|js)$\"/>"
    "</settings></policy></rules>";

void ScanAll(benchmark::State& state, std::string const& message, char const* rules) {
    EngineHost host;
    ErrorState error;
    auto const store = ParseStore("bench", rules);
    if (!host.initialise("/nonexistent", error)) std::abort();
    IScanThread* const thread = host.createScanThread(*store, InternPool::process().intern("content_in"));
    Memory in;
    in.bytes = message;
    Memory out;
    for (auto _ : state) {
        out.bytes.clear();
        IScanObject* const object = thread->NewScanObject(in, InternedString());
        if (object->Scan(&out, nullptr)->IsTriggered()) std::abort();
        object->Release();
    }
    state.SetBytesProcessed(static_cast<long>(state.iterations() * message.size()));
    thread->Release();
}

void Scan_text(benchmark::State& state) {
    ScanAll(state, TextMessage(static_cast<std::size_t>(state.range(0))), "<rules version=\"1\"/>");
}
void Scan_textWithRules(benchmark::State& state) {
    ScanAll(state, TextMessage(static_cast<std::size_t>(state.range(0))), kRules);
}
void Scan_attachment(benchmark::State& state) {
    ScanAll(state, AttachmentMessage(static_cast<std::size_t>(state.range(0))), "<rules version=\"1\"/>");
}
void Scan_attachmentWithRules(benchmark::State& state) {
    ScanAll(state, AttachmentMessage(static_cast<std::size_t>(state.range(0))), kRules);
}

BENCHMARK(Scan_text)->Arg(4 << 10)->Arg(256 << 10)->Unit(benchmark::kMicrosecond);
BENCHMARK(Scan_textWithRules)->Arg(4 << 10)->Arg(256 << 10)->Unit(benchmark::kMicrosecond);
BENCHMARK(Scan_attachment)->Arg(4 << 10)->Arg(256 << 10)->Unit(benchmark::kMicrosecond);
BENCHMARK(Scan_attachmentWithRules)->Arg(4 << 10)->Arg(256 << 10)->Unit(benchmark::kMicrosecond);

}  // namespace
