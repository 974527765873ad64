// How the text form of a verdict is read: record lines of a word and a text, tags, and raw payloads behind a count.
// Nothing is allocated for a count before the bytes are there, so a wrong one costs no memory. Any thread; the stream
// is the caller's. Failure: false; what was read so far is then in the target or lost, as each comment says.
#pragma once

#include <eFabric/Property.h>

#include <cerrno>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VELT {
class BufferedStream;
}

namespace VELT::results {

// What `read` answers; false with ENOMEM where memory ran out on the way.
template <class Read>
bool WithMemory(Read read) {
    try {
        return read();
    } catch (std::bad_alloc const&) {
        errno = ENOMEM;
        return false;
    }
}

constexpr long kMostCharacters = 64l << 20;        // of one string
constexpr unsigned long kMostBytes = 256ul << 20;  // of one verdict or section
constexpr unsigned long kLineBytes = 1024;  // that a line counts for beyond its own: what it may make takes memory
constexpr long kMostIndex = 1023;           // of a bag among the elements of its property
constexpr unsigned kMostSegments = 64;      // of a property's path, its own name included
constexpr unsigned kMostBags = 65536;       // that the paths of one verdict or section make

// The stream of one verdict or section, and what may still be taken from it. Its end is one for good, also where it was
// a wait that ran out: what comes later would be taken for what it is not.
class SerialSource {
public:
    explicit SerialSource(BufferedStream& stream) : m_stream(stream) {}
    SerialSource(SerialSource const&) = delete;
    SerialSource& operator=(SerialSource const&) = delete;

    int ReadLine(char*& line, bool& complete);       // as getline; comment lines are never seen
    int ReadPiece(char*& data, unsigned long most);  // raw bytes; 0 or -1 where there are none
    bool TakeBags(unsigned count);                   // false: none of them may be made
    bool overdrawn() const { return m_overdrawn; }   // more came than one may have: no more is read; errno EMSGSIZE

private:
    bool Take(unsigned long bytes);
    void Overdraw();

    BufferedStream& m_stream;
    unsigned long m_bytes = kMostBytes;
    unsigned m_bags = kMostBags;
    bool m_overdrawn = false;
    int m_end = 1;  // what the read answered that met the end or failed; above 0: none has
};

// The next line, with its end cut off. It lasts until more is read.
struct RecordLine {
    explicit RecordLine(SerialSource& source);
    bool is_end() const { return length < 1; }
    bool is_empty_line() const { return is_end() && complete; }  // and not the end of the stream

    int length;  // below 1: an empty line or the end of the stream; -1: the stream failed
    bool complete = false;
    bool has_space = false;
    std::string_view word;  // up to the first space, or all of it
    char const* text = "";  // behind it and the blanks after it
};

char const* SkipBlanks(char const* text);  // bytes below 0x21, the signed value counts; up to the NUL

enum class SerialType { None, String, Long, ULong, Double };

struct SerialTag {
    SerialType type;
    bool multi;
};

SerialTag get_type(char const*& text);  // leaves `text` on the value

// The payload of a string follows in the source.
bool decode(SerialSource& source, char const* text, bool& value);
bool decode(SerialSource& source, char const* text, int& value);
bool decode(SerialSource& source, char const* text, std::optional<std::string>& value);   // an earlier one goes
bool decode(SerialSource& source, char const* text, std::string& value);                  // appends
bool decode(SerialSource& source, char const* text, std::vector<std::string>& value);     // the text itself
bool decode(SerialSource& source, std::optional<std::wstring>& value, char const* text);  // negative count: none

// One property line from behind its section's name and dot. A string's payload cut short leaves the property alone.
// A line whose path is beyond the limits above is dropped, its payload with it.
void decode_property_bag(IKORPropertyBag& bag, SerialSource& source, char const* text);
void decode_property(SerialSource& source, char const* value, IKORProperty& property);

void ReportUnknownToken(char const* file, int line, std::string_view token);  // the token as far as it can be printed

}  // namespace VELT::results
