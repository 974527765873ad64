// The answer of a spam scan server: a judgement has finite numbers and a body of the length that it tells of.
#include <algorithm>
#include <cmath>
#include <string>

#include <policyloader/engines/SpamAnswer.h>

#include "fuzz/Input.h"

using policyloader::SpamAnswer;
using velt_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    std::string const reply(reinterpret_cast<char const*>(data), size);
    auto const answer = SpamAnswer::parseSpamd(reply);
    if (answer.kind != SpamAnswer::Judged) {
        auto const printable = [](char c) { return c >= 0x20 && c < 0x7f; };
        Require(std::all_of(answer.text.begin(), answer.text.end(), printable), "texts are printable");
        return 0;
    }
    Require(reply.compare(0, 6, "SPAMD/") == 0, "a judgement has a status");
    Require(reply.find("\r\n\r\n") != std::string::npos, "a judgement has a whole head");
    Require(std::isfinite(answer.judgement.score) && std::isfinite(answer.judgement.threshold), "numbers are finite");
    for (auto const& [name, score] : answer.judgement.tests)
        Require(!name.empty() && std::isfinite(score), "a test has a name and a finite score");
    Require(SpamAnswer::parseSpamd(reply + "x").kind == SpamAnswer::Rubbish, "one byte more is no judgement");
    return 0;
}
