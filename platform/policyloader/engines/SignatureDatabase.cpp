#include <policyloader/engines/SignatureDatabase.h>

#include <sys/stat.h>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/store/ErrorState.h>

namespace policyloader {
namespace {

constexpr std::size_t kMaxFileBytes = 64u << 20;
constexpr std::size_t kMaxNameBytes = 128;
constexpr std::size_t kMaxPatternBytes = 1024;
constexpr std::size_t kMinFixedBytes = 4;  // fewer would match everywhere

// The harmless file by which the trade tests its engines.
constexpr char kTestName[] = "EICAR-Test-File";
constexpr char kTestPattern[] =
    "58354F2150254041505B345C505A58353428505E2937434329377D2445494341522D5354414E444152442D414E544956495255532D544553"
    "542D46494C452124482B482A";

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool IsBlankByte(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::size_t SkipBlanks(std::string_view line, std::size_t at) {
    while (at < line.size() && IsBlankByte(line[at])) ++at;
    return at;
}

// One line with the place that its reader has come to.
struct Cursor {
    std::string_view line;
    std::size_t number;
    std::size_t at;

    [[noreturn]] void fail(std::string const& reason) const { throw SignatureError(reason, number, at + 1); }
    bool done() const { return at >= line.size(); }
    void blanks() { at = SkipBlanks(line, at); }
};

std::string ReadName(Cursor& cursor) {
    std::size_t const begin = cursor.at;
    while (!cursor.done() && cursor.line[cursor.at] != ':' && !IsBlankByte(cursor.line[cursor.at])) {
        if (!std::isgraph(static_cast<unsigned char>(cursor.line[cursor.at]))) cursor.fail("a name is printable ASCII");
        ++cursor.at;
    }
    std::string name(cursor.line.substr(begin, cursor.at - begin));
    if (name.empty()) cursor.fail("a name is missing");
    if (name.size() > kMaxNameBytes) cursor.fail("the name is longer than " + std::to_string(kMaxNameBytes) + " bytes");
    cursor.blanks();
    if (cursor.done() || cursor.line[cursor.at] != ':') cursor.fail("\":\" is missing after the name");
    ++cursor.at;
    cursor.blanks();
    return name;
}

void AppendByte(std::string& expression, int high, int low) {
    constexpr char digits[] = "0123456789abcdef";
    expression.append("\\x").append(1, digits[high]).append(1, digits[low]);
}

std::string ReadPattern(Cursor& cursor) {
    std::string expression;
    std::size_t bytes = 0, fixed = 0;
    for (cursor.blanks(); !cursor.done(); cursor.blanks()) {
        auto const pair = cursor.line.substr(cursor.at, 2);
        if (pair == "??") {
            expression.push_back('.');
        } else {
            if (HexValue(pair[0]) < 0) cursor.fail("neither a hexadecimal digit nor \"??\"");
            if (pair.size() < 2 || HexValue(pair[1]) < 0) {
                ++cursor.at;
                cursor.fail("half a byte: a second hexadecimal digit is missing");
            }
            AppendByte(expression, HexValue(pair[0]), HexValue(pair[1]));
            ++fixed;
        }
        cursor.at += 2;
        if (++bytes > kMaxPatternBytes) cursor.fail("longer than " + std::to_string(kMaxPatternBytes) + " bytes");
    }
    if (fixed < kMinFixedBytes) cursor.fail("at least " + std::to_string(kMinFixedBytes) + " fixed bytes are needed");
    return expression;
}

bool TakeSumWord(Cursor& cursor) {
    auto const rest = cursor.line.substr(cursor.at);
    if (rest.size() < 7 || strncasecmp(rest.data(), "sha256", 6) != 0 || !IsBlankByte(rest[6])) return false;
    cursor.at += 6;
    cursor.blanks();
    return true;
}

Sha256 ReadSum(Cursor& cursor) {
    Sha256 sum{};
    for (auto& byte : sum) {
        int value = 0;
        for (int digit = 0; digit < 2; ++digit, ++cursor.at) {
            int const nibble = cursor.done() ? -1 : HexValue(cursor.line[cursor.at]);
            if (nibble < 0) cursor.fail("a sum is 64 hexadecimal digits");
            value = value * 16 + nibble;
        }
        byte = static_cast<unsigned char>(value);
    }
    cursor.blanks();
    if (!cursor.done()) cursor.fail("more behind the sum");
    return sum;
}

std::string DateOf(std::time_t time) {
    std::tm parts{};
    char text[32];
    gmtime_r(&time, &parts);
    std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &parts);
    return text;
}

void Report(ErrorState& error, std::string const& path, std::string const& reason, std::size_t line,
            std::size_t column) {
    auto const place = line ? path + ":" + std::to_string(line) + ":" + std::to_string(column) : path;
    error.Set(KORError_Error, line ? line : static_cast<unsigned long>(FailureId::Database),
              "Signature database cannot be used", place + ": " + reason);
    error.SetAttribute("file", path);
    error.SetAttribute("line", std::to_string(line));
    error.SetAttribute("column", std::to_string(column));
}

}  // namespace

std::shared_ptr<SignatureDatabase const> SignatureDatabase::load(std::string const& path, ErrorState& error) try {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return std::make_shared<SignatureDatabase>(std::string_view());
        throw SignatureError(std::strerror(errno), 0, 0);
    }
    std::ifstream file(path, std::ios::binary);
    if (!file || !S_ISREG(status.st_mode)) throw SignatureError("cannot be opened as a file", 0, 0);
    if (static_cast<std::size_t>(status.st_size) > kMaxFileBytes) throw SignatureError("larger than 64 MiB", 0, 0);
    std::string const text{std::istreambuf_iterator<char>(file), {}};
    auto database = std::make_shared<SignatureDatabase>(std::string_view(text));
    database->m_definitions = DateOf(status.st_mtime);
    return database;
} catch (SignatureError const& problem) {
    Report(error, path, problem.what(), problem.line, problem.column);
    return nullptr;
}

SignatureDatabase::SignatureDatabase(std::string_view text) {
    readLine(std::string(kTestName) + " : " + kTestPattern, 0);
    for (std::size_t number = 1; !text.empty(); ++number) {
        std::size_t const end = text.find('\n');
        readLine(text.substr(0, end), number);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    try {
        m_patterns = std::make_unique<PatternDatabase>(m_expressions);
    } catch (PatternError const& problem) {
        throw SignatureError(problem.what(), m_lines[problem.index()], 1);
    }
    m_expressions = {};
    m_lines = {};
}

void SignatureDatabase::readLine(std::string_view line, std::size_t number) {
    Cursor cursor{line, number, SkipBlanks(line, 0)};
    if (cursor.done() || line[cursor.at] == '#') return;
    std::string name = ReadName(cursor);
    if (TakeSumWord(cursor)) {
        m_sums.emplace(ReadSum(cursor), std::move(name));
        return;
    }
    m_expressions.push_back({ReadPattern(cursor), Pattern::Bytes});
    m_lines.push_back(number);
    m_names.push_back(std::move(name));
}

std::string const* SignatureDatabase::sumName(Sha256 const& sum) const {
    auto const at = m_sums.find(sum);
    return at == m_sums.end() ? nullptr : &at->second;
}

std::size_t SignatureDatabase::SumHash::operator()(Sha256 const& sum) const {
    std::size_t hash;
    std::memcpy(&hash, sum.data(), sizeof hash);
    return hash;
}

}  // namespace policyloader
