#include "testing/EventCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace velt_testing {
namespace {

using Nested = std::shared_ptr<KORlog::InfoBag const>;

std::string Show(KORlog::Value const& value) {
    struct Shower {
        std::string operator()(std::string const& v) const { return v; }
        std::string operator()(KORtk::Utf8Array const& v) const { return v.str(); }
        std::string operator()(Nested const& v) const { return '{' + (v ? Describe(*v) : std::string()) + '}'; }
        std::string operator()(double v) const {
            char text[40];
            std::snprintf(text, sizeof text, "%g", v);
            return text;
        }
        std::string operator()(long v) const { return std::to_string(v); }
        std::string operator()(unsigned long v) const { return std::to_string(v); }
        std::string operator()(unsigned short v) const { return std::to_string(v); }
    };
    return std::visit(Shower{}, value);
}

KORlog::Value const* FindAt(KORlog::InfoBag const& bag, std::string_view path) {
    std::size_t const dot = path.find('.');
    KORlog::Value const* const value = bag.find(std::string(path.substr(0, dot)).c_str());
    if (!value || dot == path.npos) return value;
    Nested const* const nested = std::get_if<Nested>(value);
    return nested && *nested ? FindAt(**nested, path.substr(dot + 1)) : nullptr;
}

}  // namespace

EventCapture::EventCapture()
    : m_before(QXlog::detail::exchange_qxtarget(this)), m_loggingBefore(QXlog::detail::allowLogging(true)) {}

EventCapture::~EventCapture() {
    QXlog::detail::exchange_qxtarget(m_before);
    QXlog::detail::allowLogging(m_loggingBefore);
    Check();
}

void EventCapture::Expect(QXlog::Event const& event, unsigned times) {
    std::lock_guard const lock(m_mutex);
    m_expected.push_back({event.asString(), times});
}

void EventCapture::Allow(QXlog::Event const& event) {
    std::lock_guard const lock(m_mutex);
    m_allowed.push_back(event.asString());
}

void EventCapture::AllowAll() {
    std::lock_guard const lock(m_mutex);
    m_allowAll = true;
}

std::vector<CapturedEvent> EventCapture::Events() const {
    std::lock_guard const lock(m_mutex);
    return m_events;
}

std::vector<std::string> EventCapture::Names() const {
    std::vector<std::string> names;
    for (CapturedEvent const& came : Events()) names.push_back(came.event->asString());
    return names;
}

std::size_t EventCapture::Count(QXlog::Event const& event) const {
    std::vector<std::string> const names = Names();
    return static_cast<std::size_t>(std::count(names.begin(), names.end(), event.asString()));
}

KORlog::InfoBag EventCapture::Bag(QXlog::Event const& event, std::size_t nth) const {
    for (CapturedEvent const& came : Events()) {
        if (came.event->asString() == event.asString() && nth-- == 0) return came.bag;
    }
    ADD_FAILURE() << "event " << event.asString() << " did not come";
    return {};
}

bool EventCapture::WaitFor(QXlog::Event const& event, std::size_t count, std::chrono::milliseconds limit) {
    std::string const name = event.asString();
    auto const enough = [&] {
        auto const same = [&](CapturedEvent const& came) { return came.event->asString() == name; };
        return static_cast<std::size_t>(std::count_if(m_events.begin(), m_events.end(), same)) >= count;
    };
    std::unique_lock lock(m_mutex);
    return m_came.wait_for(lock, limit, enough);
}

void EventCapture::Clear() {
    std::lock_guard const lock(m_mutex);
    m_events.clear();
    m_expected.clear();
}

std::string EventCapture::useableSeverities() const { return "all"; }

void EventCapture::write(KORlog::sev::Severity, KORtk::Location const& where, QXlog::Event const& event,
                         std::string const& text, KORlog::InfoBag const& bag) {
    std::lock_guard const lock(m_mutex);
    m_events.push_back({&event, bag, text, where.file, where.line, where.function});
    m_came.notify_all();
}

void EventCapture::Check() const {
    std::vector<std::string> came = Names();
    for (Expected const& expected : m_expected) {
        for (unsigned i = 0; i < expected.times; ++i) {
            auto const found = std::find(came.begin(), came.end(), expected.name);
            if (found == came.end()) {
                ADD_FAILURE() << "expected event " << expected.name << " did not come";
            } else {
                came.erase(found);
            }
        }
    }
    for (std::string const& name : came) {
        bool const allowed = m_allowAll || std::find(m_allowed.begin(), m_allowed.end(), name) != m_allowed.end();
        if (!allowed) ADD_FAILURE() << "event " << name << " was not expected";
    }
}

std::optional<std::string> TextAt(KORlog::InfoBag const& bag, std::string_view path) {
    KORlog::Value const* const value = FindAt(bag, path);
    if (!value) return std::nullopt;
    return Show(*value);
}

std::optional<long> NumberAt(KORlog::InfoBag const& bag, std::string_view path) {
    KORlog::Value const* const value = FindAt(bag, path);
    if (!value) return std::nullopt;
    if (auto const* const v = std::get_if<long>(value)) return *v;
    if (auto const* const v = std::get_if<unsigned long>(value)) return static_cast<long>(*v);
    if (auto const* const v = std::get_if<unsigned short>(value)) return *v;
    return std::nullopt;
}

std::string Describe(KORlog::InfoBag const& bag) {
    std::string text;
    for (KORlog::Pair const& pair : bag.items()) {
        if (!text.empty()) text += ' ';
        text.append(pair.key).append("=").append(Show(pair.value));
    }
    return text;
}

}  // namespace velt_testing
