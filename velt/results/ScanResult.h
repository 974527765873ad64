// ScanResult and ScanPolContextElement: one result of a verdict that was read from its text form, and the component it
// is about. They answer the framework's read interfaces from plain data; what serves the framework's own processing
// answers 0 and does nothing.
// Owner: the verdict that read them; Release destroys one, so a host never calls it on a result that a verdict holds.
// Threads: unchanging once read; any. Failure: a field that was not there answers 0, null or empty.
#pragma once

#include <eFabric/Result.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <velt/Export.h>

namespace VELT {

class BufferedStream;
namespace results {
class SerialSource;
}

class VELT_API ScanPolContextElement : public IKORScanPolContextElement {
public:
    bool IsChildOf(IKORScanPolContextElement const*) const override { return false; }
    long GetComponentIndex() const override { return 0; }
    int GetComponentType() const override { return 0; }
    wchar_t const* GetComponentName() const override { return component_name ? component_name->c_str() : nullptr; }
    // The text as it was written, whatever the separators; a longer one is cut.
    wchar_t const* GetScanContextString(wchar_t* buffer, int size, wchar_t, wchar_t) const override;
    IKORScanPolContextElement const* GetParent() const override { return nullptr; }
    IKORScanPolContextElement const* GetFirstChild(long&) const override { return nullptr; }
    IKORScanPolContextElement const* GetNextChild(long&) const override { return nullptr; }
    bool CheckInContext(char const*, bool, bool) const override { return false; }
    int GetInfectedStatus() const override { return 0; }
    bool IsTopLevel() const override { return false; }
    bool StateReset() const override { return false; }

    bool decode_line(results::SerialSource& source, char const* text);  // a field's word, its count; then the payload

private:
    friend struct SRDecodeInit;  // fills the words that a line may begin with, here and in ScanResult
    using Handler = bool (ScanPolContextElement::*)(results::SerialSource&, char const* count);
    static std::map<std::string_view, Handler> s_AsciiDecode;

    bool decode_scan_context_string(results::SerialSource& source, char const* count);
    bool decode_scan_component_name(results::SerialSource& source, char const* count);

    std::optional<std::wstring> scan_context_string;
    std::optional<std::wstring> component_name;
};

class VELT_API ScanResult : public IKORScanResult {
public:
    ScanResult(BufferedStream* stream, bool decode, bool& ok);  // reads one section, unless `decode` is false
    ScanResult(results::SerialSource& source, bool& ok);        // one section of a verdict
    ScanResult(ScanResult const&) = delete;
    ScanResult& operator=(ScanResult const&) = delete;

    long AddRef() override { return 0; }
    // Called by that name, ScanResult::Release, it may be called on null, as the form that takes the result may be.
    long Release() override;
    static long Release(ScanResult* result);
    void AddDescriptionProperty(IAlertHandler const&) override {}
    void Init() override {}
    void GetInfectionList(wchar_t*, int, wchar_t) const override {}
    long GetInfectionList(wchar_t const*) const override { return 0; }
    wchar_t const* GetInfectionList(wchar_t) const override;  // names with spaces between, whatever the separator
    int IsCleaned() const override { return clean_status; }
    int InfectedItems() const override { return infected_items; }
    char const* GetScannerClassName() const override { return scanner_class.c_str(); }
    bool GetScanErrorStatus() const override { return scan_error; }
    void Finalise(IKORScanPolContextElement const*, IAlertHandler const&, IKORPropertyBag const* const, ...) override {}
    IKORScanPolContextElement const* GetScanPolContext() const override { return scan_pol_context.get(); }
    IKORPropertyBag* GetPropertyBag() const override { return &properties; }

private:
    friend struct SRDecodeInit;
    using Handler = bool (ScanResult::*)(results::SerialSource&, char const* text);
    static std::map<std::string_view, Handler> s_AsciiDecode;

    bool decode_ascii_stream(results::SerialSource& source);
    bool decode_clean_status(results::SerialSource& source, char const* text);
    bool decode_scanner_class(results::SerialSource& source, char const* text);
    bool decode_infection_list(results::SerialSource& source, char const* text);
    bool decode_scan_error(results::SerialSource& source, char const* text);
    bool decode_infected_items(results::SerialSource& source, char const* text);
    bool decode_property_bag(results::SerialSource& source, char const* text);
    bool decode_scan_pol_context(results::SerialSource& source, char const* text);
    void fix_system_name();

    mutable KORPropertyBag properties;
    int clean_status = 0;
    int infected_items = 0;
    bool scan_error = false;
    std::string scanner_class;
    std::optional<std::wstring> infection_list;
    std::unique_ptr<ScanPolContextElement> scan_pol_context;
};

}  // namespace VELT
