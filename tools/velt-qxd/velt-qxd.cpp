// velt-qxd: prints the capture of a stream readably.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "tools/velt-qxd/CapturePrinter.h"
#include "tools/velt-qxd/CaptureReader.h"

namespace {

using velt_qxd::CaptureReader;

constexpr char kUsage[] = "usage: velt-qxd [--hex] [--json] [--swap] FILE\n       velt-qxd --help\n";

constexpr char kManual[] = R"(NAME
    velt-qxd - print the capture of a stream

SYNOPSIS
    velt-qxd [--hex] [--json] [--swap] FILE

DESCRIPTION
    Prints the records of a capture (docs/formats/capture.md), a file with the
    suffix .qxd, as they stand in it. FILE is a path, or - for the standard
    input. A capture of any size takes the same small amount of memory, and one
    that is still being written may be printed.

    Each record has a head line: its offset in the file, its direction as the
    stream saw it, and its length. The data follows, a line of it a line:

        < received        > sent        * another type, written by a host

    Bytes that are not printable ASCII are \r, \n, \t and \xNN, and a backslash
    is \\. A long line is broken, and then its pieces but the last do not end in
    \n.

    A stream records each attempt to send, with all that was left to send. So
    the records of a send that went out in pieces overlap: each is the tail of
    the one before.

OPTIONS
    --hex   The data as hexadecimal codes, 16 bytes a line, each line with its
            offset in the file. With --json: a text of two digits for each byte.
    --json  A line of JSON for each record: "offset", "direction" ("received",
            "sent" or "other"), "type", "length", and the data as "text", in
            which a character is the byte of its number, or with --hex as "hex".
            "missing" is the count of bytes that a record at the end lacks.
    --swap  The capture comes from a machine of the other byte order.
    --help  Prints this.

EXIT STATUS
    0   The whole capture was printed.
    1   The capture is cut short or garbled, at the offset that is told, or
        cannot be read; or the output cannot be written.
    2   The command line is wrong.
)";

struct Options {
    velt_qxd::Form form;
    bool swapped = false;
    bool help = false;
    bool good = true;
    std::string file;
};

Options Parse(int argc, char** argv) {
    Options options;
    bool onlyFiles = false;
    for (int i = 1; i < argc; ++i) {
        std::string_view const word = argv[i];
        bool const isOption = !onlyFiles && word.size() > 1 && word.front() == '-';
        if (!isOption) {
            options.good = options.good && options.file.empty() && !word.empty();
            options.file = word;
        } else if (word == "--") {
            onlyFiles = true;
        } else if (word == "--hex") {
            options.form.hex = true;
        } else if (word == "--json") {
            options.form.json = true;
        } else if (word == "--swap") {
            options.swapped = true;
        } else if (word == "--help") {
            options.help = true;
        } else {
            options.good = false;
        }
    }
    options.good = options.good && (options.help || !options.file.empty());
    return options;
}

void Complain(std::string const& file, char const* what) {
    std::fprintf(stderr, "velt-qxd: %s: %s\n", file.c_str(), what);
}

// Whether the capture is whole; where it is not, tells how it ends.
bool Judge(CaptureReader const& reader, std::string const& file) {
    char text[160];
    switch (reader.end()) {
        case CaptureReader::End::cutHeader:
            std::snprintf(text, sizeof text,
                          "cut short or garbled: at offset %" PRIu64 ", %" PRIu64
                          " of the 8 bytes of a header are there",
                          reader.offset(), reader.present());
            break;
        case CaptureReader::End::cutData:
            std::snprintf(text, sizeof text,
                          "cut short or garbled: the record at offset %" PRIu64 " says %" PRId32
                          " bytes of data, "
                          "and %" PRIu32 " of them are missing",
                          reader.offset(), reader.record().length, reader.missing());
            break;
        case CaptureReader::End::unreadable:
            std::snprintf(text, sizeof text, "%s", std::strerror(reader.error()));
            break;
        default:
            return true;
    }
    Complain(file, text);
    return false;
}

int PrintFile(Options const& options) {
    std::FILE* const file = options.file == "-" ? stdin : std::fopen(options.file.c_str(), "rb");
    if (!file) {
        Complain(options.file, std::strerror(errno));
        return 1;
    }
    CaptureReader reader(file, options.swapped);
    velt_qxd::Print(reader, options.form, stdout);
    bool const isWhole = Judge(reader, options.file);
    std::fclose(file);
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return isWhole ? 0 : 1;
    Complain("standard output", std::strerror(errno));
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options const options = Parse(argc, argv);
    if (!options.good) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (!options.help) return PrintFile(options);
    std::fputs(kManual, stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
