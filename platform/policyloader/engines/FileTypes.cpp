#include <policyloader/engines/FileTypes.h>

#include <algorithm>
#include <new>

#include <magic.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/RuleText.h>
#include <policyloader/engines/TextCase.h>

namespace policyloader {
namespace {

constexpr char kUnknown[] = "application/octet-stream";
constexpr std::string_view kNext = "\n- ";  // stands between several answers

struct Word {
    std::string_view word;
    char const* type;
};

constexpr Word kWords[] = {
    {"exe", "application/x-dosexec"},
    {"exe", "application/vnd.microsoft.portable-executable"},
    {"exe", "application/x-msdownload"},
    {"elf", "application/x-executable"},
    {"elf", "application/x-pie-executable"},
    {"elf", "application/x-sharedlib"},
    {"elf", "application/x-object"},
    {"macho", "application/x-mach-binary"},
    {"script", "text/x-shellscript"},
    {"script", "text/x-script.python"},
    {"script", "text/x-python"},
    {"script", "text/x-perl"},
    {"script", "text/x-php"},
    {"script", "text/x-ruby"},
    {"script", "text/x-tcl"},
    {"script", "text/x-lua"},
    {"script", "text/x-msdos-batch"},
    {"script", "text/javascript"},
    {"script", "application/javascript"},
    {"java", "application/java-archive"},
    {"java", "application/x-java-applet"},
    {"archive", "application/zip"},
    {"archive", "application/x-7z-compressed"},
    {"archive", "application/x-rar"},
    {"archive", "application/vnd.rar"},
    {"archive", "application/x-tar"},
    {"archive", "application/x-cpio"},
    {"archive", "application/x-archive"},
    {"archive", "application/vnd.ms-cab-compressed"},
    {"archive", "application/x-iso9660-image"},
    {"archive", "application/x-lzh*"},
    {"archive", "application/x-arj"},
    {"archive", "application/x-ace*"},
    {"archive", "application/gzip"},
    {"archive", "application/x-gzip"},
    {"archive", "application/x-bzip2"},
    {"archive", "application/x-xz"},
    {"archive", "application/x-lzma"},
    {"archive", "application/x-lzip"},
    {"archive", "application/zstd"},
    {"archive", "application/x-lz4"},
    {"archive", "application/x-compress"},
    {"zip", "application/zip"},
    {"7z", "application/x-7z-compressed"},
    {"rar", "application/x-rar"},
    {"rar", "application/vnd.rar"},
    {"tar", "application/x-tar"},
    {"cab", "application/vnd.ms-cab-compressed"},
    {"iso", "application/x-iso9660-image"},
    {"gzip", "application/gzip"},
    {"gzip", "application/x-gzip"},
    {"bzip2", "application/x-bzip2"},
    {"xz", "application/x-xz"},
    {"pdf", "application/pdf"},
    {"rtf", "text/rtf"},
    {"office", "application/msword*"},
    {"office", "application/vnd.ms-excel*"},
    {"office", "application/vnd.ms-powerpoint*"},
    {"office", "application/vnd.ms-office*"},
    {"office", "application/vnd.openxmlformats*"},
    {"office", "application/vnd.oasis.opendocument*"},
    {"office", "application/x-ole-storage"},
    {"office", "application/CDFV2*"},
    {"msi", "application/x-msi"},
    {"lnk", "application/x-ms-shortcut"},
    {"flash", "application/x-shockwave-flash"},
    {"flash", "application/vnd.adobe.flash.movie"},
    {"html", "text/html"},
    {"xml", "text/xml"},
    {"xml", "application/xml"},
    {"text", "text/*"},
    {"image", "image/*"},
    {"audio", "audio/*"},
    {"video", "video/*"},
    {"mail", "message/*"},
};

}  // namespace

void FileTypes::Closer::operator()(magic_set* opened) const { magic_close(opened); }

void FileTypes::load() {
    // Compressed contents are unpacked elsewhere, within limits.
    m_magic.reset(magic_open(MAGIC_MIME_TYPE | MAGIC_CONTINUE | MAGIC_RAW | MAGIC_NO_CHECK_COMPRESS));
    if (!m_magic) throw std::bad_alloc();
    if (magic_load(m_magic.get(), nullptr) == 0) return;
    std::string const reason = magic_error(m_magic.get()) ? magic_error(m_magic.get()) : "unknown";
    m_magic.reset();
    throw EngineFailure(FailureId::Database, "the table of file types: " + reason);
}

std::vector<std::string> FileTypes::of(std::string_view head) {
    if (!m_magic) load();
    char const* const answer = magic_buffer(m_magic.get(), head.data(), std::min(head.size(), kHeadBytes));
    std::vector<std::string> types;
    for (std::string_view rest = answer ? answer : kUnknown; !rest.empty();) {
        std::size_t const end = rest.find(kNext);
        if (end != 0) types.emplace_back(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + kNext.size());
    }
    if (types.empty()) types.emplace_back(kUnknown);
    return types;
}

std::vector<std::string> TypesOfWord(std::string_view word) {
    if (word.find('/') != std::string_view::npos) return {std::string(word)};
    std::vector<std::string> types;
    for (auto const& one : kWords)
        if (SameText(one.word, word)) types.emplace_back(one.type);
    return types;
}

bool TypesFit(std::vector<std::string> const& patterns, std::vector<std::string> const& types, bool exception) {
    auto const fits = [&](std::string const& type) {
        return std::any_of(patterns.begin(), patterns.end(), [&](auto const& one) { return FitsBeginning(one, type); });
    };
    return exception ? !types.empty() && fits(types.front()) : std::any_of(types.begin(), types.end(), fits);
}

std::vector<std::string> ReadRuleTypes(Rule const& rule) {
    std::vector<std::string> all;
    ForEachWord(rule.get("type").value_or(""), [&](std::string_view word) {
        auto const types = TypesOfWord(word);
        if (types.empty()) Fail(rule, "type \"" + std::string(word) + "\" is not known");
        all.insert(all.end(), types.begin(), types.end());
    });
    return all;
}

}  // namespace policyloader
