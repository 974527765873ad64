// The answer of a virus scan server: clean is one text alone, and whatever is printed of the rest is printable.
#include <algorithm>
#include <string>

#include <policyloader/engines/ClamdAnswer.h>

#include "fuzz/Input.h"

using policyloader::ClamdAnswer;
using velt_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    unsigned long const request = size ? data[0] : 0;
    std::string const line(reinterpret_cast<char const*>(data) + (size ? 1 : 0), size ? size - 1 : 0);
    auto const answer = ClamdAnswer::parse(line, request);
    std::string const head = std::to_string(request) + ": stream: ";
    Require((answer.kind == ClamdAnswer::Clean) == (line == head + "OK"), "one text alone is clean");
    if (answer.kind == ClamdAnswer::Found) {
        Require(line.compare(0, head.size(), head) == 0, "what is found is found in this stream");
        Require(!answer.text.empty(), "what is found has a name");
    }
    auto const printable = [](char c) { return c >= 0x20 && c < 0x7f; };
    Require(std::all_of(answer.text.begin(), answer.text.end(), printable), "texts are printable");
    Require(answer.text.size() <= 200, "texts are short");
    return 0;
}
