// Window: the times of the week at which a value or a rule applies, in local time.
//   window := days | spans | days spans        days  := day-range { "," day-range }
//   day-range := day [ "-" day ]               spans := span { "," span }
//   day := mon tue wed thu fri sat sun         span  := HH:MM "-" HH:MM
// A span takes in its first minute and not its last; "24:00" may end one. A span whose end is not after its start goes
// on past midnight and belongs to the day on which it begins. Day ranges may wrap ("fri-mon"). Any case; blanks
// between. Owner: the store. Immutable, any thread. Failure: the constructor throws WindowError.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace policyloader {

struct WindowError {
    std::string reason;
};

class Window {
public:
    static constexpr unsigned DayMinutes = 24 * 60;

    explicit Window(std::string_view text);

    bool contains(std::time_t when) const;
    bool containsMinute(unsigned weekday, unsigned minute) const;  // 0 is Monday; minutes since midnight

private:
    struct Span {
        std::uint16_t first;
        std::uint16_t end;  // not after `first`: on the next day
    };

    void takeDays(std::string_view list);
    void takeSpans(std::string_view list);
    bool onDay(unsigned weekday) const { return m_days >> weekday & 1U; }

    std::uint8_t m_days = 0;    // bit 0 is Monday
    std::vector<Span> m_spans;  // empty: the whole day
};

}  // namespace policyloader
