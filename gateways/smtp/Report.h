// ReportingSession: a session that can say, for an event, which one it is.
// Owner and thread: as any Connection. Cheap: no name is looked up.
#pragma once

#include <KORlog/InfoBag.h>

#include <string>

#include <velt/connection/Connection.h>
#include <velt/logging/Log.h>

#include "core/Reply.h"

namespace smtp {

class ReportingSession : public VELT::Connection {
public:
    KORlog::InfoBag Facts() const;  // audit ids and the client's address

    // Reports an event with these facts and what addMore(bag) puts behind them.
    template <class AddMore>
    void Note(QXlog::Event const& event, AddMore&& addMore) const {
        VELT::LogEvent(event, [&] {
            KORlog::InfoBag bag = Facts();
            addMore(bag);
            return bag;
        });
    }
};

// A message goes out to these that the next server may have from one of so many tries: that is counted.
void ReportResent(ReportingSession const& session, std::string const& recipients, unsigned long tries);

std::string OneLine(Reply const& reply);  // "554 5.7.1 refused"

}  // namespace smtp
