// A capture that may be cut or garbled: what is read of it against a plain walk over its bytes, and each printed form
// against what it stands for.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/Input.h"
#include "tools/velt-qxd/CapturePrinter.h"
#include "tools/velt-qxd/CaptureReader.h"

using velt_fuzz::Require;
using velt_qxd::CaptureReader;
using End = CaptureReader::End;

namespace {

struct Record {
    VELT::CaptureRecord head;
    std::size_t offset;
    std::string data;
};

struct Walk {
    std::vector<Record> records;
    End end = End::whole;
    std::size_t missing = 0;
};

std::int32_t Number(std::string bytes, bool swapped) {
    if (swapped) std::reverse(bytes.begin(), bytes.end());
    std::int32_t number;
    std::memcpy(&number, bytes.data(), sizeof number);
    return number;
}

Walk Model(std::string const& file, bool swapped) {
    Walk walk;
    for (std::size_t at = 0; at < file.size();) {
        if (file.size() - at < 8) {
            walk.end = End::cutHeader;
            return walk;
        }
        Record record{{Number(file.substr(at, 4), swapped), Number(file.substr(at + 4, 4), swapped)}, at, ""};
        std::size_t const wanted = record.head.length > 0 ? static_cast<std::size_t>(record.head.length) : 0;
        record.data = file.substr(at + 8, wanted);
        at += 8 + record.data.size();
        walk.missing = wanted - record.data.size();
        if (walk.missing > 0) walk.end = End::cutData;
        walk.records.push_back(std::move(record));
    }
    return walk;
}

// The bytes as a file; an empty one has no memory to be one of.
std::FILE* Open(std::string& bytes) {
    return bytes.empty() ? std::fopen("/dev/null", "rb") : ::fmemopen(bytes.data(), bytes.size(), "rb");
}

struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Close>;

void CheckReader(std::string bytes, bool swapped, unsigned room, Walk const& walk) {
    File const file(Open(bytes));
    CaptureReader reader(file.get(), swapped);
    std::string block(room, 0);
    for (Record const& expected : walk.records) {
        Require(reader.Next(), "a record");
        Require(reader.offset() == expected.offset, "its offset");
        Require(reader.record().type == expected.head.type, "its type");
        Require(reader.record().length == expected.head.length, "its length");
        std::string data;
        while (std::size_t const got = reader.Read(block.data(), room)) data.append(block, 0, got);
        Require(data == expected.data, "its data");
    }
    Require(!reader.Next() && !reader.Next(), "no more records");
    Require(reader.end() == walk.end, "the same end");
    Require(walk.end != End::cutData || reader.missing() == walk.missing, "as much is missing");
}

std::string Printed(std::string bytes, bool swapped, velt_qxd::Form const& form) {
    char* text = nullptr;
    std::size_t length = 0;
    {
        File const out(::open_memstream(&text, &length));
        File const file(Open(bytes));
        CaptureReader reader(file.get(), swapped);
        Print(reader, form, out.get());
    }
    std::string const printed(text, length);
    std::free(text);
    for (char const c : printed) Require(c == '\n' || (c >= 0x20 && c < 0x7F), "only what a terminal may see");
    return printed;
}

// The byte of an escape: what stands behind the backslash, `at` being on it.
char Unescaped(std::string const& line, std::size_t& at) {
    char const kind = line[++at];
    if (kind == 'r') return '\r';
    if (kind == 'n') return '\n';
    if (kind == 't') return '\t';
    if (kind != 'x' && kind != 'u') return kind;
    at += kind == 'x' ? 2 : 4;
    return static_cast<char>(std::stoi(line.substr(at - 1, 2), nullptr, 16));
}

std::string Unescaped(std::string const& line) {
    std::string text;
    for (std::size_t at = 0; at < line.size(); ++at) text += line[at] == '\\' ? Unescaped(line, at) : line[at];
    return text;
}

// All data, one record behind the other.
std::string FromText(std::string const& printed) {
    std::string data;
    velt_fuzz::Input lines(reinterpret_cast<std::uint8_t const*>(printed.data()), printed.size());
    while (!lines.empty()) {
        std::string const line = lines.Line();
        if (line.front() != '@') data += Unescaped(line.substr(2));
    }
    return data;
}

std::string FromJson(std::string const& printed) {
    static std::string const key = "\"text\":\"";
    std::string data;
    velt_fuzz::Input lines(reinterpret_cast<std::uint8_t const*>(printed.data()), printed.size());
    while (!lines.empty()) {
        std::string const line = lines.Line();
        std::size_t const begin = line.find(key) + key.size();
        std::size_t end = begin;
        while (line[end] != '"') end += line[end] == '\\' ? 2 : 1;
        data += Unescaped(line.substr(begin, end - begin));
    }
    return data;
}

}  // namespace

// The first byte: the order of the bytes, and how many are asked for at a time. The rest is the capture.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    unsigned const options = input.Byte();
    bool const swapped = options & 1;
    std::string const file = input.Rest();
    Walk const walk = Model(file, swapped);
    CheckReader(file, swapped, 1 + options / 2, walk);
    std::string all;
    for (Record const& record : walk.records) all += record.data;
    Require(FromText(Printed(file, swapped, {false, false})) == all, "the text holds all bytes");
    Require(FromJson(Printed(file, swapped, {true, false})) == all, "the JSON holds all bytes");
    Printed(file, swapped, {false, true});
    Printed(file, swapped, {true, true});
    return 0;
}
