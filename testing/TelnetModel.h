// TelnetModel: the telnet filter of a stream as a plain walk over a string, to compare with, and a handler that notes
// what it is told in the model's words.
// Owner: the test. Thread: the test's. Failure: none.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <velt/streams/TelnetEscapeHandler.h>

namespace velt_testing {

class NotingHandler final : public VELT::TelnetEscapeHandler {
public:
    void on_will(int option) override { Note("will", option); }
    void on_wont(int option) override { Note("wont", option); }
    void on_do(int option) override { Note("do", option); }
    void on_dont(int option) override { Note("dont", option); }
    void on_interrupt() override { calls.push_back("interrupt"); }
    void on_data_mark() override { calls.push_back("mark"); }
    void on_command(int command) override { Note("command", command); }

    std::vector<std::string> calls;

private:
    void Note(char const* what, int value) { calls.push_back(what + (' ' + std::to_string(value))); }
};

class TelnetModel {
public:
    std::string Filter(std::string text) {
        for (std::size_t i = 0; i < text.size();) {
            std::size_t const removed = std::min(Step(static_cast<unsigned char>(text[i]), i == 0), i + 1);
            text.erase(i + 1 - removed, removed);
            i += 1 - removed;
        }
        text.resize(text.size() - std::min<std::size_t>(text.size(), m_state));
        return text;
    }
    std::vector<std::string> const& calls() const { return m_told.calls; }
    bool hadInterrupt() const { return m_hadInterrupt; }  // whose bytes stay or go by where the input is cut

private:
    static constexpr int kMark = 242, kInterrupt = 244, kWill = 251, kWont = 252, kDo = 253, kDont = 254, kIac = 255;

    // How many bytes go, this one the last.
    std::size_t Step(int c, bool first) {
        if (m_state == 1) return Command(c, first);
        if (m_state == 2) return m_command == kInterrupt ? AfterInterrupt(c) : Option(c);
        if (m_state == 3) return c == kMark ? Mark(3) : 0;
        if (c == kIac) m_state = 1;
        return 0;
    }
    std::size_t Command(int c, bool first) {
        m_command = c;
        if (c == kMark) return Mark(2);
        if (c == kIac) return Done(first ? 0 : 1);
        if (c == kInterrupt) {
            m_told.on_interrupt();
            m_hadInterrupt = true;
        } else if (c < kWill) {
            m_told.on_command(c);
            return Done(2);
        }
        m_state = 2;
        return 0;
    }
    std::size_t Option(int c) {
        if (m_command == kWill) m_told.on_will(c);
        if (m_command == kWont) m_told.on_wont(c);
        if (m_command == kDo) m_told.on_do(c);
        if (m_command == kDont) m_told.on_dont(c);
        return Done(3);
    }
    std::size_t AfterInterrupt(int c) {
        if (c == kMark) return Mark(2);
        m_state = 3;
        return 0;
    }
    std::size_t Mark(std::size_t removed) {
        m_told.on_data_mark();
        return Done(removed);
    }
    std::size_t Done(std::size_t removed) {
        m_state = 0;
        return removed;
    }

    NotingHandler m_told;
    unsigned m_state = 0;
    int m_command = 0;
    bool m_hadInterrupt = false;
};

}  // namespace velt_testing
