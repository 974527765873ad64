#include <policyloader/engines/CharsetNames.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace policyloader {
namespace {

constexpr std::string_view kNames[] = {
    "ansi_x3.4-1968", "arabic",       "ascii",        "big5",         "big5-hkscs",     "cp1250",       "cp1251",
    "cp1252",         "cp1253",       "cp1254",       "cp1255",       "cp1256",         "cp1257",       "cp1258",
    "cp437",          "cp850",        "cp852",        "cp866",        "cp874",          "cp932",        "cp936",
    "cp949",          "cp950",        "euc-cn",       "euc-jp",       "euc-kr",         "euc-tw",       "eucjp",
    "euckr",          "gb18030",      "gb2312",       "gbk",          "greek",          "hebrew",       "hz-gb-2312",
    "ibm437",         "ibm850",       "ibm852",       "ibm855",       "ibm866",         "iso-2022-cn",  "iso-2022-jp",
    "iso-2022-jp-2",  "iso-2022-kr",  "iso-8859-1",   "iso-8859-10",  "iso-8859-11",    "iso-8859-13",  "iso-8859-14",
    "iso-8859-15",    "iso-8859-16",  "iso-8859-2",   "iso-8859-3",   "iso-8859-4",     "iso-8859-5",   "iso-8859-6",
    "iso-8859-7",     "iso-8859-8",   "iso-8859-8-i", "iso-8859-9",   "iso8859-1",      "iso8859-15",   "iso8859-2",
    "iso_8859-1",     "koi8-r",       "koi8-t",       "koi8-u",       "ks_c_5601-1987", "latin1",       "latin2",
    "macintosh",      "shift-jis",    "shift_jis",    "sjis",         "tis-620",        "ucs-2",        "us-ascii",
    "utf-16",         "utf-16be",     "utf-16le",     "utf-32",       "utf-32be",       "utf-32le",     "utf-7",
    "utf-8",          "utf16",        "utf7",         "utf8",         "viscii",         "windows-1250", "windows-1251",
    "windows-1252",   "windows-1253", "windows-1254", "windows-1255", "windows-1256",   "windows-1257", "windows-1258",
    "windows-31j",    "windows-874",  "x-sjis",
};
static_assert(std::is_sorted(std::begin(kNames), std::end(kNames)));

constexpr std::size_t kLongest = 16;
constexpr std::string_view kStandIn = "windows-1252";

// The name of a character set that begins at `at`; empty when none is named there. It stands behind "=?" and before the
// "?" and the letter of an encoded word's encoding, or behind "*=" outside of quotes and before a "'".
std::string_view NameAt(std::string_view value, std::size_t at, bool quoted) {
    std::string_view const mark = value.substr(at - 2, 2);
    bool const word = mark == "=?", parameter = mark == "*=" && !quoted;
    if (!word && !parameter) return {};
    std::size_t const end = value.find_first_of(word ? "?" : "'\";", at);
    if (end == std::string_view::npos) return {};
    if (parameter) return value[end] == '\'' ? value.substr(at, end - at) : std::string_view();
    bool const encoding = value.size() > end + 2 && std::strchr("QqBb", value[end + 1]) && value[end + 2] == '?';
    return encoding ? value.substr(at, end - at) : std::string_view();
}

}  // namespace

bool IsKnownCharset(std::string_view name) {
    if (name.size() > kLongest) return false;
    std::array<char, kLongest> lower;
    std::transform(name.begin(), name.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 'a' - 'A') : c; });
    return std::binary_search(std::begin(kNames), std::end(kNames), std::string_view(lower.data(), name.size()));
}

std::string WithKnownCharsets(std::string_view value) {
    std::string known;
    known.reserve(value.size());
    bool quoted = false;
    for (std::size_t at = 0; at < value.size(); ++at) {
        std::string_view const charset = at < 2 ? std::string_view() : NameAt(value, at, quoted);
        std::string_view const name = charset.substr(0, charset.find('*'));  // behind the star: a language, RFC 2231
        if (!charset.empty() && !IsKnownCharset(name)) {
            known.append(kStandIn);
            at += charset.size();
        }
        quoted ^= value[at] == '"';
        known += value[at];
    }
    return known;
}

}  // namespace policyloader
