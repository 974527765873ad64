#include <KORtk/Exception.h>
#include <QXlog/Settings.h>

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <pugixml.hpp>
#include <string_view>
#include <utility>

namespace QXlog::detail {
namespace {

constexpr std::size_t kLargestFile = 1 << 20;
constexpr std::size_t kMostRules = 10000;
constexpr long kMostNumber = 2147483647;

struct FacilityName {
    std::string_view name;
    int facility;
};

constexpr FacilityName kFacilities[] = {
    {"auth", LOG_AUTH},     {"authpriv", LOG_AUTHPRIV}, {"daemon", LOG_DAEMON}, {"ftp", LOG_FTP},
    {"local0", LOG_LOCAL0}, {"local1", LOG_LOCAL1},     {"local2", LOG_LOCAL2}, {"local3", LOG_LOCAL3},
    {"local4", LOG_LOCAL4}, {"local5", LOG_LOCAL5},     {"local6", LOG_LOCAL6}, {"local7", LOG_LOCAL7},
    {"mail", LOG_MAIL},     {"user", LOG_USER},
};

constexpr std::pair<std::string_view, SinkKind> kSinkKinds[] = {
    {"journal", SinkKind::Journal}, {"json", SinkKind::Json}, {"syslog", SinkKind::Syslog}, {"text", SinkKind::Text}};

class Reader {
public:
    Reader(std::string file, std::string text) : m_file(std::move(file)), m_text(std::move(text)) {}

    Settings Read() {
        if (m_text.size() > kLargestFile) Fail(0, "larger than 1 MiB");
        pugi::xml_document document;
        pugi::xml_parse_result const result =
            document.load_buffer(m_text.data(), m_text.size(), pugi::parse_default, pugi::encoding_utf8);
        if (!result) Fail(result.offset, result.description());
        pugi::xml_node root;
        for (pugi::xml_node const child : document.children()) {
            if (child.type() != pugi::node_element || root) Fail(child, "more than one element at the top");
            root = child;
        }
        if (std::string_view(root.name()) != "logging") Fail(root, "the file's element is <logging>");
        CheckAttributes(root, {"version"});
        if (Number(root, "version", 1, 1, 1) != 1) Fail(root, "version is not 1");
        for (pugi::xml_node const child : root.children()) Top(child);
        if (m_settings.sinks.empty()) m_settings.sinks.push_back({SinkKind::Syslog, {}, LOG_DAEMON});
        return std::move(m_settings);
    }

private:
    void Top(pugi::xml_node node) {
        std::string_view const name = node.name();
        if (name == "sink") return Sink(node);
        if (name == "queue") return Queue(node);
        if (name == "limits") return LimitsRow(node);
        if (name == "events") return Events(node);
        Unknown(node);
    }

    void Sink(pugi::xml_node node) {
        CheckLeaf(node);
        std::string_view const type = Required(node, "type");
        for (auto const& [name, kind] : kSinkKinds) {
            if (name == type) return m_settings.sinks.push_back(SinkOf(node, kind));
        }
        Fail(node, "type is journal, syslog, json or text");
    }

    SinkSettings SinkOf(pugi::xml_node node, SinkKind kind) {
        switch (kind) {
            case SinkKind::Json:
                CheckAttributes(node, {"type", "file"});
                break;
            case SinkKind::Syslog:
                CheckAttributes(node, {"type", "facility"});
                break;
            default:
                CheckAttributes(node, {"type"});
        }
        std::string const file = node.attribute("file").value();
        if (node.attribute("file") && file.empty()) Fail(node, "file is empty");
        return {kind, file, Facility(node)};
    }

    int Facility(pugi::xml_node node) {
        pugi::xml_attribute const attribute = node.attribute("facility");
        if (!attribute) return LOG_DAEMON;
        for (FacilityName const& row : kFacilities) {
            if (row.name == attribute.value()) return row.facility;
        }
        Fail(node, std::string("unknown facility ") + attribute.value());
    }

    void Queue(pugi::xml_node node) {
        CheckLeaf(node);
        CheckAttributes(node, {"size", "full"});
        m_settings.queueSize = static_cast<std::size_t>(Number(node, "size", 8192, 1, 1000000));
        m_settings.dropWhenFull = Choice(node, "full", "drop", "block", false);
    }

    void LimitsRow(pugi::xml_node node) {
        CheckLeaf(node);
        CheckAttributes(node, {"value", "record"});
        m_settings.limits.value = static_cast<std::size_t>(Number(node, "value", 1024, 16, 65536));
        m_settings.limits.record = static_cast<std::size_t>(Number(node, "record", 16384, 1024, 1048576));
    }

    void Events(pugi::xml_node node) {
        CheckAttributes(node, {"default"});
        m_settings.switches.standard = Choice(node, "default", "on", "off", true);
        for (pugi::xml_node const child : node.children()) {
            if (std::string_view(child.name()) != "event") Unknown(child);
            EventRow(child);
        }
    }

    void EventRow(pugi::xml_node node) {
        CheckLeaf(node);
        CheckAttributes(node, {"number", "reason", "switch"});
        Required(node, "number");
        Required(node, "switch");
        int const number = static_cast<int>(Number(node, "number", 0, 0, kMostNumber));
        int const reason = static_cast<int>(Number(node, "reason", 0, 0, kMostNumber));
        bool const every = !node.attribute("reason");
        if (m_settings.switches.rules.size() >= kMostRules) Fail(node, "more than 10000 events");
        m_settings.switches.rules.push_back({number, reason, every, Choice(node, "switch", "on", "off", true)});
    }

    // true for `yes`, false for `no`, anything else is an error.
    bool Choice(pugi::xml_node node, char const* name, char const* yes, char const* no, bool standard) {
        pugi::xml_attribute const attribute = node.attribute(name);
        if (!attribute) return standard;
        std::string_view const value = attribute.value();
        if (value != yes && value != no) Fail(node, std::string(name) + " is " + yes + " or " + no);
        return value == yes;
    }

    long Number(pugi::xml_node node, char const* name, long standard, long low, long high) {
        pugi::xml_attribute const attribute = node.attribute(name);
        if (!attribute) return standard;
        std::string_view const text = attribute.value();
        long value = 0;
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        bool const whole = error == std::errc() && end == text.data() + text.size();
        if (!whole || value < low || value > high)
            Fail(node, std::string(name) + " is a number from " + std::to_string(low) + " to " + std::to_string(high));
        return value;
    }

    std::string_view Required(pugi::xml_node node, char const* name) {
        pugi::xml_attribute const attribute = node.attribute(name);
        if (!attribute) Fail(node, std::string("<") + node.name() + "> lacks the attribute " + name);
        return attribute.value();
    }

    void CheckAttributes(pugi::xml_node node, std::initializer_list<std::string_view> known) {
        for (pugi::xml_attribute const attribute : node.attributes()) {
            std::string_view const name = attribute.name();
            bool found = false;
            for (std::string_view const one : known) found = found || one == name;
            if (!found) Fail(node, "unknown attribute " + std::string(name));
            if (node.attribute(attribute.name()) != attribute) Fail(node, "attribute " + std::string(name) + " twice");
        }
    }

    void CheckLeaf(pugi::xml_node node) {
        if (node.first_child()) Fail(node.first_child(), std::string("<") + node.name() + "> holds nothing");
    }

    [[noreturn]] void Unknown(pugi::xml_node node) {
        if (node.type() != pugi::node_element) Fail(node, "text where an element is expected");
        Fail(node, "unknown element <" + std::string(node.name()) + ">");
    }

    [[noreturn]] void Fail(pugi::xml_node node, std::string const& reason) { Fail(node.offset_debug(), reason); }

    [[noreturn]] void Fail(std::ptrdiff_t offset, std::string const& reason) {
        std::size_t const end = std::min(static_cast<std::size_t>(std::max<std::ptrdiff_t>(offset, 0)), m_text.size());
        std::size_t line = 1, column = 1;
        for (std::size_t i = 0; i < end; ++i) {
            column = m_text[i] == '\n' ? 1 : column + 1;
            if (m_text[i] == '\n') ++line;
        }
        throw KORtk::Exception(KORtk::Here(),
                               m_file + ':' + std::to_string(line) + ':' + std::to_string(column) + ": " + reason);
    }

    std::string m_file;
    std::string m_text;
    Settings m_settings;
};

// Nothing when there is no such file.
std::optional<std::string> ReadWhole(std::string const& file) {
    errno = 0;
    std::ifstream in(file, std::ios::binary);
    if (!in && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
    std::string text(kLargestFile + 1, '\0');
    if (in) in.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (in.bad() || !in.is_open() || (in.gcount() == 0 && errno != 0))
        throw KORtk::Exception(KORtk::Here(), file + ":1:1: cannot be read: " + std::strerror(errno));
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

}  // namespace

Settings ReadSettings(std::string const& file) {
    std::optional<std::string> text = ReadWhole(file);
    if (text) return Reader(file, std::move(*text)).Read();
    Settings standard;
    standard.sinks.push_back({SinkKind::Syslog, {}, LOG_DAEMON});
    return standard;
}

}  // namespace QXlog::detail
