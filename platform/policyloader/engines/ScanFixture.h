// ScanFixture: a host of the engines for tests: settings out of a text, objects out of texts, verdicts in words.
// Owner: a test, one thread unless said.  Failure: the store's own exceptions.
#pragma once

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <stdlib.h>

#include <KORtk/Text.h>

#include <policyloader/engines/EngineHost.h>
#include <policyloader/engines/MemoryTransport.h>
#include <policyloader/store/ErrorState.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreSnapshot.h>

namespace policyloader {

// One scan with all that belongs to it.
struct Verdict {
    std::unique_ptr<MemoryTransport> in;
    std::unique_ptr<MemoryTransport> out;
    ObjectHandle object;
    IScanResultHandler const* handler = nullptr;

    IKORScanResult const* resultOf(char const* engine) const {
        long pos = 0;
        for (auto const* r = handler->FindFirstScanResult(pos); r; r = handler->FindNextScanResult(pos))
            if (std::string(r->GetScannerClassName()) == engine) return r;
        return nullptr;
    }
    std::string action() const { return handler->GetMasterActionCode() ? handler->GetMasterActionCode() : ""; }
    std::string found(char const* engine) const {
        auto const* const result = resultOf(engine);
        auto const* const list = result ? result->GetInfectionList(L' ') : nullptr;
        return list ? KORtk::Utf8Array(list).str() : "";
    }
    std::string where(char const* engine) const {
        auto const* const result = resultOf(engine);
        auto const* const context = result ? result->GetScanPolContext() : nullptr;
        auto const* const name = context ? context->GetComponentName() : nullptr;
        return name ? KORtk::Utf8Array(name).str() : "";
    }
    std::string text(char const* engine, char const* property) const {
        auto const* const result = resultOf(engine);
        IKORPropertyBag const* const bag = result ? result->GetPropertyBag() : nullptr;
        auto const* const value = bag ? bag->GetProperty(property) : nullptr;
        return value && value->GetNarrow() ? value->GetNarrow() : "";
    }
    bool hasError() const {
        long pos = 0;
        for (auto const* r = handler->FindFirstScanResult(pos); r; r = handler->FindNextScanResult(pos))
            if (r->GetScanErrorStatus()) return true;
        return false;
    }
    bool isClean() const { return !handler->IsTriggered() && !hasError() && action().empty(); }
};

class ScanFixture : public ::testing::Test {
protected:
    ScanFixture() {
        char folder[] = "/tmp/enginesXXXXXX";
        m_folder = ::mkdtemp(folder);
    }
    ~ScanFixture() override {
        ::unlink((m_folder + "/signatures.db").c_str());
        ::rmdir(m_folder.c_str());
    }

    void Signatures(std::string const& text) { std::ofstream(m_folder + "/signatures.db", std::ios::binary) << text; }
    // The inside of the policy "content_in".
    void Policy(std::string const& inside) {
        std::string const actions =
            "<actions><action>LOG</action><action>CLEAN</action><action>REPLACE</action><action>DENY</action></"
            "actions>";
        m_store = ParseStore(
            "test", "<rules version=\"1\"><policy name=\"content_in\">" + actions + inside + "</policy></rules>");
        m_thread.reset();
    }
    bool Start() {
        if (!m_store) Policy("");
        return m_host.initialise(m_folder, m_error);
    }
    ThreadHandle NewThread() { return ThreadHandle(m_host.createScanThread(*m_store, Name("content_in"))); }
    IScanThread& Thread() {
        if (!m_store || m_host.countEngines() == 0) Start();
        if (!m_thread) m_thread = NewThread();
        return *m_thread;
    }
    static InternedString Name(char const* text) { return InternPool::process().intern(text); }

    Verdict Scan(std::string const& text) { return Scan(std::make_unique<MemoryTransport>(text)); }
    Verdict Scan(std::unique_ptr<MemoryTransport> in, bool output = true) {
        Verdict verdict;
        verdict.in = std::move(in);
        verdict.out = std::make_unique<MemoryTransport>();
        verdict.object.reset(Thread().NewScanObject(*verdict.in, InternedString()));
        verdict.handler = verdict.object->Scan(output ? verdict.out.get() : nullptr, nullptr);
        return verdict;
    }

    std::string m_folder;
    ErrorState m_error;
    EngineHost m_host;
    std::unique_ptr<StoreSnapshot const> m_store;
    ThreadHandle m_thread;
};

// The test file of the trade, put together here so that no scanner takes the tree for it.
inline std::string TestVirus() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR") + "-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

// In lines of 76.
inline std::string Base64(std::string const& bytes, std::size_t lineLength = 76) {
    static char const alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string flat, out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        unsigned bits = 0;
        std::size_t const n = std::min<std::size_t>(3, bytes.size() - i);
        for (std::size_t k = 0; k < 3; ++k) bits = bits << 8 | (k < n ? static_cast<unsigned char>(bytes[i + k]) : 0);
        for (std::size_t k = 0; k < 4; ++k) flat += k <= n ? alphabet[bits >> (18 - 6 * k) & 63] : '=';
    }
    for (std::size_t i = 0; i < flat.size(); i += lineLength) out += flat.substr(i, lineLength) + "\r\n";
    return out;
}

// A message of a text and one attachment in base64.
inline std::string WithAttachment(std::string const& name, std::string const& content,
                                  std::string const& text = "Hello.") {
    return "From: a@example.test\r\nTo: b@example.test\r\nSubject: greetings\r\nMIME-Version: 1.0\r\n"
           "Content-Type: multipart/mixed; boundary=\"cut\"\r\n\r\npreamble\r\n--cut\r\n"
           "Content-Type: text/plain; charset=utf-8\r\n\r\n" +
           text + "\r\n--cut\r\nContent-Type: application/octet-stream; name=\"" + name +
           "\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: attachment; filename=\"" + name +
           "\"\r\n\r\n" + Base64(content) + "--cut--\r\n";
}

}  // namespace policyloader
