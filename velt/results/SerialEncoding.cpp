// How a verdict, a bag or a place is written: each line, with the raw characters that it announces, leaves in one
// write.
#include <system/UUID.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include <velt/results/SerialDecoding.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/streams/FileStream.h>

namespace VELT {

namespace {

constexpr int kPlaceLength = 400;  // wide characters of the text that says where a component stands, its 0 included
constexpr unsigned kDumpMemory = 0x20000;

std::string_view RawBytes(std::wstring_view text) {
    return {reinterpret_cast<char const*>(text.data()), text.size() * sizeof(wchar_t)};
}

// As much of a text as a reader takes.
std::wstring_view Shown(wchar_t const* text) {
    return std::wstring_view(text ? text : L"").substr(0, static_cast<std::size_t>(results::kMostCharacters));
}
std::string_view Shown(char const* text) {
    return std::string_view(text ? text : "").substr(0, static_cast<std::size_t>(results::kMostCharacters));
}

// A number as printf's %ld, %lu and %f have it in the C locale, whatever locale the host has.
class Number {
public:
    template <class Whole>
    explicit Number(Whole value) : m_end(std::to_chars(m_text, std::end(m_text), value).ptr) {}
    explicit Number(double value)
        : m_end(std::to_chars(m_text, std::end(m_text), value, std::chars_format::fixed, 6).ptr) {}
    Number(Number const&) = delete;
    Number& operator=(Number const&) = delete;
    std::string_view text() const { return {m_text, static_cast<std::size_t>(m_end - m_text)}; }

private:
    char m_text[512];  // the greatest double has 309 digits before its point
    char* m_end;
};

// The pieces of a line and what follows it, which one write sends. Whether it went is for the next reader to find.
class Line {
public:
    Line& operator<<(std::string_view piece) {
        m_pieces[m_count] = piece.data();
        m_lengths[m_count++] = static_cast<unsigned>(piece.size());
        return *this;
    }
    void SendTo(BufferedStream& stream) {
        unsigned sent = 0;
        static_cast<void>(stream.writev(m_count, m_lengths, m_pieces, &sent));
    }

private:
    char const* m_pieces[10];
    unsigned m_lengths[10];
    unsigned m_count = 0;
};

// --- properties ---

// A name that would end its path or its line: nobody could read the property.
bool CanBeWritten(char const* name) {
    return name && std::none_of(name, name + std::strlen(name), [](unsigned char one) { return one < 0x21; });
}

// The property lines of a bag, and of the bags in it as deep as a reader goes.
class PropertyWriter {
public:
    explicit PropertyWriter(BufferedStream& stream) : m_stream(stream) {}
    void Write(std::string_view prefix, IKORPropertyBag const& bag, unsigned depth = 1);

private:
    void WriteProperty(IKORProperty const& property, unsigned depth);
    void WriteElement(IKORProperty const& property, unsigned index, bool multi);
    void WriteText(IKORProperty const& property, std::wstring_view text, bool multi);
    void WriteNumber(IKORProperty const& property, char const* tag, Number const& number);
    void WriteBags(IKORProperty const& property, unsigned depth);
    Line Start(IKORProperty const& property) const;

    BufferedStream& m_stream;
    std::string_view m_prefix;
    unsigned m_bags = results::kMostBags;  // that are still written: a host's bag may lead back to itself
};

void PropertyWriter::Write(std::string_view prefix, IKORPropertyBag const& bag, unsigned depth) {
    std::string_view const outer = std::exchange(m_prefix, prefix);
    long const size = bag.Size();
    for (long index = 0; index < size; ++index) {
        IKORProperty const* const property = bag.GetProperty(index);
        if (property && CanBeWritten(property->GetName())) WriteProperty(*property, depth);
    }
    m_prefix = outer;
}

void PropertyWriter::WriteProperty(IKORProperty const& property, unsigned depth) {
    if (property.GetType() == KORProp_Bag) return WriteBags(property, depth);
    unsigned const count = property.GetCount();
    for (unsigned index = 0; index < count; ++index) WriteElement(property, index, count > 1);
}

void PropertyWriter::WriteElement(IKORProperty const& property, unsigned index, bool multi) {
    long number = 0;
    unsigned long natural = 0;
    double real = 0;
    switch (property.GetType()) {
        case KORProp_String:
            return WriteText(property, Shown(property.GetWideAt(index)), multi);
        case KORProp_Long:
            if (property.GetLongAt(index, number)) WriteNumber(property, multi ? " ml " : " sl ", Number(number));
            return;
        case KORProp_ULong:
            if (property.GetULongAt(index, natural)) WriteNumber(property, multi ? " mL " : " sL ", Number(natural));
            return;
        case KORProp_Double:
            if (property.GetDoubleAt(index, real)) WriteNumber(property, multi ? " mf " : " sf ", Number(real));
            return;
        default:
            return;
    }
}

// The point stands between a prefix and the name; without a prefix there is none.
Line PropertyWriter::Start(IKORProperty const& property) const {
    Line line;
    line << m_prefix << (m_prefix.empty() ? "" : ".") << property.GetName();
    return line;
}

void PropertyWriter::WriteText(IKORProperty const& property, std::wstring_view text, bool multi) {
    Number const count(text.size());
    (Start(property) << (multi ? " ms " : " ss ") << count.text() << "\n" << RawBytes(text)).SendTo(m_stream);
}

void PropertyWriter::WriteNumber(IKORProperty const& property, char const* tag, Number const& number) {
    (Start(property) << tag << number.text() << "\n").SendTo(m_stream);
}

// The one bag of a property has its index, several have none: who reads them gets one bag with what all of them hold.
void PropertyWriter::WriteBags(IKORProperty const& property, unsigned depth) {
    if (depth == results::kMostSegments) return;
    unsigned const count = property.GetCount();
    std::string prefix(m_prefix);
    prefix.append(".").append(property.GetName());
    if (count < 2) prefix += "<0>";
    for (unsigned index = 0; index < count && m_bags > 0; ++index) {
        --m_bags;
        if (IKORPropertyBag const* const bag = property.GetBagAt(index)) Write(prefix, *bag, depth + 1);
    }
}

// --- results ---

// The lines of a result that no property makes.
class FieldWriter {
public:
    explicit FieldWriter(BufferedStream& stream) : m_stream(stream) {}
    void Plain(std::string_view text) { (Line() << text << "\n").SendTo(m_stream); }
    void Value(char const* token, int value) {
        (Line() << token << " sl " << Number(value).text() << "\n").SendTo(m_stream);
    }
    void Narrow(char const* token, std::string_view text) {
        (Line() << token << " ss " << Number(text.size()).text() << "\n" << text).SendTo(m_stream);
    }
    void Wide(std::string_view name, char const* token, std::wstring_view text) {
        Line line;
        line << name << (name.empty() ? "" : " ") << token << " ";
        (line << Number(text.size()).text() << "\n" << RawBytes(text)).SendTo(m_stream);
    }

private:
    BufferedStream& m_stream;
};

// The blanks behind "property" and "scanpolcontext" are part of the names under which these lines stand.
void WriteResult(BufferedStream& stream, char const* name, IKORScanResult const& result) {
    FieldWriter fields(stream);
    fields.Plain(name);
    fields.Wide("", "infectionlist", Shown(result.GetInfectionList(L' ')));
    fields.Value("cleanstatus", result.IsCleaned());
    fields.Value("errorstatus", result.GetScanErrorStatus());
    if (char const* const scanner = result.GetScannerClassName()) fields.Narrow("classname", Shown(scanner));
    fields.Value("infecteditems", result.InfectedItems());
    if (IKORPropertyBag const* const bag = result.GetPropertyBag()) PropertyWriter(stream).Write("property ", *bag);
    SerializedEFabricResult::serialize(&stream, "scanpolcontext ", result.GetScanPolContext());
    fields.Plain("");
}

// A stream in whose place a target gets each line as one block.
class JoinedLines final : public BufferedStream {
public:
    explicit JoinedLines(BufferedStream& target) : m_target(target) {}
    bool failed() const { return m_failed; }

    int read(char*, unsigned, unsigned* received) override {
        *received = 0;
        return 0;
    }
    int write(char const* data, unsigned length, unsigned* sent) override {
        int const error = m_target.write(data, length, sent);
        m_failed = m_failed || error != 0;
        return error;
    }
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override {
        m_line.clear();
        for (unsigned i = 0; i < count; ++i) m_line.append(buffers[i], lengths[i]);
        return write(m_line.data(), static_cast<unsigned>(m_line.size()), sent);
    }

private:
    BufferedStream& m_target;
    std::string m_line;
    bool m_failed = false;
};

}  // namespace

void SerializedEFabricResult::serialize(BufferedStream* stream, IScanResultHandler const* handler) {
    if (!stream || !handler) return;
    FieldWriter fields(*stream);
    fields.Value("msr.triggered", handler->IsTriggered());
    fields.Value("msr.modified", handler->IsModified());
    if (char const* const action = handler->GetMasterActionCode()) fields.Narrow("msr.action", Shown(action));
    IKORScanResult const* const master = handler->GetMasterScanResult();
    if (master) WriteResult(*stream, "msr.master.result", *master);
    long position = 0;
    for (auto const* one = handler->FindFirstScanResult(position); one; one = handler->FindNextScanResult(position))
        if (one != master) WriteResult(*stream, "msr.sr.result", *one);
    fields.Plain("");
}

void SerializedEFabricResult::serialize(BufferedStream* stream, char const* name, IKORPropertyBag const* bag) {
    if (!stream || !bag) return;
    PropertyWriter(*stream).Write(name, *bag);
    (Line() << "\r\n").SendTo(*stream);
}

void SerializedEFabricResult::serialize(BufferedStream* stream, char const* name,
                                        IKORScanPolContextElement const* element) {
    if (!stream || !element) return;
    wchar_t place[kPlaceLength] = {};
    element->GetScanContextString(place, kPlaceLength, L' ', L':');
    place[kPlaceLength - 1] = L'\0';
    FieldWriter fields(*stream);
    fields.Wide(name, "scan_context_string", place);
    fields.Wide(name, "scan_context_component_name", Shown(element->GetComponentName()));
}

// A ScannerStream takes the pieces of a line with gaps between them, so it gets each line whole.
int SerializedEFabricResult::dump(char const* path, IScanResultHandler const* handler) {
    FileStream file(kDumpMemory);
    file.set_id(UUID::get());
    JoinedLines lines(file);
    serialize(&lines, handler);
    int const result = file.spool_to_disk(path);
    return lines.failed() ? -1 : result;
}

}  // namespace VELT
