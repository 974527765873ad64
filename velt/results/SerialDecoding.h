// How the text form of a verdict is read: record lines of a word and a text, tags, and raw payloads behind a count.
// Nothing is allocated for a count before the bytes are there, so a wrong one costs no memory. Any thread; the stream
// is the caller's. Failure: false; what was read so far is then in the target or lost, as each comment says.
#pragma once

#include <eFabric/Property.h>

#include <optional>
#include <string>

namespace VELT {
class BufferedStream;
}

namespace VELT::results {

// A line with its end cut off. Comment lines, which begin with '#', are never seen.
struct RecordLine {
    explicit RecordLine(BufferedStream& stream);  // reads the next one

    int length = 0;  // 0: an empty line or the end of the stream; -1: the stream failed
    bool overflow = false;
    bool has_space = false;
    std::string word;  // up to the first space, or all of it
    std::string text;  // behind it and the blanks after it
};

char const* SkipBlanks(char const* text);  // bytes below 0x21, the signed value counts; up to the NUL

enum class SerialType { None, String, Long, ULong, Double };

struct SerialTag {
    SerialType type;
    bool multi;
};

SerialTag get_type(char const*& text);  // leaves `text` on the value

bool decode(BufferedStream& stream, char const* text, bool& value);
bool decode(BufferedStream& stream, char const* text, int& value);
bool decode(BufferedStream& stream, char const* text, std::string& value);                  // appends
bool decode(BufferedStream& stream, std::optional<std::wstring>& value, char const* text);  // negative count: none

// One property line from behind its section's name and dot. A string's payload cut short leaves the property alone.
// An index makes the bags before it, too, out of `empty_bags`; where none are left it means the bag behind the last.
void decode_property_bag(IKORPropertyBag& bag, BufferedStream& stream, char const* text, unsigned& empty_bags);

constexpr unsigned kMostEmptyBags = 4095;  // that the indices of one verdict may make

void ReportUnknownToken(char const* file, int line, std::string const& token);

}  // namespace VELT::results
