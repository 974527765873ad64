#include <policyloader/engines/EntityHead.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include <gmime/gmime.h>
#include <policyloader/engines/EncodedWords.h>
#include <policyloader/engines/HeaderText.h>
#include <strings.h>

namespace policyloader {
namespace {

constexpr std::size_t kMaxForms = 8;  // of one field that stands several times

struct Unref {
    void operator()(GMimeContentType* type) const { g_object_unref(type); }
    void operator()(GMimeContentDisposition* disposition) const { g_object_unref(disposition); }
};

std::string_view TrimRight(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return text;
}

std::string_view Trim(std::string_view text) {
    text = TrimRight(text);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    return text;
}

// Readers differ about what such a name is.
bool IsOddName(std::string const& name) {
    return name.empty() ||
           std::any_of(name.begin(), name.end(), [](unsigned char c) { return c <= ' ' || c >= 0x7F || c == ';'; });
}

bool Same(std::string const& a, char const* b) { return strcasecmp(a.c_str(), b) == 0; }

std::string Lower(char const* text) {
    std::string out(text ? text : "");
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string Parameter(GMimeContentType* type, char const* name) {
    char const* const value = g_mime_content_type_get_parameter(type, name);
    return value ? value : "";
}

bool IsMessageSubtype(std::string const& subtype) {
    return subtype == "rfc822" || subtype == "global" || subtype == "news" || subtype == "rfc2822";
}

bool HasMessageName(std::string const& name) {
    for (char const* const suffix : {".eml", ".mht", ".mhtml", ".nws"}) {
        std::size_t const length = std::char_traits<char>::length(suffix);
        if (name.size() >= length && strcasecmp(name.c_str() + name.size() - length, suffix) == 0) return true;
    }
    return false;
}

template <class T>
void AddDistinct(std::vector<T>& list, T value) {
    if (std::find(list.begin(), list.end(), value) == list.end()) list.push_back(std::move(value));
}

void Unfold(std::string& value, std::string_view line) {
    if (!value.empty()) value += ' ';
    value.append(line);
}

// Reads the fields out of the block's lines; a line that is none makes the head doubtful.
void ReadFields(std::string_view block, EntityHead& head) {
    while (!block.empty()) {
        std::size_t const end = block.find('\n');
        std::string_view const line = TrimRight(block.substr(0, end));
        bool const folded = block.front() == ' ' || block.front() == '\t';
        block.remove_prefix(end == std::string_view::npos ? block.size() : end + 1);
        if (line.empty()) continue;
        head.doubtful |= line.find('\r') != std::string_view::npos;  // a line end to some
        std::size_t const colon = line.find(':');
        if (folded && !head.fields.empty())
            Unfold(head.fields.back().second, Trim(line));
        else if (folded || colon == std::string_view::npos)
            head.doubtful = true;
        else
            head.fields.emplace_back(Trim(line.substr(0, colon)), Trim(line.substr(colon + 1)));
    }
    for (auto& [name, value] : head.fields) {
        head.doubtful |= IsOddName(name) || value.find('\0') != std::string::npos;
        std::replace(value.begin(), value.end(), '\0', ' ');
    }
}

char const* FindNoCase(std::string const& text, std::size_t from, char const* wanted) {
    return from < text.size() ? strcasestr(text.c_str() + from, wanted) : nullptr;
}

// What stands behind the "=" of a parameter, to a reader that knows nothing of comments and extended values.
std::string_view PlainValue(std::string_view text, char const* ends) {
    text = Trim(text);
    bool const quoted = !text.empty() && text.front() == '"';
    if (quoted) text.remove_prefix(1);
    return TrimRight(text.substr(0, text.find_first_of(quoted ? "\"" : ends)));
}

// Where to look for the next parameter: behind a value, but not behind a quote that may never have been meant to close.
char const* Behind(std::string_view plainValue) {
    bool const quoted = plainValue.data()[-1] == '"';
    return quoted ? plainValue.data() : plainValue.data() + plainValue.size();
}

// What stands from `at` on, which is within the value.
std::string_view RestOf(std::string const& value, char const* at) {
    return std::string_view(value).substr(static_cast<std::size_t>(at - value.c_str()));
}

// A boundary that stands more than once, or in a form that readers differ about: each takes another one.
void ReadFurtherBoundaries(std::string const& value, EntityHead& head) {
    std::size_t forms = 0;
    for (char const* at = FindNoCase(value, 0, "boundary"); at; at = strcasestr(at, "boundary")) {
        at += std::char_traits<char>::length("boundary");
        char const* const equals = at + std::strspn(at, " \t*0123456789");
        if (*equals != '=') continue;
        auto const plain = PlainValue(RestOf(value, equals + 1), "; \t,");
        at = Behind(plain);
        std::string const boundary(plain);
        bool const known = std::find(head.boundaries.begin(), head.boundaries.end(), boundary) != head.boundaries.end();
        head.doubtful |= ++forms > 1 || !known;
        if (!boundary.empty() && head.boundaries.size() < kMaxForms) AddDistinct(head.boundaries, boundary);
    }
}

// Of very many the last one stays: readers take the first or the last.
void AddName(std::string name, EntityHead& head) {
    if (name.empty()) return;
    if (head.names.size() == kMaxForms) head.names.pop_back();
    AddDistinct(head.names, std::move(name));
}

std::string FileNameOf(std::string const& value) {
    std::unique_ptr<GMimeContentDisposition, Unref> const disposition(
        g_mime_content_disposition_parse(nullptr, FitForDecoding(value).c_str()));
    char const* const name =
        disposition ? g_mime_content_disposition_get_parameter(disposition.get(), "filename") : nullptr;
    return name ? name : "";
}

// Names as they stand, to a reader that takes another one of several; and the extended ones for themselves, to one
// that does not take those beside plain ones, or takes no others.
void ReadFurtherNames(std::string const& value, EntityHead& head) {
    std::string extended = "attachment";
    for (char const* at = FindNoCase(value, 0, "name"); at; at = strcasestr(at, "name")) {
        char const before = at == value.c_str() ? ';' : at[-1];
        at += std::char_traits<char>::length("name");
        char const* const stars = at + std::strspn(at, "*0123456789");
        char const* const equals = stars + std::strspn(stars, " \t");
        bool const named = before == 'e' || before == 'E' || !std::isalnum(static_cast<unsigned char>(before));
        if (*equals != '=' || !named) continue;
        auto const name = PlainValue(RestOf(value, equals + 1), ";");
        if (stars == at)
            AddName(DecodedHeader(std::string(name)), head);
        else
            extended.append("; filename").append(at, stars).append("=\"").append(name).append("\"");
        at = Behind(name);
    }
    AddName(FileNameOf(extended), head);
}

void ReadType(std::string const& value, bool first, EntityHead& head) {
    // No type at all: readers show it as text.
    if (value.find('/') == std::string::npos) {
        head.doubtful = true;
        return;
    }
    std::unique_ptr<GMimeContentType, Unref> const type(
        g_mime_content_type_parse(nullptr, FitForDecoding(value).c_str()));
    if (!type) return;
    auto const major = Lower(g_mime_content_type_get_media_type(type.get()));
    auto const minor = Lower(g_mime_content_type_get_media_subtype(type.get()));
    if (first || major == "multipart" || major == "text") {
        head.type = major;
        head.subtype = minor;
        head.charset = Parameter(type.get(), "charset");
    }
    auto const name = Parameter(type.get(), "name");
    if (head.fileName.empty()) head.fileName = name;
    AddName(name, head);
    ReadFurtherNames(value, head);
    head.message |= major == "message" && IsMessageSubtype(minor);
    head.fragment |= major == "message" && minor == "partial";
    if (major != "multipart") return void(head.doubtful |= FindNoCase(value, 0, "multipart") != nullptr);
    head.multipart = true;
    std::string const boundary(TrimRight(Parameter(type.get(), "boundary")));
    boundary.empty() ? void(head.doubtful = true) : AddDistinct(head.boundaries, boundary);
    ReadFurtherBoundaries(value, head);
}

void ReadEncoding(std::string const& value, EntityHead& head) {
    auto const encoding = ParseTransferEncoding(value);
    bool const oneWord =
        std::all_of(value.begin(), value.end(), [](unsigned char c) { return std::isalnum(c) || c == '-'; });
    head.doubtful |= !encoding || !oneWord;  // some readers take another word, or the field for malformed
    AddDistinct(head.encodings, encoding.value_or(TransferEncoding::Identity));
}

void ReadDisposition(std::string const& value, EntityHead& head) {
    std::unique_ptr<GMimeContentDisposition, Unref> const disposition(
        g_mime_content_disposition_parse(nullptr, FitForDecoding(value).c_str()));
    if (!disposition) return;
    // A word that nobody knows counts as "attachment".
    head.attached |= strcasecmp(g_mime_content_disposition_get_disposition(disposition.get()), "inline") != 0;
    for (char const* const parameter : {"name", "filename"}) {
        char const* const name = g_mime_content_disposition_get_parameter(disposition.get(), parameter);
        if (!name) continue;
        head.fileName = name;
        AddName(name, head);
    }
    ReadFurtherNames(value, head);
}

// The content fields, at most kMaxForms of each.
void ReadContentFields(EntityHead& head) {
    std::size_t types = 0, encodings = 0, dispositions = 0;
    for (auto const& [name, value] : head.fields) {
        if (Same(name, "Content-Type") && types++ < kMaxForms)
            ReadType(value, types == 1, head);
        else if (Same(name, "Content-Transfer-Encoding") && encodings++ < kMaxForms)
            ReadEncoding(value, head);
        else if (Same(name, "Content-Disposition") && dispositions++ < kMaxForms)
            ReadDisposition(value, head);
    }
    head.doubtful |= types > 1 || encodings > 1;
}

}  // namespace

EntityHead EntityHead::parse(std::string_view block) {
    EntityHead head;
    ReadFields(block, head);
    ReadContentFields(head);
    if (head.encodings.empty()) head.encodings.push_back(TransferEncoding::Identity);
    if (!head.multipart && HasMessageName(head.fileName)) head.message = true;
    head.doubtful |= head.multipart && head.isEncoded();
    return head;
}

std::string EntityHead::typeFields() const {
    std::string block;
    for (auto const& [name, value] : fields)
        if (Same(name, "Content-Type")) block.append(name).append(": ").append(value).append("\r\n");
    return block + "\r\n";
}

EntityHead EntityHead::ofPlainObject(std::string const& name) {
    EntityHead head;
    head.fileName = name;
    if (!name.empty()) head.names.push_back(name);
    head.encodings.push_back(TransferEncoding::Identity);
    return head;
}

bool LooksLikeHeader(std::string_view line) {
    if (line.substr(0, 5) == "From ") return true;
    std::size_t at = 0;
    while (at < line.size() && line[at] > ' ' && line[at] < 0x7F && line[at] != ':') ++at;
    std::size_t const name = at;
    while (at < line.size() && (line[at] == ' ' || line[at] == '\t')) ++at;
    return name > 0 && at < line.size() && line[at] == ':';
}

}  // namespace policyloader
