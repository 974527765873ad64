// SerializedEFabricResult: a verdict that was read from its text form, or the empty one, and the writing of any verdict
// in that form (docs/formats/serialised-result.md). To its readers it is what the engines themselves would have given.
// Owner: whoever called deserialize; an output that is given one owns it then. It owns its results: Release on one of
// them would free it twice. Threads: unchanging once read; any. Failure: deserialize gives null, with the reason in
// syslog where a word was unknown, and ENOMEM in errno where memory ran out. Nothing throws but the writing.
#pragma once

#include <eFabric/Result.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <velt/Export.h>
#include <velt/results/ScanResult.h>

namespace VELT {

class BufferedStream;

class VELT_API SerializedEFabricResult : public IScanResultHandler {
public:
    // Writes a verdict, a property section with its empty line, or the lines of a place. A null of any of these, or no
    // stream, writes nothing. What the stream answers is not looked at: a wire that broke shows at the next read. Bags
    // are written as deep as they are read; a property whose name holds a blank or a control byte is left out.
    static void serialize(BufferedStream* stream, IScanResultHandler const* handler);
    static void serialize(BufferedStream* stream, char const* name, IKORPropertyBag const* bag);
    static void serialize(BufferedStream* stream, char const* name, IKORScanPolContextElement const* element);

    // A verdict to a file, which is made or emptied, for all whom the umask lets: the caller's folder says who may see
    // it. 0, or -1: there is no file, or one of those lines that the spool had room for.
    static int dump(char const* path, IScanResultHandler const* handler);

    // A new verdict; a null stream gives the empty one. The end of the stream ends a verdict as its empty line does,
    // without a failure: `ended`, where it is given, tells whether the empty line was there. False: it was cut.
    static SerializedEFabricResult* deserialize(BufferedStream* stream, bool* ended = nullptr);

    // A property section in place of what the bag holds. It ends at its empty line, at the end of the stream, and at a
    // line that does not begin with the name, which is lost; `ended` as above, false in the other two cases, of which
    // `other`, where it is given, is the second. Neither, and EMSGSIZE in errno: it was more than a section may be;
    // ENOMEM: more than there was memory for.
    static void deserialize(BufferedStream* stream, char const* name, IKORPropertyBag& bag, bool* ended = nullptr,
                            bool* other = nullptr);

    SerializedEFabricResult(BufferedStream* stream, bool& ok);
    SerializedEFabricResult(SerializedEFabricResult const&) = delete;
    SerializedEFabricResult& operator=(SerializedEFabricResult const&) = delete;

    void ReportSpecificScanner(char const*) const override {}
    void ResetReportSpecificScanner() const override {}
    IKORScanResult const* FindFirstScanResult(long& pos) const override;  // the master is not among them
    IKORScanResult const* FindNextScanResult(long& pos) const override;
    bool IsModified() const override { return modified; }
    bool IsTriggered() const override { return triggered; }
    bool GetInfectionDescription(wchar_t* buffer, int size) const override;  // false: none, or it does not fit
    bool GetInfectionDescription(DynBuf<wchar_t>&, char const*) const override { return false; }
    // Always true. A separator stands behind each name; the first that does not fit ends the list.
    bool GetInfectionNames(wchar_t* buffer, int size, wchar_t separator) const override;
    bool GetInfectedComponentNames(wchar_t* buffer, int size, wchar_t separator) const override;
    char const* GetMasterActionCode() const override { return action ? action->c_str() : nullptr; }
    IKORScanResult const* GetMasterScanResult() const override { return master.get(); }
    bool DidActionOccur(char const* name) const override;
    bool GetActionList(char* buffer, unsigned& size, char separator, unsigned& count) const override;  // always true
    IKORScanPolContextElement const* GetScanContextStart() const override { return nullptr; }
    void const* GetPolicyStatement() const override { return nullptr; }

private:
    friend struct MSRDecodeInit;  // fills the words that a line may begin with
    using Handler = bool (SerializedEFabricResult::*)(results::SerialSource&, char const* text);
    static std::map<std::string_view, Handler> s_AsciiDecode;

    SerializedEFabricResult() = default;
    bool decode_ascii_stream(BufferedStream* stream, bool& ended);
    bool decode_triggered(results::SerialSource& source, char const* text);
    bool decode_modified(results::SerialSource& source, char const* text);
    bool decode_action(results::SerialSource& source, char const* text);
    bool decode_master_action(results::SerialSource& source, char const* text);
    bool decode_infection_description(results::SerialSource& source, char const* text);
    bool decode_infection_names(results::SerialSource& source, char const* text);
    bool decode_infected_components(results::SerialSource& source, char const* text);
    bool decode_actions(results::SerialSource& source, char const* text);
    bool decode_master_result(results::SerialSource& source, char const* text);
    bool decode_result(results::SerialSource& source, char const* text);
    IKORScanResult const* at(long pos) const;

    bool modified = false;
    bool triggered = false;
    std::string infection_description;
    std::vector<std::string> infection_names;
    std::vector<std::string> infected_components;
    std::vector<std::string> actions;
    std::optional<std::string> action;
    std::unique_ptr<ScanResult> master;
    std::vector<std::unique_ptr<ScanResult>> results;
};

}  // namespace VELT
