#include <velt/results/SerialDecoding.h>

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <velt/streams/BufferedStream.h>

namespace VELT::results {

namespace {

constexpr int kPriority = LOG_DAEMON | LOG_INFO;

// Exactly `count` bytes, appended as they come.
bool ReadBytes(BufferedStream& stream, unsigned long count, std::string& out) {
    while (count > 0) {
        char* data = nullptr;
        bool io_done = false;
        int const got = stream.readdata(data, static_cast<unsigned>(std::min(count, 1ul << 20)), true, io_done);
        if (got <= 0) return false;
        out.append(data, static_cast<std::size_t>(got));
        count -= static_cast<unsigned long>(got);
    }
    return true;
}

// `count` wide characters in the order of this machine. What came is in `out` also when there were too few.
bool ReadWide(BufferedStream& stream, long count, std::wstring& out) {
    std::string bytes;
    unsigned long length = 0;
    bool const sane = !__builtin_mul_overflow(static_cast<unsigned long>(count), sizeof(wchar_t), &length);
    bool const whole = sane && ReadBytes(stream, length, bytes);
    out.assign((bytes.size() + sizeof(wchar_t) - 1) / sizeof(wchar_t), L'\0');
    if (!bytes.empty()) std::memcpy(out.data(), bytes.data(), bytes.size());
    return whole;
}

void TakeText(IKORProperty& property, BufferedStream& stream, char const* text, bool multi) {
    long const count = std::strtol(text, nullptr, 10);
    std::wstring value;
    if (count < 0 || !ReadWide(stream, count, value)) return;
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

void decode_property(IKORProperty& property, BufferedStream& stream, char const* value) {
    SerialTag const tag = get_type(value);
    switch (tag.type) {
        case SerialType::String:
            return TakeText(property, stream, value, tag.multi);
        case SerialType::Long:
            return TakeLong(property, std::strtol(value, nullptr, 10), tag.multi);
        case SerialType::ULong:
            return TakeULong(property, std::strtoul(value, nullptr, 10), tag.multi);
        case SerialType::Double:
            return TakeDouble(property, std::strtod(value, nullptr), tag.multi);
        case SerialType::None:
            return;
    }
}

IKORProperty& FindOrMake(IKORPropertyBag& bag, char const* name) {
    IKORProperty* const found = bag.GetProperty(name);
    return found ? *found : *bag.NewProperty(name);
}

// The element of this index, and those before it that are not there yet.
IKORPropertyBag& BagAt(IKORProperty& property, unsigned long index, unsigned& empty_bags) {
    unsigned long count = property.GetType() == KORProp_Bag ? property.GetCount() : 0;  // of another type: emptied
    for (; count < index && empty_bags > 0; ++count, --empty_bags) property.AddBag(nullptr);
    if (count <= index) property.AddBag(nullptr);
    return *property.GetBagAt(static_cast<unsigned>(std::min<unsigned long>(index, property.GetCount() - 1)));
}

// The bag of the path's segment, "NAME" or "NAME<INDEX>", which is made when it is not there.
IKORPropertyBag& Descend(IKORPropertyBag& bag, std::string segment, unsigned& empty_bags) {
    long index = -1;
    if (auto const bracket = segment.find('<'); bracket != std::string::npos) {
        index = std::strtol(segment.c_str() + bracket + 1, nullptr, 10);
        segment.resize(bracket);
    }
    IKORProperty& property = FindOrMake(bag, segment.c_str());
    if (index < 0) {
        if (!property.GetBag()) property.SetBag(nullptr);
        return *property.GetBag();
    }
    return BagAt(property, static_cast<unsigned long>(index), empty_bags);
}

}  // namespace

char const* SkipBlanks(char const* text) {
    while (*text && static_cast<signed char>(*text) < 0x21) ++text;
    return text;
}

RecordLine::RecordLine(BufferedStream& stream) {
    char* line = nullptr;
    bool io_done = false;
    LINE_STATE_T state = LINE_CLOSED;
    do {
        length = stream.getline(line, true, io_done, state, true);
    } while (length > 0 && line[0] == '#');
    overflow = state == LINE_OVERFLOW;
    if (length < 1) return;
    char const* const space = std::strchr(line, ' ');
    has_space = space != nullptr;
    word = line;
    if (!has_space) return;
    word.resize(static_cast<std::size_t>(space - line));
    text = SkipBlanks(space);
}

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

bool decode(BufferedStream&, char const* text, bool& value) {
    if (get_type(text).type != SerialType::Long) return false;
    value = *text == '1';
    return true;
}

bool decode(BufferedStream&, char const* text, int& value) {
    if (get_type(text).type != SerialType::Long) return false;
    value = static_cast<int>(std::strtol(text, nullptr, 10));
    return true;
}

bool decode(BufferedStream& stream, char const* text, std::string& value) {
    if (get_type(text).type != SerialType::String) return false;
    long const count = std::strtol(text, nullptr, 10);
    std::string read;
    if (count < 0 || !ReadBytes(stream, static_cast<unsigned long>(count), read)) return false;
    value += read;
    return true;
}

bool decode(BufferedStream& stream, std::optional<std::wstring>& value, char const* text) {
    value.reset();
    long const count = std::strtol(text, nullptr, 10);
    return count < 0 || ReadWide(stream, count, value.emplace());
}

void decode_property_bag(IKORPropertyBag& bag, BufferedStream& stream, char const* text, unsigned& empty_bags) {
    char const* const space = std::strchr(text, ' ');
    if (!space) return;
    std::string const path(text, space);
    IKORPropertyBag* current = &bag;
    std::size_t start = 0;
    for (std::size_t dot; (dot = path.find('.', start)) != std::string::npos; start = dot + 1)
        current = &Descend(*current, path.substr(start, dot - start), empty_bags);
    decode_property(FindOrMake(*current, path.c_str() + start), stream, SkipBlanks(space));
}

void ReportUnknownToken(char const* file, int line, std::string const& token) {
    char const* const slash = std::strrchr(file, '/');
    ::syslog(kPriority, "%s:%d Failed to find token %s", slash ? slash + 1 : file, line, token.c_str());
}

}  // namespace VELT::results
