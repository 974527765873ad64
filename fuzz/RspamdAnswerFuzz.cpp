// The answer of an rspamd: a judgement has finite numbers, and comes of one whole JSON object alone.
#include <algorithm>
#include <cmath>
#include <string>

#include <policyloader/engines/SpamAnswer.h>

#include "fuzz/Input.h"

using policyloader::SpamAnswer;
using velt_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    std::string const reply(reinterpret_cast<char const*>(data), size);
    auto const printable = [](char c) { return c >= 0x20 && c < 0x7f; };
    auto const answer = SpamAnswer::parseRspamd(reply);
    Require(std::all_of(answer.text.begin(), answer.text.end(), printable), "texts are printable");
    if (answer.kind != SpamAnswer::Judged) return 0;
    Require(reply.find("\"") != std::string::npos, "a judgement has names");
    Require(std::isfinite(answer.judgement.score) && std::isfinite(answer.judgement.threshold), "numbers are finite");
    for (auto const& [name, score] : answer.judgement.tests) {
        Require(!name.empty() && std::isfinite(score), "a test has a name and a finite score");
        Require(std::all_of(name.begin(), name.end(), printable), "names are printable");
    }
    Require(SpamAnswer::parseRspamd(reply + "x").kind == SpamAnswer::Rubbish, "one byte more is no judgement");
    Require(SpamAnswer::parseRspamd(reply.substr(0, reply.rfind('}'))).kind == SpamAnswer::Rubbish, "nor is a cut one");
    return 0;
}
