#include <velt/results/ScanResult.h>

#include <KORtk/Text.h>

#include <cstring>
#include <cwchar>
#include <string>

#include <velt/results/SerialDecoding.h>
#include <velt/runtime/Proxy.h>

namespace VELT {

// --- the words of their lines ---

std::map<std::string_view, ScanPolContextElement::Handler> ScanPolContextElement::s_AsciiDecode;
std::map<std::string_view, ScanResult::Handler> ScanResult::s_AsciiDecode;

struct SRDecodeInit {
    SRDecodeInit() {
        ScanPolContextElement::s_AsciiDecode = {
            {"scan_context_string", &ScanPolContextElement::decode_scan_context_string},
            {"scan_context_component_name", &ScanPolContextElement::decode_scan_component_name},
        };
        ScanResult::s_AsciiDecode = {
            {"cleanstatus", &ScanResult::decode_clean_status},        {"classname", &ScanResult::decode_scanner_class},
            {"infectionlist", &ScanResult::decode_infection_list},    {"errorstatus", &ScanResult::decode_scan_error},
            {"infecteditems", &ScanResult::decode_infected_items},    {"property", &ScanResult::decode_property_bag},
            {"scanpolcontext", &ScanResult::decode_scan_pol_context},
        };
    }
};

namespace {

SRDecodeInit const s_filled;

}  // namespace

// --- ScanPolContextElement ---

wchar_t const* ScanPolContextElement::GetScanContextString(wchar_t* buffer, int size, wchar_t, wchar_t) const {
    if (!buffer || size < 1) return buffer;
    buffer[0] = L'\0';
    if (!scan_context_string) return buffer;
    std::wcsncpy(buffer, scan_context_string->c_str(), static_cast<std::size_t>(size));
    buffer[size - 1] = L'\0';
    return buffer;
}

bool ScanPolContextElement::decode_line(results::SerialSource& source, char const* text) {
    char const* const space = std::strchr(text, ' ');
    std::string_view const word = space ? std::string_view(text, static_cast<std::size_t>(space - text)) : text;
    auto const token = s_AsciiDecode.find(word);
    if (token != s_AsciiDecode.end()) return (this->*token->second)(source, space ? results::SkipBlanks(space) : "");
    results::ReportUnknownToken(__FILE__, __LINE__, word);
    return false;
}

bool ScanPolContextElement::decode_scan_context_string(results::SerialSource& source, char const* count) {
    return results::decode(source, scan_context_string, count);
}

bool ScanPolContextElement::decode_scan_component_name(results::SerialSource& source, char const* count) {
    return results::decode(source, component_name, count);
}

// --- ScanResult ---

ScanResult::ScanResult(BufferedStream* stream, bool decode, bool& ok) {
    ok = decode && !stream;
    if (!decode || !stream) return;
    results::SerialSource source(*stream);
    ok = results::WithMemory([&] { return decode_ascii_stream(source); });
}

ScanResult::ScanResult(results::SerialSource& source, bool& ok) { ok = decode_ascii_stream(source); }

__attribute__((no_sanitize("undefined"))) long ScanResult::Release() {
    if (!this) return 0;  // hosts release a result that they did not get
    delete this;
    return 0;
}

long ScanResult::Release(ScanResult* result) { return result ? result->Release() : 0; }

wchar_t const* ScanResult::GetInfectionList(wchar_t) const {
    return infection_list ? infection_list->c_str() : nullptr;
}

// A section ends at the first line without a space, such as an empty one, and where the stream ends.
bool ScanResult::decode_ascii_stream(results::SerialSource& source) {
    for (;;) {
        results::RecordLine const line(source);
        if (line.length < 0 || !line.has_space) break;
        auto const token = s_AsciiDecode.find(line.word);
        if (token == s_AsciiDecode.end()) {
            results::ReportUnknownToken(__FILE__, __LINE__, line.word);
            return false;
        }
        if (!(this->*token->second)(source, line.text)) return false;
    }
    if (source.overdrawn()) return false;
    fix_system_name();
    return true;
}

// A wrong type leaves no status, where the other fields keep what they had.
bool ScanResult::decode_clean_status(results::SerialSource& source, char const* text) {
    clean_status = 0;
    return results::decode(source, text, clean_status);
}

bool ScanResult::decode_scanner_class(results::SerialSource& source, char const* text) {
    return results::decode(source, text, scanner_class);
}

bool ScanResult::decode_infection_list(results::SerialSource& source, char const* text) {
    return results::decode(source, infection_list, text);
}

bool ScanResult::decode_scan_error(results::SerialSource& source, char const* text) {
    return results::decode(source, text, scan_error);
}

bool ScanResult::decode_infected_items(results::SerialSource& source, char const* text) {
    return results::decode(source, text, infected_items);
}

bool ScanResult::decode_property_bag(results::SerialSource& source, char const* text) {
    if (*text != '.') return false;
    results::decode_property_bag(properties, source, text + 1);
    return true;
}

bool ScanResult::decode_scan_pol_context(results::SerialSource& source, char const* text) {
    if (!scan_pol_context) scan_pol_context = std::make_unique<ScanPolContextElement>();
    return scan_pol_context->decode_line(source, text);
}

// Each process that a result passes through puts its name in front.
void ScanResult::fix_system_name() {
    IKORProperty* const outer = properties.GetProperty("QX_PROPERTIES");
    IKORPropertyBag* const inner = outer && outer->GetType() == KORProp_Bag ? outer->GetBag() : nullptr;
    IKORProperty* const name = inner ? inner->GetProperty("QX_SYSTEM_NAME") : nullptr;
    if (!name) return;
    wchar_t const* const old = name->GetWide();
    std::wstring const own = KORtk::Utf8Array(Proxy::GetProxyHostName(false) + "_").wstr();
    name->SetWide((own + (old ? old : L"")).c_str());
}

}  // namespace VELT
