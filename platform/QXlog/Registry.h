// Registry: all events of the process and the rules that set their switches. Switch rules and texts change at start-up;
// events may be built at any time, with a module that is loaded.
// Owner: one, immortal. Threads: any; one mutex guards everything. Failure: std::bad_alloc only.
#pragma once

#include <QXlog/Event.h>
#include <QXlog/QXlog.h>

#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace QXlog::detail {

// One row of the configuration: the events of this number, or the one with this reason.
struct SwitchRule {
    int id;
    int reason;
    bool everyReason;
    bool on;
};

struct SwitchRules {
    bool standard = true;           // what no rule speaks of
    std::vector<SwitchRule> rules;  // the last that fits wins

    bool Allow(int id, int reason) const;
};

class Registry {
public:
    static Registry& Get();

    void Join(Event const& event, int id, int reason);
    void SetRules(SwitchRules rules);
    bool SetAllowed(bool allowed);    // gives what held before
    void SetListened(bool listened);  // whether a target or a sink takes reports

    void AddText(EventText const& row);
    char const* FindText(int id, int reason) const;

    void LockForFork() { m_mutex.lock(); }  // so that a child finds everything whole
    void UnlockAfterFork() { m_mutex.unlock(); }

private:
    struct Member {
        Event const* event;
        int id;
        int reason;
    };

    bool Switch(int id, int reason) const;
    void ApplyLocked() const;

    mutable std::mutex m_mutex;
    std::vector<Member> m_members;
    SwitchRules m_rules;
    bool m_allowed = true;
    bool m_listened = false;
    std::map<std::pair<int, int>, char const*> m_texts;
};

}  // namespace QXlog::detail
