#include <velt/results/ResultDump.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <system/Descriptor.h>
#include <system/UUID.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <string_view>

#include <velt/results/PropertyReading.h>

namespace VELT {

namespace {

constexpr char const* kFolders[] = {"/tmp/smtp_result/", "/tmp/http_result/", "/tmp/pop3_result/", "/tmp/ftp_result/"};
constexpr char const* kFolderOfOthers = "/tmp/";
constexpr mode_t kFolderMode = 0777;
constexpr mode_t kFileMode = 0600;

// The lines of a dump; one whose text is not there is left out.
class Lines {
public:
    void Add(char const* what, std::string_view text) { m_text.append(what).append(text).append("\n"); }
    void Add(char const* what, char const* text) {
        if (text) Add(what, std::string_view(text));
    }
    void Add(char const* what, boost::optional<std::string> const& text) {
        if (text) Add(what, std::string_view(*text));
    }
    void Add(char const* what, boost::optional<KORtk::Utf8Array> const& text) {
        if (text) Add(what, std::string_view(text->str()));
    }
    std::string const& text() const { return m_text; }

private:
    std::string m_text;
};

void AddActions(Lines& lines, IKORScanResult const* result) {
    IKORProperty const* const actions = results::FindAny(result ? result->GetPropertyBag() : nullptr, "E_SR_ACTION");
    for (unsigned i = 0, count = actions ? actions->GetCount() : 0; i < count; ++i) {
        lines.Add("Secondary Action is ", actions->GetNarrowAt(i));
    }
}

void WriteWhole(int file, std::string_view text) {
    while (!text.empty()) {
        ssize_t const written = ::write(file, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

// A link at the end of a path is followed when a slash stands behind it.
std::string WithoutSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

namespace results {

char const* DumpFolder(ProcessScanResult::protocol protocol) {
    auto const index = static_cast<unsigned>(protocol);
    return index < std::size(kFolders) ? kFolders[index] : kFolderOfOthers;
}

std::string DumpText(IScanResultHandler const* handler, IKORScanResult const* result, ScannerData const& data,
                     std::string const& auditId) {
    Lines lines;
    lines.Add("Master Action is ", handler ? handler->GetMasterActionCode() : nullptr);
    AddActions(lines, result);
    if (!auditId.empty()) lines.Add("Audit ID is ", std::string_view(auditId));
    if (data.type) lines.Add("Scanner Type is ", std::string_view(std::to_string(*data.type)));
    lines.Add("Scanner Name is ", data.kind);
    lines.Add("Scanner Reason is ", data.reason);
    lines.Add("Scanner File Name is ", data.fileName);
    return lines.text();
}

void WriteDump(std::string const& folder, std::string const& text) {
    std::string const path = WithoutSlash(folder);
    static_cast<void>(::mkdir(path.c_str(), kFolderMode));  // it is mostly there already
    Descriptor const where(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!where) return;
    Descriptor const file(
        ::openat(where.get(), UUID::get().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (file) WriteWhole(file.get(), text);
}

}  // namespace results

void ProcessScanResult::DumpResult(IScanResultHandler const* handler, IKORScanResult const* result, ScannerData& data,
                                   ProcessScanResult::protocol protocol, std::string auditId) {
    results::WriteDump(results::DumpFolder(protocol), results::DumpText(handler, result, data, auditId));
}

}  // namespace VELT
