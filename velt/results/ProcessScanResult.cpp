#include <QXlog/Names.h>
#include <eFabric/Result.h>

#include <cwchar>

#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/logging/Log.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/results/PropertyReading.h>
#include <velt/results/ScanReport.h>
#include <velt/results/ScanStats.h>
#include <velt/scanning/ScanContext.h>
#include <velt/streams/ScannerStream.h>

namespace VELT {

using namespace QXlog::names;
using results::ConnectionAttributes;
using results::FindAny;
using results::ULongOf;
using results::WideOf;

namespace {

constexpr unsigned long kTypeFormat = 4;
constexpr unsigned long kErrorIgnored = 0;
constexpr unsigned long kErrorReported = 1;
constexpr unsigned long kErrorThatMayBeFatal = 15004;

void AddNarrow(KORlog::InfoBag& bag, KORlog::Key const& key, IKORProperty const* property) {
    char const* const text = property ? property->GetNarrow() : nullptr;
    if (text) bag |= key(text);
}

KORlog::InfoBag ErrorBag(Connection const& connection, IKORPropertyBag const* properties) {
    KORlog::InfoBag bag = ConnectionAttributes(connection);
    if (wchar_t const* const text = WideOf(properties, "E_SR_DESCRIPTION_P")) bag |= QXPROP_DESCRIPTION(text);
    if (auto const number = ULongOf(properties, "E_SR_SCANERROR_ID")) bag |= QXPROP_ERROR_ID(*number);
    AddNarrow(bag, QXPROP_FILE_NAME, FindAny(properties, "E_SR_ERROR_ATTR_SRC_FILE"));
    AddNarrow(bag, QXPROP_VALUE, FindAny(properties, "E_SR_ERROR_ATTR_SRC_LINE"));
    if (auto const type = ULongOf(properties, "E_SR_TYPE")) bag |= QXPROP_SCANNER_NAMES(*type);
    return bag;
}

bool HasNothing(ScannerStream const* stream) { return !stream || stream->size() == 0; }

}  // namespace

void ProcessScanResult::Initialise() {
    s_Totals.Initialise(nullptr);
    s_PolicyStats[0].Initialise("from_inside");
    s_PolicyStats[1].Initialise("from_outside");
}

bool ProcessScanResult::DoFallBackScan(ScanOutput const* output) {
    IScanResultHandler const* const verdict = output ? output->result : nullptr;
    if (!verdict) return false;
    if (!verdict->GetMasterActionCode() && HasNothing(output->output)) return false;
    IKORScanResult const* const master = verdict->GetMasterScanResult();
    if (!master) return false;
    IKORPropertyBag const* const properties = master->GetPropertyBag();
    if (ULongOf(properties, "E_SR_TYPE") != kTypeFormat) return false;
    wchar_t const* const refusal = WideOf(properties, "E_SR_DOS_TYPE");
    return refusal && (std::wcscmp(refusal, L"SIZE") == 0 || std::wcscmp(refusal, L"DEPTH") == 0);
}

bool ProcessScanResult::isScannerError(Connection const& connection, IKORScanResult const* result, bool fatal15004) {
    if (!result->GetScanErrorStatus()) return false;
    IKORPropertyBag const* const properties = result->GetPropertyBag();
    auto const level = ULongOf(properties, "E_SR_SCANERROR_LVL");
    if (level == kErrorIgnored) return false;
    LogEvent(events::SCANNER_ERROR, [&] { return ErrorBag(connection, properties); });
    if (fatal15004 && ULongOf(properties, "E_SR_SCANERROR_ID") == kErrorThatMayBeFatal) return true;
    return level != kErrorReported;
}

// What a family answers is not passed on: the result was processed, even if the family had no use for it.
bool ProcessScanResult::ProcessScannerTypes(Connection const& connection, char const* identity,
                                            IKORScanResult const* result, ScannerData& data, bool fatal15004) {
    if (isScannerError(connection, result, fatal15004)) return false;
    IKORPropertyBag const* const bag = result->GetPropertyBag();
    auto const type = ULongOf(bag, "E_SR_TYPE");
    if (!type) return false;
    if (char const* const name = result->GetScannerClassName()) data.className = std::string(name);
    data.type = *type;
    switch (*type) {
        case 1:
            data.kind = std::string("AV");
            ProcessAntiVirusResult(connection, identity, bag, result, data);
            break;
        case 2:
            data.kind = std::string("CF");
            ProcessContentScanResult(connection, identity, bag, result, data);
            break;
        case 3:
            data.kind = std::string("MF");
            ProcessMailFilterResult(connection, identity, bag, result, data);
            break;
        case kTypeFormat:
            data.kind = std::string("FF");
            ProcessFormatResult(connection, identity, bag, result, data);
            break;
        case 5:
            data.kind = std::string("AS");
            ProcessAntiSpamResult(connection, identity, bag, data);
            break;
        case 6:
            data.kind = std::string("IF");
            ProcessInfoResult(connection, identity, bag, data);
            break;
        default:
            break;
    }
    return true;
}

}  // namespace VELT
