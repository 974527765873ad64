// AskSpamd: asks a SpamAssassin server for its judgement of a message, with its envelope in fields in front of it.
// Owner: none, a free function.  Threads: the scan's.  Failure: EngineFailure of Server...
#pragma once

#include <policyloader/engines/ServerConnection.h>
#include <policyloader/engines/SpamAnswer.h>
#include <policyloader/engines/SpamQuestion.h>

namespace policyloader {

SpamJudgement AskSpamd(ServerAddress const& server, SpamQuestion const& question, Patience& patience);

}  // namespace policyloader
