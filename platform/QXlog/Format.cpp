#include <QXlog/Escape.h>
#include <QXlog/Event.h>
#include <QXlog/Format.h>

#include <syslog.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>

namespace QXlog::detail {
namespace {

using KORlog::InfoBag;
using KORlog::Pair;
using KORlog::Value;
using Nested = std::shared_ptr<InfoBag const>;

constexpr int kDeepest = 8;               // bags in bags that are shown
constexpr std::size_t kJournalName = 64;  // longest field name that the journal takes
constexpr std::string_view kTruncated = " truncated=yes";

template <class Number>
std::string Decimal(Number value) {
    char text[32];
    auto const end = std::to_chars(text, text + sizeof text, value).ptr;
    return std::string(text, end);
}

// Scalars alike in every form; `texts` says how a text is written.
template <class Texts>
std::string Scalar(Value const& value, Texts texts) {
    return std::visit(
        [&](auto const& v) -> std::string {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return texts(v);
            } else if constexpr (std::is_same_v<T, KORtk::Utf8Array>) {
                return texts(v.str());
            } else if constexpr (std::is_same_v<T, Nested>) {
                return {};
            } else {
                return Decimal(v);
            }
        },
        value);
}

std::string EventName(Record const& record) {
    std::string name = std::to_string(record.event);
    if (record.reason != kNoReason) name.append(":").append(std::to_string(record.reason));
    return name;
}

// Calls each(path, value) for every scalar of the bag, nested ones too, until it answers false.
template <class Each>
bool Flatten(InfoBag const& bag, std::string const& prefix, char separator, int depth, Each each) {
    if (depth > kDeepest) return false;
    for (Pair const& pair : bag.items()) {
        std::string const path = prefix.empty() ? pair.key : prefix + separator + pair.key;
        Nested const* const nested = std::get_if<Nested>(&pair.value);
        bool const goOn =
            !nested ? each(path, pair.value) : !*nested || Flatten(**nested, path, separator, depth + 1, each);
        if (!goOn) return false;
    }
    return true;
}

// Writes the values of a record as JSON, and stops adding once the room is used up.
class JsonWriter {
public:
    JsonWriter(std::string& out, Limits const& limits) : m_out(out), m_limits(limits) {}

    bool truncated() const { return m_truncated; }

    void Bag(InfoBag const& bag, int depth) {
        m_out += '{';
        bool first = true;
        std::vector<Pair> const& items = bag.items();
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (!Repeats(items, i)) Member(items, i, depth, first);
        }
        m_out += '}';
    }

private:
    static bool SameKey(Pair const& a, Pair const& b) { return std::strcmp(a.key, b.key) == 0; }

    static bool Repeats(std::vector<Pair> const& items, std::size_t at) {
        for (std::size_t i = 0; i < at; ++i) {
            if (SameKey(items[i], items[at])) return true;
        }
        return false;
    }

    void Member(std::vector<Pair> const& items, std::size_t at, int depth, bool& first) {
        std::vector<Value const*> values;
        for (std::size_t i = at; i < items.size(); ++i) {
            if (SameKey(items[i], items[at])) values.push_back(&items[i].value);
        }
        std::string name = first ? "" : ",";
        AppendJson(name, items[at].key, m_limits.value);
        name += ':';
        if (!Fits(name.size() + 2)) return;
        std::size_t const before = m_out.size();
        m_out += name;
        if (List(values, depth)) {
            first = false;
        } else {
            m_out.resize(before);
        }
    }

    bool List(std::vector<Value const*> const& values, int depth) {
        if (values.size() == 1) return One(*values.front(), depth);
        m_out += '[';
        bool first = true;
        for (Value const* const value : values) {
            if (!first) m_out += ',';
            if (!One(*value, depth)) m_out += "null";
            first = false;
        }
        m_out += ']';
        return true;
    }

    bool One(Value const& value, int depth) {
        if (Nested const* const nested = std::get_if<Nested>(&value)) return Inner(*nested, depth + 1);
        auto const* const number = std::get_if<double>(&value);
        std::string const text = number && !std::isfinite(*number) ? "null" : Scalar(value, [&](std::string_view v) {
            std::string quoted;
            AppendJson(quoted, v, m_limits.value);
            return quoted;
        });
        if (!Fits(text.size())) return false;
        m_out += text;
        return true;
    }

    bool Inner(Nested const& nested, int depth) {
        if (depth > kDeepest) m_truncated = true;
        if (!nested || depth > kDeepest) {
            m_out += "{}";
        } else {
            Bag(*nested, depth);
        }
        return true;
    }

    bool Fits(std::size_t more) {
        bool const fits = m_out.size() + more <= m_limits.record;
        m_truncated = m_truncated || !fits;
        return fits;
    }

    std::string& m_out;
    Limits const& m_limits;
    bool m_truncated = false;
};

std::string JournalName(std::string const& path) {
    std::string name = "VELT_";
    for (char const c : path) {
        bool const lower = c >= 'a' && c <= 'z';
        bool const plain = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        name += lower ? static_cast<char>(c - 'a' + 'A') : plain ? c : '_';
    }
    return name.substr(0, kJournalName);
}

std::string JournalField(std::string_view name, std::string_view value, std::size_t limit) {
    std::string field(name);
    field += '=';
    AppendPlain(field, value, limit);
    return field;
}

}  // namespace

std::string FormatTime(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    auto const whole = floor<seconds>(time);
    std::time_t const clock = system_clock::to_time_t(whole);
    std::tm utc{};
    ::gmtime_r(&clock, &utc);
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<long>(duration_cast<microseconds>(time - whole).count()));
    return text;
}

void WriteTime(char* to, std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    auto const day = floor<days>(time);
    year_month_day const date(day);
    long const micros = duration_cast<microseconds>(time - day).count();
    long const parts[] = {static_cast<int>(date.year()),
                          static_cast<long>(static_cast<unsigned>(date.month())),
                          static_cast<long>(static_cast<unsigned>(date.day())),
                          micros / 3'600'000'000,
                          micros / 60'000'000 % 60,
                          micros / 1'000'000 % 60,
                          micros % 1'000'000};
    constexpr std::size_t kEnds[] = {4, 7, 10, 13, 16, 19, 26};  // each number ends here, in front of its separator
    constexpr char kForm[] = "0000-00-00T00:00:00.000000Z";
    static_assert(sizeof kForm == kTimeLength + 1);
    std::memcpy(to, kForm, kTimeLength);
    for (std::size_t i = 0; i < std::size(kEnds); ++i) {
        char* digit = to + kEnds[i];
        for (long rest = parts[i]; rest != 0; rest /= 10) *--digit = static_cast<char>('0' + rest % 10);
    }
}

std::string FormatMessage(Record const& record, Limits const& limits) {
    std::string message = EventName(record);
    if (record.words) message.append(" ").append(record.words);
    if (!record.text.empty()) AppendPlain(message += ": ", record.text, limits.value);
    char const* separator = ": ";
    bool const whole = Flatten(record.bag, "", '.', 1, [&](std::string const& path, Value const& value) {
        std::string item = std::exchange(separator, " ");
        AppendPlain(item, path, limits.value);
        item += '=';
        item += Scalar(value, [&](std::string_view v) {
            std::string token;
            AppendToken(token, v, limits.value);
            return token;
        });
        if (message.size() + item.size() > limits.record) return false;
        message += item;
        return true;
    });
    if (!whole) message += kTruncated;
    return message;
}

std::string FormatText(Record const& record, Limits const& limits) {
    std::string line = FormatTime(record.time) + ' ';
    AppendPlain(line, record.identity, limits.value);
    line.append("[").append(std::to_string(record.pid)).append("]: ");
    return line.append(FormatMessage(record, limits)).append("\n");
}

std::string FormatJson(Record const& record, Limits const& limits) {
    std::string line = "{\"time\":\"" + FormatTime(record.time) + "\",\"identity\":";
    AppendJson(line, record.identity, limits.value);
    line.append(",\"pid\":").append(std::to_string(record.pid));
    line.append(",\"event\":").append(std::to_string(record.event));
    line.append(",\"reason\":").append(record.reason == kNoReason ? "null" : std::to_string(record.reason));
    if (record.words) AppendJson(line += ",\"words\":", record.words, limits.value);
    if (!record.text.empty()) AppendJson(line += ",\"text\":", record.text, limits.value);
    AppendJson(line += ",\"file\":", record.file, limits.value);
    line.append(",\"line\":").append(std::to_string(record.line));
    AppendJson(line += ",\"function\":", record.function, limits.value);
    line += ",\"values\":";
    JsonWriter writer(line, limits);
    writer.Bag(record.bag, 1);
    if (writer.truncated()) line += ",\"truncated\":true";
    return line += "}\n";
}

std::vector<std::string> FormatJournal(Record const& record, Limits const& limits) {
    std::vector<std::string> fields;
    fields.push_back("MESSAGE=" + FormatMessage(record, limits));
    fields.push_back("PRIORITY=" + std::to_string(LOG_INFO));
    fields.push_back(JournalField("SYSLOG_IDENTIFIER", record.identity, limits.value));
    fields.push_back(JournalField("CODE_FILE", record.file, limits.value));
    fields.push_back("CODE_LINE=" + std::to_string(record.line));
    fields.push_back(JournalField("CODE_FUNC", record.function, limits.value));
    fields.push_back("VELT_EVENT=" + std::to_string(record.event));
    if (record.reason != kNoReason) fields.push_back("VELT_REASON=" + std::to_string(record.reason));
    std::size_t used = 0;
    Flatten(record.bag, "", '_', 1, [&](std::string const& path, Value const& value) {
        std::string const text = Scalar(value, [](std::string_view v) { return std::string(v); });
        fields.push_back(JournalField(JournalName(path), text, limits.value));
        used += fields.back().size();
        if (used <= limits.record) return true;
        fields.pop_back();
        return false;
    });
    return fields;
}

}  // namespace QXlog::detail
