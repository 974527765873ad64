#include <policyloader/engines/EncodedWords.h>

#include <algorithm>
#include <memory>

#include <glib.h>
#include <strings.h>

#include <policyloader/engines/Base64Decoder.h>
#include <policyloader/engines/CharsetNames.h>

namespace policyloader {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

// "=?charset?B?data?="; all views into the value.
struct Word {
    std::string_view charset;
    std::string_view data;
    std::size_t end = 0;  // of the word, in the value; 0: none
};

Word WordAt(std::string_view value, std::size_t at) {
    if (value.substr(at, 2) != "=?") return {};
    std::size_t const charset = at + 2, kind = value.find('?', charset);
    if (kind == std::string_view::npos || value.size() < kind + 3) return {};
    if ((value[kind + 1] != 'B' && value[kind + 1] != 'b') || value[kind + 2] != '?') return {};
    std::size_t const data = kind + 3, end = value.find('?', data);
    if (end == std::string_view::npos || value.substr(end, 2) != "?=") return {};
    return {value.substr(charset, kind - charset), value.substr(data, end - data), end + 2};
}

bool Same(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

void Decode(std::string_view data, std::string& bytes) {
    Base64Decoder decoder;
    decoder.decode(data, bytes);
    decoder.finish(bytes);
}

void AppendWord(std::string_view charset, std::string const& bytes, std::string& out) {
    std::unique_ptr<char, void (*)(void*)> const data(
        g_base64_encode(reinterpret_cast<guchar const*>(bytes.data()), bytes.size()), &g_free);
    out.append("=?").append(charset).append("?B?").append(data.get()).append("?=");
}

// The words of one character set that stand side by side, each with padding of its own or none.
struct Run {
    std::string bytes;
    std::size_t end = 0;
    bool several = false;
};

Run RunFrom(std::string_view value, Word word) {
    Run run;
    std::string_view const charset = word.charset;
    while (true) {
        Decode(word.data, run.bytes);
        run.end = word.end;
        std::size_t const next = value.find_first_not_of(kBlanks, run.end);
        if (next == std::string_view::npos) return run;
        word = WordAt(value, next);
        if (word.end == 0 || !Same(word.charset, charset)) return run;
        run.several = true;
    }
}

}  // namespace

std::string WithWholeWords(std::string_view value) {
    std::string out;
    for (std::size_t at = 0; at < value.size();) {
        std::size_t const mark = std::min(value.find("=?", at), value.size());
        out.append(value.substr(at, mark - at));
        if (mark == value.size()) break;
        Word const word = WordAt(value, mark);
        Run const run = word.end ? RunFrom(value, word) : Run();
        if (run.several)
            AppendWord(word.charset, run.bytes, out);
        else
            out.append(value.substr(mark, word.end ? word.end - mark : 2));
        at = run.several ? run.end : word.end ? word.end : mark + 2;
    }
    return out;
}

std::string FitForDecoding(std::string_view value) { return WithKnownCharsets(WithWholeWords(value)); }

}  // namespace policyloader
