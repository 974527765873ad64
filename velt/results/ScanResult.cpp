#include <velt/results/ScanResult.h>

#include <algorithm>
#include <cwchar>
#include <iterator>

#include <velt/results/SerialDecoding.h>
#include <velt/runtime/Proxy.h>

namespace VELT {

// --- ScanPolContextElement ---

wchar_t const* ScanPolContextElement::GetScanContextString(wchar_t* buffer, int size, wchar_t, wchar_t) const {
    if (size < 1) return buffer;
    buffer[0] = L'\0';
    if (!scan_context_string) return buffer;
    std::wcsncpy(buffer, scan_context_string->c_str(), static_cast<std::size_t>(size));
    buffer[size - 1] = L'\0';
    return buffer;
}

bool ScanPolContextElement::decode_line(BufferedStream& stream, std::string const& text) {
    auto const space = text.find(' ');
    std::string const word = text.substr(0, space);
    char const* const count = space == std::string::npos ? "" : results::SkipBlanks(text.c_str() + space);
    if (word == "scan_context_string") return results::decode(stream, scan_context_string, count);
    if (word == "scan_context_component_name") return results::decode(stream, component_name, count);
    results::ReportUnknownToken(__FILE__, __LINE__, word);
    return false;
}

// --- ScanResult ---

ScanResult::Token const ScanResult::s_AsciiDecode[] = {
    {"cleanstatus", &ScanResult::decode_clean_status},        {"classname", &ScanResult::decode_scanner_class},
    {"infectionlist", &ScanResult::decode_infection_list},    {"errorstatus", &ScanResult::decode_scan_error},
    {"infecteditems", &ScanResult::decode_infected_items},    {"property", &ScanResult::decode_property_bag},
    {"scanpolcontext", &ScanResult::decode_scan_pol_context},
};

ScanResult::ScanResult(BufferedStream* stream, bool decode, bool& ok) : empty_bags(results::kMostEmptyBags) {
    ok = decode && (!stream || decode_ascii_stream(*stream));
}

ScanResult::ScanResult(BufferedStream& stream, unsigned& emptyBags, bool& ok) : empty_bags(emptyBags) {
    ok = decode_ascii_stream(stream);
    emptyBags = empty_bags;
}

long ScanResult::Release() {
    delete this;
    return 0;
}

wchar_t const* ScanResult::GetInfectionList(wchar_t) const {
    return infection_list ? infection_list->c_str() : nullptr;
}

// A section ends at the first line without a space, such as an empty one, and where the stream ends.
bool ScanResult::decode_ascii_stream(BufferedStream& stream) {
    for (;;) {
        results::RecordLine const line(stream);
        if (line.length < 0 || !line.has_space) break;
        auto const* const token = std::find_if(std::begin(s_AsciiDecode), std::end(s_AsciiDecode),
                                               [&](Token const& known) { return line.word == known.word; });
        if (token == std::end(s_AsciiDecode)) {
            results::ReportUnknownToken(__FILE__, __LINE__, line.word);
            return false;
        }
        if (!(this->*token->handler)(stream, line.text)) return false;
    }
    fix_system_name();
    return true;
}

bool ScanResult::decode_clean_status(BufferedStream& stream, std::string const& text) {
    clean_status = 0;
    return results::decode(stream, text.c_str(), clean_status);
}

bool ScanResult::decode_scanner_class(BufferedStream& stream, std::string const& text) {
    return results::decode(stream, text.c_str(), scanner_class);
}

bool ScanResult::decode_infection_list(BufferedStream& stream, std::string const& text) {
    return results::decode(stream, infection_list, text.c_str());
}

bool ScanResult::decode_scan_error(BufferedStream& stream, std::string const& text) {
    return results::decode(stream, text.c_str(), scan_error);
}

bool ScanResult::decode_infected_items(BufferedStream& stream, std::string const& text) {
    return results::decode(stream, text.c_str(), infected_items);
}

bool ScanResult::decode_property_bag(BufferedStream& stream, std::string const& text) {
    if (text.empty() || text.front() != '.') return false;
    results::decode_property_bag(properties, stream, text.c_str() + 1, empty_bags);
    return true;
}

bool ScanResult::decode_scan_pol_context(BufferedStream& stream, std::string const& text) {
    if (!scan_pol_context) scan_pol_context = std::make_unique<ScanPolContextElement>();
    return scan_pol_context->decode_line(stream, text);
}

// Each process that a result passes through puts its name in front.
void ScanResult::fix_system_name() {
    IKORProperty* const outer = properties.GetProperty("QX_PROPERTIES");
    IKORPropertyBag* const inner = outer && outer->GetType() == KORProp_Bag ? outer->GetBag() : nullptr;
    IKORProperty* const name = inner ? inner->GetProperty("QX_SYSTEM_NAME") : nullptr;
    if (!name) return;
    char const* const old = name->GetNarrow();
    name->SetNarrow((Proxy::GetProxyHostName(false) + "_" + (old ? old : "")).c_str());
}

}  // namespace VELT
