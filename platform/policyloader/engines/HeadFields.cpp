#include <policyloader/engines/HeadFields.h>

#include <algorithm>
#include <cctype>

#include <policyloader/engines/TextCase.h>

namespace policyloader {
namespace {

std::string_view NameOf(std::string_view line) {
    std::size_t const colon = line.find(':');
    if (colon == std::string_view::npos) return {};
    auto name = line.substr(0, colon);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
    return name;
}

bool IsPlain(std::string const& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= ' ' && c < 0x7F; });
}

void AppendCoded(std::string& out, unsigned char c) {
    static constexpr char digits[] = "0123456789ABCDEF";
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_')
        out.push_back(static_cast<char>(c));
    else
        out.append({'%', digits[c >> 4], digits[c & 15]});
}

}  // namespace

std::string KeepFields(std::string_view block, std::string const& lineEnd,
                       std::function<bool(std::string_view name)> const& wanted) {
    std::string out;
    bool kept = false;
    while (!block.empty()) {
        std::size_t const end = block.find('\n');
        auto const line = block.substr(0, end == std::string_view::npos ? end : end + 1);
        block.remove_prefix(line.size());
        bool const folded = line.front() == ' ' || line.front() == '\t';
        bool const blank = line == "\n" || line == "\r\n";
        if (!folded) kept = !blank && wanted(NameOf(line));
        if (kept) out += line;
    }
    if (!out.empty() && out.back() != '\n') out += lineEnd;
    return out;
}

bool HasField(std::string_view block, std::string_view name) {
    bool found = false;
    KeepFields(block, "", [&](std::string_view one) {
        found |= SameText(one, name);
        return false;
    });
    return found;
}

std::string FieldParameter(std::string const& name, std::string const& utf8, std::string const& lineEnd) {
    std::string out = ";" + lineEnd + " " + name;
    if (!IsPlain(utf8)) {
        out += "*=utf-8''";
        for (char const c : utf8) AppendCoded(out, static_cast<unsigned char>(c));
        return out;
    }
    out += "=\"";
    for (char const c : utf8) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

std::string WithLineEnds(std::string_view text, std::string const& lineEnd) {
    std::string out;
    for (char const c : text) c == '\n' ? out += lineEnd : out += c;
    return out;
}

}  // namespace policyloader
