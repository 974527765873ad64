// AskRspamd: asks an rspamd for its judgement of a message and its envelope, over HTTP.
// Owner: none, a free function.  Threads: the scan's.  Failure: EngineFailure of Server...
#pragma once

#include <policyloader/engines/ServerConnection.h>
#include <policyloader/engines/SpamAnswer.h>
#include <policyloader/engines/SpamQuestion.h>

namespace policyloader {

SpamJudgement AskRspamd(ServerAddress const& server, SpamQuestion const& question, Patience& patience);

}  // namespace policyloader
