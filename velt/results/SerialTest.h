// Text forms of verdicts as tests write and read them, and what a library's call of syslog said.
// Owner: the test. Thread: one. Failure: none.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <testing/ScriptedStream.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/streams/ScannerStream.h>

namespace velt_testing {

using Verdict = std::unique_ptr<VELT::SerializedEFabricResult>;

inline std::string WideBytes(std::wstring const& text) {
    return std::string(reinterpret_cast<char const*>(text.data()), text.size() * sizeof(wchar_t));
}

// A count, and the characters behind it.
inline std::string Wide(std::wstring const& text) { return std::to_string(text.size()) + "\n" + WideBytes(text); }

class Text {
public:
    explicit Text(std::string const& text) : stream(static_cast<unsigned>(text.size() + 65536)) {
        stream.write(text.data(), static_cast<unsigned>(text.size()));
        stream.seek(0, 0);
    }
    VELT::ScannerStream stream;
};

inline Verdict Read(std::string const& text, bool* ended = nullptr) {
    Text source(text);
    return Verdict(VELT::SerializedEFabricResult::deserialize(&source.stream, ended));
}

inline IKORProperty const* PropertyOf(IKORPropertyBag const& bag, char const* name) { return bag.GetProperty(name); }

inline long LongOf(IKORPropertyBag const& bag, char const* name) {
    long number = -99999;
    if (auto const* const property = PropertyOf(bag, name)) property->GetLong(number);
    return number;
}

// While it lives, syslog is kept and not sent: "PRIORITY TEXT".
class KeptSyslog {
public:
    KeptSyslog() { s_kept = &m_lines; }
    ~KeptSyslog() { s_kept = nullptr; }
    KeptSyslog(KeptSyslog const&) = delete;
    KeptSyslog& operator=(KeptSyslog const&) = delete;
    std::vector<std::string> const& lines() const { return m_lines; }

    static inline std::vector<std::string>* s_kept = nullptr;

private:
    std::vector<std::string> m_lines;
};

}  // namespace velt_testing
