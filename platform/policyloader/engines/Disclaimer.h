// Disclaimer: the text that a policy has added to mail: what it says, and where it goes.
// Owner: the scan plan; a value.  Threads: the scan's.  Failure: settings that say nothing count as absent.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <policyloader/engines/Marks.h>
#include <policyloader/store/SettingsView.h>

namespace policyloader {

// A text without blanks, line ends and marks of quotation, which replies and mail programs change; ready to be looked
// for.
struct Phrase {
    explicit Phrase(std::string_view utf8 = {});

    std::string text;
    std::vector<std::size_t> shorter;  // for each length: the longest that is an end of it, too
};

struct Disclaimer {
    bool enabled = false;
    std::string text;  // UTF-8 with line feeds; empty: texts get none
    std::string html;  // a piece of a page
    std::string position;
    std::string parts;
    bool once = true;
    bool leaveDkim = false;
    // What both say whatever their marks are filled with: by it an earlier one is known.
    Phrase textPhrase;
    Phrase htmlPhrase;

    bool active() const { return enabled && (!text.empty() || !html.empty()); }
    bool atTop() const { return position == "top"; }
    bool wantsText() const { return !text.empty() && parts != "html"; }
    bool wantsHtml() const { return !html.empty() && parts != "plain"; }

    static Disclaimer read(SettingsView const& view, bool selected);
    void fill(MarkValue const& value);
};

std::string EscapedHtml(std::string_view text);
// As the body of a text in the form of RFC 3676: lines that are too long flow.
std::string Flowed(std::string const& text, bool deletesSpaces);

// Whether a text holds a phrase; in pieces, and in linear time. The phrase outlives it.
class PhraseFinder {
public:
    explicit PhraseFinder(Phrase const& phrase) : m_phrase(phrase) {}
    void feed(std::string_view utf8);
    bool found() const { return m_found; }

private:
    void step(char c);

    Phrase const& m_phrase;
    std::size_t m_matched = 0;
    char m_held = 0;  // begins a blank of two bytes, maybe
    bool m_found = false;
};

}  // namespace policyloader
