// EventCapture: stands in the place of the log's sinks while it lives, and holds the test to the events it expects.
// The destructor fails the test for each event that came and was neither expected nor allowed, and for each expected
// one that did not come. Events are on as configured meanwhile, which is all of them by default, until noLogging is
// called. Owner: the test or its fixture. Threads: events may come from any; the verbs are the test thread's.
#pragma once

#include <QXlog/QXlog.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velt_testing {

struct CapturedEvent {
    QXlog::Event const* event;
    KORlog::InfoBag bag;
    std::string text;
    std::string file;
    int line;
    std::string function;
};

class EventCapture : private KORlog::Target {
public:
    EventCapture();
    ~EventCapture() override;
    EventCapture(EventCapture const&) = delete;
    EventCapture& operator=(EventCapture const&) = delete;

    void Expect(QXlog::Event const& event, unsigned times = 1);  // adds to what was expected before
    void Allow(QXlog::Event const& event);                       // may come any number of times, or not at all
    void AllowAll();

    std::vector<CapturedEvent> Events() const;  // in the order in which they came
    std::vector<std::string> Names() const;     // the same as "10003:68"
    std::size_t Count(QXlog::Event const& event) const;
    KORlog::InfoBag Bag(QXlog::Event const& event, std::size_t nth = 0) const;  // fails the test when there is none
    bool WaitFor(QXlog::Event const& event, std::size_t count = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(10));
    void Clear();  // forgets what came and what was expected

private:
    struct Expected {
        std::string name;
        unsigned times;
    };

    std::string useableSeverities() const override;
    void write(KORlog::sev::Severity severity, KORtk::Location const& where, QXlog::Event const& event,
               std::string const& text, KORlog::InfoBag const& bag) override;
    void Check() const;

    KORlog::Target* m_before;
    bool m_loggingBefore;

    mutable std::mutex m_mutex;  // guards all below
    std::condition_variable m_came;
    std::vector<CapturedEvent> m_events;
    std::vector<Expected> m_expected;
    std::vector<std::string> m_allowed;
    bool m_allowAll = false;
};

// The value at a path of keys, such as "connection.source_ip", as text; nothing when there is none.
std::optional<std::string> TextAt(KORlog::InfoBag const& bag, std::string_view path);
std::optional<long> NumberAt(KORlog::InfoBag const& bag, std::string_view path);
// "key=value key={...}" in the bag's order, for a whole comparison.
std::string Describe(KORlog::InfoBag const& bag);

}  // namespace velt_testing
