// FindExchangers: where a domain's mail goes (RFC 5321 section 5.1): to its mail exchangers in their order, or to the
// domain's own address where it has none; nowhere if it says so (RFC 7505).
// Thread: any; the resolver's state is the thread's. Failure: a reply, 4xx as soon as a second try may help.
#pragma once

#include <KORnet/Addr.h>

#include <string>
#include <vector>

#include "core/Reply.h"

namespace smtp {

// `domain` is a name or an address literal. A 2xx reply: `out` has an address at least.
Reply FindExchangers(std::string const& domain, std::vector<KORnet::IPAddr>& out);

bool IsDottedQuad(std::string const& text);

}  // namespace smtp
