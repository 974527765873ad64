#include <QXlog/Registry.h>

namespace QXlog {

Event::Event(int id, int reason) : m_id(id) { detail::Registry::Get().Join(*this, id, reason); }

std::string Event::asString() const {
    Reason const* const why = reason();
    return why ? std::to_string(m_id) + ':' + std::to_string(why->number()) : std::to_string(m_id);
}

void RegisterTexts(EventText const* rows, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) detail::Registry::Get().AddText(rows[i]);
}

char const* FindText(int id, int reason) { return detail::Registry::Get().FindText(id, reason); }

namespace detail {

bool SwitchRules::Allow(int id, int reason) const {
    for (auto rule = rules.rbegin(); rule != rules.rend(); ++rule) {
        if (rule->id == id && (rule->everyReason || rule->reason == reason)) return rule->on;
    }
    return standard;
}

Registry& Registry::Get() {
    static Registry& registry = *new Registry;
    return registry;
}

void Registry::Join(Event const& event, int id, int reason) {
    std::lock_guard const lock(m_mutex);
    m_members.push_back({&event, id, reason});
    event.enable(Switch(id, reason));
}

void Registry::SetRules(SwitchRules rules) {
    std::lock_guard const lock(m_mutex);
    m_rules = std::move(rules);
    ApplyLocked();
}

bool Registry::SetAllowed(bool allowed) {
    std::lock_guard const lock(m_mutex);
    bool const before = std::exchange(m_allowed, allowed);
    ApplyLocked();
    return before;
}

void Registry::SetListened(bool listened) {
    std::lock_guard const lock(m_mutex);
    m_listened = listened;
    ApplyLocked();
}

void Registry::AddText(EventText const& row) {
    std::lock_guard const lock(m_mutex);
    m_texts[{row.id, row.reason}] = row.words;
}

char const* Registry::FindText(int id, int reason) const {
    std::lock_guard const lock(m_mutex);
    auto const found = m_texts.find({id, reason});
    return found == m_texts.end() ? nullptr : found->second;
}

bool Registry::Switch(int id, int reason) const { return m_allowed && m_listened && m_rules.Allow(id, reason); }

void Registry::ApplyLocked() const {
    for (Member const& member : m_members) member.event->enable(Switch(member.id, member.reason));
}

}  // namespace detail
}  // namespace QXlog
