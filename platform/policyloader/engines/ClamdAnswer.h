// ClamdAnswer: one line of a virus scan server, judged. What is not word for word the line for a clean stream is not
// clean.  A value; any thread.  Failure: none; lines that make no sense are Rubbish.
#pragma once

#include <string>
#include <string_view>

namespace policyloader {

struct ClamdAnswer {
    enum Kind { Clean, Found, Refused, Rubbish };
    Kind kind = Rubbish;
    std::string text;  // what was found; why it was refused; what came instead of an answer, printable

    // `line` without its end; `request` is the number of the question within its session, from 1.
    static ClamdAnswer parse(std::string_view line, unsigned long request);
};

// A text from outside for a log or a reply: printable, of bounded length.
std::string PrintableAnswer(std::string_view text);

}  // namespace policyloader
