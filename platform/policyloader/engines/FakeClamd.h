// FakeClamd: a virus scan server of a test: reads sessions and streams as the real one does, and answers by a script.
// Owner: the test.  Threads: those of its ScriptedServer.  Failure: a command that it does not know ends the
// connection.
#pragma once

#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <arpa/inet.h>

#include <policyloader/engines/ScriptedServer.h>

namespace policyloader {

class FakeClamd {
public:
    struct Reply {
        std::string text;     // as it stands, with its end
        bool leave = false;   // then, or instead
        bool silent = false;  // until the client leaves
    };
    struct Question {
        int connection;
        unsigned long request;  // within its session, from 1
        std::string content;
        std::string id() const { return std::to_string(request) + ": "; }
    };
    using Script = std::function<Reply(Question const&)>;

    // After `enough` bytes of a stream it answers without reading on.
    FakeClamd(std::string path, Script script, std::size_t enough = std::string::npos)
        : m_script(std::move(script)),
          m_enough(enough),
          m_server(std::move(path), [this](int fd, int connection) { serve(fd, connection); }) {}

    int connections() const { return m_server.connections(); }
    std::vector<Question> questions() const {
        std::lock_guard<std::mutex> const guard(m_mutex);
        return m_questions;
    }

    static Reply Judge(Question const& question) {
        bool const bad = question.content.find("planted") != std::string::npos;
        return {question.id() + (bad ? "stream: Test.Planted FOUND" : "stream: OK") + std::string(1, '\0')};
    }

private:
    void serve(int fd, int connection) {
        Question question{connection, 0, {}};
        std::string command;
        char byte = 0;
        while (ReadExactly(fd, &byte, 1)) {
            if (byte) {
                command += byte;
                continue;
            }
            if (command != "zIDSESSION" && !(command == "zINSTREAM" && stream(fd, question))) return;
            command.clear();
        }
    }

    bool stream(int fd, Question& question) {
        ++question.request;
        question.content.clear();
        std::uint32_t length = 0;
        while (question.content.size() < m_enough) {
            if (!ReadExactly(fd, reinterpret_cast<char*>(&length), sizeof length)) return false;
            if (length == 0) break;
            std::string piece(ntohl(length), '\0');
            if (!ReadExactly(fd, piece.data(), piece.size())) return false;
            question.content += piece;
        }
        {
            std::lock_guard<std::mutex> const guard(m_mutex);
            m_questions.push_back(question);
        }
        auto const reply = m_script(question);
        if (!reply.text.empty()) Say(fd, reply.text);
        if (reply.silent) WaitForTheOtherSideToLeave(fd);
        return !reply.leave && !reply.silent;
    }

    Script const m_script;
    std::size_t const m_enough;
    mutable std::mutex m_mutex;
    std::vector<Question> m_questions;
    ScriptedServer m_server;  // last: its threads use the others
};

}  // namespace policyloader
