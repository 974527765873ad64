#include <velt/results/SerialDecoding.h>

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include <velt/streams/BufferedStream.h>

namespace VELT::results {

namespace {

constexpr int kPriority = LOG_DAEMON | LOG_INFO;
constexpr unsigned long kPiece = 64ul << 10;
constexpr std::size_t kMostOfToken = 200;

void Drain(SerialSource& source) {
    char* data = nullptr;
    while (source.ReadPiece(data, kPiece) > 0) {
    }
}

// `count` characters in the order of this machine, which grow in `out` as they come. What came stays there also when
// there were too few; of a string that is too long nothing is kept.
template <class Char>
bool ReadText(SerialSource& source, long count, std::basic_string<Char>& out) {
    if (count > kMostCharacters) {
        Drain(source);
        return false;
    }
    unsigned long const length = static_cast<unsigned long>(count) * sizeof(Char);
    unsigned long got = 0;
    while (got < length) {
        char* data = nullptr;
        int const piece = source.ReadPiece(data, length - got);
        if (piece <= 0) return false;
        auto const end = got + static_cast<unsigned long>(piece);
        out.resize((end + sizeof(Char) - 1) / sizeof(Char));
        std::memcpy(reinterpret_cast<char*>(out.data()) + got, data, static_cast<std::size_t>(piece));
        got = end;
    }
    return true;
}

}  // namespace

// --- what is read ---

// The errno tells it from an end that the other side chose.
void SerialSource::Overdraw() {
    m_overdrawn = true;
    errno = EMSGSIZE;
}

bool SerialSource::Take(unsigned long bytes) {
    if (bytes > m_bytes) Overdraw();
    if (m_overdrawn) return false;
    m_bytes -= bytes;
    return true;
}

int SerialSource::ReadLine(char*& line, bool& complete) {
    int length;
    bool io_done = false;
    LINE_STATE_T state = LINE_CLOSED;
    do {
        complete = false;
        if (m_overdrawn) return -1;
        if (m_end <= 0) return m_end;
        length = m_stream.getline(line, true, io_done, state, true);
        if (length > 0 && !Take(static_cast<unsigned long>(length) + kLineBytes)) return -1;
        complete = state == LINE_COMPLETE;
        if (state == LINE_CLOSED) m_end = length;
    } while (length > 0 && line[0] == '#');
    return length;
}

int SerialSource::ReadPiece(char*& data, unsigned long most) {
    if (m_bytes == 0) Overdraw();
    if (m_overdrawn) return -1;
    if (m_end <= 0) return m_end;
    bool io_done = false;
    int const got = m_stream.readdata(data, static_cast<unsigned>(std::min({most, kPiece, m_bytes})), true, io_done);
    if (got > 0)
        m_bytes -= static_cast<unsigned long>(got);
    else
        m_end = got;
    return got;
}

bool SerialSource::TakeBags(unsigned count) {
    if (count > m_bags) return false;
    m_bags -= count;
    return true;
}

char const* SkipBlanks(char const* text) {
    while (*text && static_cast<signed char>(*text) < 0x21) ++text;
    return text;
}

RecordLine::RecordLine(SerialSource& source) {
    char* line = nullptr;
    length = source.ReadLine(line, complete);
    if (is_end()) return;
    char const* const space = std::strchr(line, ' ');
    has_space = space != nullptr;
    word = has_space ? std::string_view(line, static_cast<std::size_t>(space - line)) : std::string_view(line);
    if (has_space) text = SkipBlanks(space);
}

// --- tags and values ---

SerialTag get_type(char const*& text) {
    text = SkipBlanks(text);
    if (*text == '\0') return {SerialType::None, true};
    SerialTag tag{SerialType::None, *text++ != 's'};
    switch (*text) {
        case 's':
            tag.type = SerialType::String;
            break;
        case 'l':
        case 'b':
            tag.type = SerialType::Long;
            break;
        case 'L':
            tag.type = SerialType::ULong;
            break;
        case 'f':
            tag.type = SerialType::Double;
            break;
        default:
            break;
    }
    if (tag.type != SerialType::None) ++text;
    text = SkipBlanks(text);
    return tag;
}

bool decode(SerialSource&, char const* text, bool& value) {
    if (get_type(text).type != SerialType::Long) return false;
    value = *text == '1';
    return true;
}

bool decode(SerialSource&, char const* text, int& value) {
    if (get_type(text).type != SerialType::Long) return false;
    value = static_cast<int>(std::strtol(text, nullptr, 10));
    return true;
}

bool decode(SerialSource& source, char const* text, std::optional<std::string>& value) {
    std::string read;
    if (!decode(source, text, read)) return false;
    value = std::move(read);
    return true;
}

bool decode(SerialSource& source, char const* text, std::string& value) {
    if (get_type(text).type != SerialType::String) return false;
    long const count = std::strtol(text, nullptr, 10);
    std::string read;
    if (count < 0 || !ReadText(source, count, read)) return false;
    value += read;
    return true;
}

bool decode(SerialSource&, char const* text, std::vector<std::string>& value) {
    value.emplace_back(text);
    return true;
}

bool decode(SerialSource& source, std::optional<std::wstring>& value, char const* text) {
    value.reset();
    long const count = std::strtol(text, nullptr, 10);
    return count < 0 || ReadText(source, count, value.emplace());
}

// --- a property's value ---

namespace {

void TakeText(IKORProperty& property, SerialSource& source, char const* text, bool multi) {
    long const count = std::strtol(text, nullptr, 10);
    std::wstring value;
    if (count < 0 || !ReadText(source, count, value)) return;
    if (multi)
        property.AddWide(value.c_str());
    else
        property.SetWide(value.c_str());
}

void TakeLong(IKORProperty& property, long value, bool multi) {
    if (multi)
        property.AddLong(value);
    else
        property.SetLong(value);
}

void TakeULong(IKORProperty& property, unsigned long value, bool multi) {
    if (multi)
        property.AddULong(value);
    else
        property.SetULong(value);
}

void TakeDouble(IKORProperty& property, double value, bool multi) {
    if (multi)
        property.AddDouble(value);
    else
        property.SetDouble(value);
}

// A host's locale has no say in where the point of a number stands.
double PlainDouble(char const* text) {
    static locale_t const plain = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return ::strtod_l(text, nullptr, plain);
}

}  // namespace

void decode_property(SerialSource& source, char const* value, IKORProperty& property) {
    SerialTag const tag = get_type(value);
    switch (tag.type) {
        case SerialType::String:
            return TakeText(property, source, value, tag.multi);
        case SerialType::Long:
            return TakeLong(property, std::strtol(value, nullptr, 10), tag.multi);
        case SerialType::ULong:
            return TakeULong(property, std::strtoul(value, nullptr, 10), tag.multi);
        case SerialType::Double:
            return TakeDouble(property, PlainDouble(value), tag.multi);
        case SerialType::None:
            return;
    }
}

// --- a property's path ---

namespace {

// A step on the way to a property: "NAME", or "NAME<INDEX>". No index, and one that makes no sense, means the first
// bag.
struct Step {
    explicit Step(char* segment) : name(segment) {
        char* const bracket = std::strchr(segment, '<');
        if (!bracket) return;
        *bracket = '\0';
        index = std::max(std::strtol(bracket + 1, nullptr, 10), 0l);
    }

    char const* name;
    long index = 0;
};

// The bag at this step, and those before it, made if they are not there. Null: it is beyond what may be made.
IKORPropertyBag* Descend(IKORPropertyBag& bag, Step const& step, SerialSource& source) {
    if (step.index > kMostIndex) return nullptr;
    IKORProperty* property = bag.GetProperty(step.name);
    unsigned const there = property && property->GetType() == KORProp_Bag ? property->GetCount() : 0;
    auto const last = static_cast<unsigned>(step.index);
    if (last < there) return property->GetBagAt(last);
    if (!source.TakeBags(last + 1 - there)) return nullptr;
    if (!property) property = bag.NewProperty(step.name);
    for (unsigned count = there; count <= last; ++count) property->AddBag(nullptr);  // another type goes
    return property->GetBagAt(last);
}

// The property that a path leads to; null: it is beyond what may be made.
IKORProperty* FollowPath(IKORPropertyBag& bag, std::string path, SerialSource& source) {
    if (static_cast<unsigned long>(std::count(path.begin(), path.end(), '.')) >= kMostSegments) return nullptr;
    IKORPropertyBag* current = &bag;
    char* segment = path.data();
    while (char* const dot = std::strchr(segment, '.')) {
        *dot = '\0';
        current = Descend(*current, Step(segment), source);
        if (!current) return nullptr;
        segment = dot + 1;
    }
    IKORProperty* const known = current->GetProperty(segment);
    return known ? known : current->NewProperty(segment);
}

}  // namespace

void decode_property_bag(IKORPropertyBag& bag, SerialSource& source, char const* text) {
    char const* const space = std::strchr(text, ' ');
    if (!space) return;
    char const* const value = SkipBlanks(space);
    if (IKORProperty* const property = FollowPath(bag, std::string(text, space), source))
        return decode_property(source, value, *property);
    KORPropertyBag dropped;
    decode_property(source, value, *dropped.NewProperty(""));
}

// A token is what the other side chose to send.
void ReportUnknownToken(char const* file, int line, std::string_view token) {
    std::string shown(token.substr(0, kMostOfToken));
    std::replace_if(
        shown.begin(), shown.end(), [](char one) { return static_cast<signed char>(one) < 0x20 || one == 0x7f; }, '?');
    char const* const slash = std::strrchr(file, '/');
    ::syslog(kPriority, "%s:%d Failed to find token %s", slash ? slash + 1 : file, line, shown.c_str());
}

}  // namespace VELT::results
