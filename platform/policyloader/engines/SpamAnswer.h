// SpamAnswer: the judgement of a spam scan server, as it came over the connection.
// A value; any thread.  Failure: none; an answer that is not whole, or makes no sense, is Rubbish.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace policyloader {

// What a judge of spam says, be it a server or the rules.
struct SpamJudgement {
    using Test = std::pair<std::string, double>;  // name, score

    double score = 0;
    double threshold = 0;     // the judge's own
    std::vector<Test> tests;  // those that fired
};

struct SpamAnswer {
    enum Kind { Judged, Refused, Rubbish };
    Kind kind = Rubbish;
    std::string text;  // why it was refused, or what is wrong with it; printable
    SpamJudgement judgement;

    // Of spamd to REPORT; `reply` is all that came until the connection was closed.
    static SpamAnswer parseSpamd(std::string_view reply);
    // Of rspamd to a check: the body of its reply.
    static SpamAnswer parseRspamd(std::string_view body);
};

}  // namespace policyloader
