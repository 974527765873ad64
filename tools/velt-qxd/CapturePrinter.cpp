#include "tools/velt-qxd/CapturePrinter.h"

#include <cinttypes>
#include <string>
#include <string_view>

namespace velt_qxd {

namespace {

using VELT::CaptureRecord;

constexpr std::size_t kBlock = 4096;     // bytes read at a time
constexpr std::size_t kTextWidth = 100;  // columns, before a long line is broken
constexpr std::size_t kHexWidth = 16;    // bytes in a line
constexpr char kDigits[] = "0123456789abcdef";

bool IsPrintable(unsigned char c) { return c >= 0x20 && c < 0x7F; }

void AppendHex(std::string& out, unsigned char c) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
}

char const* Direction(std::int32_t type) {
    return type == CaptureRecord::received ? "received" : type == CaptureRecord::sent ? "sent" : "other";
}

char Mark(std::int32_t type) { return type == CaptureRecord::received ? '<' : type == CaptureRecord::sent ? '>' : '*'; }

template <class Take>
void ForEachBlock(CaptureReader& reader, Take take) {
    char block[kBlock];
    while (std::size_t const got = reader.Read(block, sizeof block)) take(std::string_view(block, got));
}

// --- text ---

void AppendEscaped(std::string& out, char c) {
    switch (c) {
        case '\r':
            out += "\\r";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\\':
            out += "\\\\";
            break;
        default:
            if (IsPrintable(static_cast<unsigned char>(c))) {
                out += c;
            } else {
                out += "\\x";
                AppendHex(out, static_cast<unsigned char>(c));
            }
    }
}

// A line of the data is a line here; one that is too long is broken, and then does not end in "\n".
void PrintText(CaptureReader& reader, std::FILE* out) {
    std::string const start{Mark(reader.record().type), ' '};
    std::string line;
    auto const flush = [&] {
        if (!line.empty()) std::fprintf(out, "%s%s\n", start.c_str(), line.c_str());
        line.clear();
    };
    ForEachBlock(reader, [&](std::string_view block) {
        for (char const c : block) {
            AppendEscaped(line, c);
            if (c == '\n' || line.size() >= kTextWidth) flush();
        }
    });
    flush();
}

void PrintHexLine(char mark, std::uint64_t offset, std::string_view bytes, std::FILE* out) {
    std::string codes, text;
    for (std::size_t i = 0; i < kHexWidth; ++i) {
        if (i == kHexWidth / 2) codes += ' ';
        if (i >= bytes.size()) {
            codes += "   ";
            continue;
        }
        auto const c = static_cast<unsigned char>(bytes[i]);
        AppendHex(codes, c);
        codes += ' ';
        text += IsPrintable(c) ? bytes[i] : '.';
    }
    std::fprintf(out, "%c %08" PRIx64 "  %s |%s|\n", mark, offset, codes.c_str(), text.c_str());
}

void PrintHex(CaptureReader& reader, std::FILE* out) {
    char const mark = Mark(reader.record().type);
    std::uint64_t offset = reader.position();
    std::string line;
    auto const flush = [&] {
        if (!line.empty()) PrintHexLine(mark, offset, line, out);
        offset += line.size();
        line.clear();
    };
    ForEachBlock(reader, [&](std::string_view block) {
        for (char const c : block) {
            line += c;
            if (line.size() == kHexWidth) flush();
        }
    });
    flush();
}

void PrintHead(CaptureReader const& reader, std::FILE* out) {
    CaptureRecord const& record = reader.record();
    std::fprintf(out, "@%" PRIu64 " %s", reader.offset(), Direction(record.type));
    if (record.type != CaptureRecord::received && record.type != CaptureRecord::sent)
        std::fprintf(out, " (type %" PRId32 ")", record.type);
    if (record.length < 0)
        std::fprintf(out, ", no data (length %" PRId32 ")\n", record.length);
    else
        std::fprintf(out, " %" PRId32 " %s\n", record.length, record.length == 1 ? "byte" : "bytes");
}

// --- JSON ---

void AppendJson(std::string& out, char c, bool hex) {
    auto const byte = static_cast<unsigned char>(c);
    if (hex) return AppendHex(out, byte);
    if (c == '"' || c == '\\') out += '\\';
    if (IsPrintable(byte)) {
        out += c;
    } else {
        out += "\\u00";
        AppendHex(out, byte);
    }
}

void PrintJson(CaptureReader& reader, bool hex, std::FILE* out) {
    CaptureRecord const& record = reader.record();
    std::fprintf(out,
                 "{\"offset\":%" PRIu64 ",\"direction\":\"%s\",\"type\":%" PRId32 ",\"length\":%" PRId32 ",\"%s\":\"",
                 reader.offset(), Direction(record.type), record.type, record.length, hex ? "hex" : "text");
    ForEachBlock(reader, [&](std::string_view block) {
        std::string text;
        for (char const c : block) AppendJson(text, c, hex);
        std::fputs(text.c_str(), out);
    });
    std::fputs("\"", out);
    if (reader.missing() > 0) std::fprintf(out, ",\"missing\":%" PRIu32, reader.missing());
    std::fputs("}\n", out);
}

}  // namespace

void Print(CaptureReader& reader, Form const& form, std::FILE* out) {
    while (reader.Next()) {
        if (form.json) {
            PrintJson(reader, form.hex, out);
            continue;
        }
        PrintHead(reader, out);
        if (form.hex)
            PrintHex(reader, out);
        else
            PrintText(reader, out);
    }
}

}  // namespace velt_qxd
