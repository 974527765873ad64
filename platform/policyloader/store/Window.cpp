#include <policyloader/store/Window.h>

#include <strings.h>

#include <algorithm>
#include <limits>

namespace policyloader {
namespace {

constexpr std::string_view Blanks = " \t\r\n";
constexpr unsigned Weekdays = 7;
constexpr std::uint8_t EveryDay = 0x7F;

struct Day {
    char const* name;
    unsigned number;
};
constexpr Day Days[Weekdays] = {{"mon", 0}, {"tue", 1}, {"wed", 2}, {"thu", 3}, {"fri", 4}, {"sat", 5}, {"sun", 6}};

std::vector<std::string_view> Split(std::string_view text, std::string_view separators) {
    std::vector<std::string_view> parts;
    while (true) {
        auto const end = text.find_first_of(separators);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

std::vector<std::string_view> Words(std::string_view text) {
    auto parts = Split(text, Blanks);
    parts.erase(std::remove(parts.begin(), parts.end(), std::string_view()), parts.end());
    return parts;
}

[[noreturn]] void Fail(std::string_view text, char const* why) {
    throw WindowError{"'" + std::string(text) + "' is no " + why};
}

unsigned DayNumber(std::string_view text) {
    for (auto const& day : Days)
        if (text.size() == 3 && ::strncasecmp(text.data(), day.name, 3) == 0) return day.number;
    Fail(text, "day (mon, tue, wed, thu, fri, sat, sun)");
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

unsigned Minute(std::string_view text) {
    bool const form = text.size() == 5 && IsDigit(text[0]) && IsDigit(text[1]) && text[2] == ':' && IsDigit(text[3]) &&
                      IsDigit(text[4]);
    if (!form) Fail(text, "time of day (HH:MM)");
    unsigned const hours = static_cast<unsigned>((text[0] - '0') * 10 + (text[1] - '0'));
    unsigned const minutes = static_cast<unsigned>((text[3] - '0') * 10 + (text[4] - '0'));
    if (minutes > 59 || hours * 60 + minutes > Window::DayMinutes) Fail(text, "time of day (HH:MM)");
    return hours * 60 + minutes;
}

// localtime_r takes a lock in the C library; many values are asked for one and the same second.
struct LocalMinute {
    std::time_t when;
    unsigned weekday;
    unsigned minute;
};

LocalMinute const& Local(std::time_t when) {
    thread_local LocalMinute last{std::numeric_limits<std::time_t>::min(), 0, 0};
    if (last.when == when) return last;
    std::tm local{};
    ::localtime_r(&when, &local);
    last = LocalMinute{when, static_cast<unsigned>(local.tm_wday + 6) % Weekdays,
                       static_cast<unsigned>(local.tm_hour * 60 + local.tm_min)};
    return last;
}

}  // namespace

Window::Window(std::string_view text) {
    auto const words = Words(text);
    if (words.empty() || words.size() > 2) Fail(text, "window of days, times, or days and times");
    bool const days = !IsDigit(words.front().front());
    if (days) takeDays(words.front());
    if (!days) m_days = EveryDay;
    if (!days && words.size() == 2) Fail(text, "window: days stand before times");
    if (!days || words.size() == 2) takeSpans(words.back());
}

void Window::takeDays(std::string_view list) {
    for (auto const range : Split(list, ",")) {
        auto const ends = Split(range, "-");
        if (ends.size() > 2) Fail(range, "range of days");
        unsigned const last = DayNumber(ends.back());
        for (unsigned day = DayNumber(ends.front());; day = (day + 1) % Weekdays) {
            m_days = static_cast<std::uint8_t>(m_days | 1U << day);
            if (day == last) break;
        }
    }
}

void Window::takeSpans(std::string_view list) {
    for (auto const range : Split(list, ",")) {
        auto const ends = Split(range, "-");
        if (ends.size() != 2) Fail(range, "span of times (HH:MM-HH:MM)");
        unsigned const first = Minute(ends.front());
        unsigned const end = Minute(ends.back());
        if (first == DayMinutes || first == end) Fail(range, "span of times: it is empty");
        m_spans.push_back(Span{static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(end)});
    }
}

bool Window::contains(std::time_t when) const {
    auto const& local = Local(when);
    return containsMinute(local.weekday, local.minute);
}

bool Window::containsMinute(unsigned weekday, unsigned minute) const {
    if (m_spans.empty()) return onDay(weekday);
    unsigned const before = (weekday + Weekdays - 1) % Weekdays;
    return std::any_of(m_spans.begin(), m_spans.end(), [&](Span const& span) {
        if (span.first < span.end) return onDay(weekday) && minute >= span.first && minute < span.end;
        return (onDay(weekday) && minute >= span.first) || (onDay(before) && minute < span.end);
    });
}

}  // namespace policyloader
