// The helpers for command lines and ports, against what their descriptions say in other words.
#include <cstring>
#include <string>
#include <vector>

#include <velt/streams/NetUtils.h>

#include "fuzz/Input.h"

using velt_fuzz::Require;

namespace {

bool IsBlank(char c) { return std::strchr(" \t\n\v\f\r", c) != nullptr; }

// Step one: what each byte means, with escapes taken apart. Step two: words.
std::vector<std::string> ModelTokens(std::string const& text) {
    std::size_t at = 0;
    while (at < text.size() && (IsBlank(text[at]) || text[at] == ',')) ++at;
    std::vector<std::string> words;
    std::string word;
    std::size_t const quote = [&] {
        for (std::size_t i = at; i < text.size(); ++i) {
            if (text[i] == '\\')
                ++i;
            else if (text[i] == '"' || text[i] == '\'')
                return i;
        }
        return std::string::npos;
    }();
    for (; at < text.size(); ++at) {
        bool const quoted = quote != std::string::npos && at >= quote;
        if (text[at] == '\\') {
            if (++at == text.size()) break;
            word += text[at] == 'n' ? '\n' : text[at] == 't' ? '\t' : text[at];
        } else if (quoted && text[at] == text[quote]) {
            continue;
        } else if (!quoted && IsBlank(text[at])) {
            words.push_back(word);
            word.clear();
            while (at + 1 < text.size() && IsBlank(text[at + 1])) ++at;
        } else {
            word += text[at];
        }
    }
    if (!word.empty()) words.push_back(word);
    return words;
}

void CheckTokens(std::string const& text) {
    std::vector<std::string> words{"kept"};
    Require(VELT::Tokenize(text.c_str(), words) == 0, "Tokenize answers 0");
    Require(words.front() == "kept", "words are appended");
    words.erase(words.begin());
    Require(words == ModelTokens(text), "the same words");
}

void CheckPort(std::string const& text) {
    unsigned value = 0;
    bool digits = true;
    for (char const c : text) {
        digits = digits && c >= '0' && c <= '9';
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    Require(VELT::IsAllDigits(text) == digits, "digits are digits");
    short const port = VELT::StrToTCPPort(text);
    if (digits && text.size() < 10) Require(port == static_cast<short>(value), "the port wraps at 16 bits");
}

void CheckLowerCase(std::string text) {
    std::string lowered = text;
    VELT::StrToLowerCase(lowered.data());
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    Require(lowered == text, "the letters alone change");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const text(std::string(reinterpret_cast<char const*>(data), size).c_str());
    CheckTokens(text);
    CheckLowerCase(text);
    CheckPort(text.substr(0, 24));
    return 0;
}
