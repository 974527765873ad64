// Signature databases: a text is refused exactly where its grammar is broken, at that line; and what a database lists
// is found wherever it stands, in whatever pieces it comes.
#include <cctype>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <policyloader/engines/PatternDatabase.h>
#include <policyloader/engines/SignatureDatabase.h>

#include "fuzz/Input.h"

using namespace policyloader;
using velt_fuzz::Input;
using velt_fuzz::Require;

namespace {

constexpr char kBlanks[] = " \t\r";
constexpr std::size_t kMostBytes = 4096;  // more would only compile for longer

std::string Trim(std::string const& text) {
    std::size_t const begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

bool IsHex(std::string const& text) { return text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos; }

// One entry, as the page of the format has it.
struct Entry {
    std::string name;
    std::vector<std::optional<unsigned char>> pattern;  // nothing: any byte
    std::optional<Sha256> sum;
};

bool ReadSum(std::string const& digits, Entry& entry) {
    if (digits.size() != 64 || !IsHex(digits)) return false;
    entry.sum.emplace();
    for (std::size_t i = 0; i < entry.sum->size(); ++i)
        (*entry.sum)[i] = static_cast<unsigned char>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
    return true;
}

bool ReadPattern(std::string text, Entry& entry) {
    std::size_t fixed = 0;
    for (; !text.empty(); text = Trim(text.substr(2))) {
        std::string const byte = text.substr(0, 2);
        bool const any = byte == "??";
        if (byte.size() < 2 || (!any && !IsHex(byte))) return false;
        entry.pattern.emplace_back();
        if (any) continue;
        entry.pattern.back() = static_cast<unsigned char>(std::stoi(byte, nullptr, 16));
        ++fixed;
    }
    return fixed >= 4 && entry.pattern.size() <= 1024;
}

bool ReadEntry(std::string const& line, Entry& entry) {
    entry.name = line.substr(0, line.find_first_of(": \t\r"));
    if (entry.name.empty() || entry.name.size() > 128) return false;
    for (char const c : entry.name)
        if (!std::isgraph(static_cast<unsigned char>(c))) return false;
    std::string rest = Trim(line.substr(entry.name.size()));
    if (rest.substr(0, 1) != ":") return false;
    rest = Trim(rest.substr(1));
    std::string word = rest.substr(0, 6);
    for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    bool const sum = word == "sha256" && rest.size() > 6 && std::string(kBlanks).find(rest[6]) != std::string::npos;
    return sum ? ReadSum(Trim(rest.substr(6)), entry) : ReadPattern(rest, entry);
}

// The entries of a text; the number of the first line that is none, or 0.
std::size_t ReadAll(std::string const& text, std::vector<Entry>& entries) {
    std::size_t number = 0;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t const end = std::min(text.find('\n', at), text.size());
        std::string const line = Trim(text.substr(at, end - at));
        at = end + 1;
        ++number;
        if (line.empty() || line[0] == '#') continue;
        Entry entry;
        if (!ReadEntry(line, entry)) return number;
        entries.push_back(std::move(entry));
    }
    return 0;
}

// --- what is found ---

class Search final : private MatchHandler {
public:
    explicit Search(SignatureDatabase const& database) : m_database(database) { m_scratch.fit(database.patterns()); }

    std::set<std::string> In(std::string const& text, std::size_t piece) {
        m_found.clear();
        PatternStream stream(m_database.patterns(), m_scratch, *this);
        for (std::size_t at = 0; at < text.size(); at += piece) stream.data(std::string_view(text).substr(at, piece));
        stream.finish();
        return m_found;
    }

private:
    void matched(unsigned id) override { m_found.insert(m_database.patternName(id)); }

    SignatureDatabase const& m_database;
    PatternScratch m_scratch;
    std::set<std::string> m_found;
};

std::string Example(Entry const& entry, unsigned char any) {
    std::string bytes;
    for (auto const& byte : entry.pattern) bytes += static_cast<char>(byte.value_or(any));
    return bytes;
}

void CheckFound(SignatureDatabase const& database, std::vector<Entry> const& entries, unsigned char any,
                std::size_t piece) {
    Search search(database);
    for (auto const& entry : entries) {
        if (entry.sum) {
            Require(database.hasSums() && database.sumName(*entry.sum), "a sum that is listed is known");
            continue;
        }
        std::string const text = "before" + Example(entry, any) + "behind";
        auto const found = search.In(text, piece);
        Require(found.count(entry.name) == 1, "a pattern is found");
        Require(found == search.In(text, text.size()), "pieces do not change what is found");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > kMostBytes) return 0;
    Input input(data, size);
    auto const any = static_cast<unsigned char>(input.Byte());
    std::size_t const piece = input.Byte() % 16 + 1;
    std::string const text = input.Rest();
    std::vector<Entry> entries;
    std::size_t const bad = ReadAll(text, entries);
    try {
        SignatureDatabase const database(text);
        Require(bad == 0, "what is no database is refused");
        CheckFound(database, entries, any, piece);
    } catch (SignatureError const& error) {
        Require(bad == error.line && error.column > 0, "a database is refused where it is broken");
    }
    return 0;
}
