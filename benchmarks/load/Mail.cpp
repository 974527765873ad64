// Messages to a mail server, each in a session of its own; a client sends nothing before it has the answer to the last.
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "Crowd.h"
#include "Options.h"
#include "Sockets.h"

namespace velt_load {

namespace {

constexpr unsigned kGreetingMs = 3000;

// What is said, and the answer that is waited for.
struct Step {
    std::string_view say;
    char answer;
};
constexpr Step kBeforeBody[] = {
    {"EHLO client.alpha.test\r\n", '2'},
    {"MAIL FROM:<a@alpha.test>\r\n", '2'},
    {"RCPT TO:<b@beta.test>\r\n", '2'},
    {"DATA\r\n", '3'},
};

// Lines with CRLF, a dot before a dot, and the end.
std::string OnTheWire(std::string const& text) {
    std::string wire;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t const end = std::min(text.find('\n', at), text.size());
        if (text[at] == '.') wire += '.';
        wire.append(text, at, end - at).append("\r\n");
        at = end + 1;
    }
    return wire.append(".\r\n");
}

// Up to the line that ends an answer; its first digit, or 0.
char Answer(int fd) {
    std::string text;
    for (;;) {
        char block[1024];
        ssize_t const count = ::recv(fd, block, sizeof block, 0);
        if (count <= 0) return 0;
        text.append(block, static_cast<std::size_t>(count));
        if (!text.ends_with("\r\n")) continue;
        std::size_t const before = text.rfind('\n', text.size() - 2);
        std::size_t const line = before == std::string::npos ? 0 : before + 1;
        if (text.size() - line < 5 || text[line + 3] == ' ') return text[line];
    }
}

bool Say(int fd, std::string_view text) { return SendAll(fd, text.data(), text.size()); }

void Limit(int fd, unsigned ms) {
    timeval const limit{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

// A server whose queue was full may know nothing of a connection that its client has: another one is made then.
int Greeted(Options const& options) {
    for (unsigned waited = 0; waited < options.timeoutMs; waited += kGreetingMs) {
        int const fd = ConnectAsClient(options.target.address);
        Limit(fd, kGreetingMs);
        char const answer = Answer(fd);
        Limit(fd, options.timeoutMs);
        if (answer == '2') return fd;
        ::close(fd);
    }
    return -1;
}

bool Converse(int fd, std::string_view body) {
    for (Step const& step : kBeforeBody) {
        if (!Say(fd, step.say) || Answer(fd) != step.answer) return false;
    }
    bool const taken = Say(fd, body) && Answer(fd) == '2';
    return taken && Say(fd, "QUIT\r\n") && Answer(fd) == '2';
}

bool SendMessage(Options const& options, std::string_view body) {
    int const fd = Greeted(options);
    if (fd == -1) return false;
    bool const good = Converse(fd, body);
    ::close(fd);
    return good;
}

}  // namespace

int RunMail(Options const& options) {
    if (options.target.address.sin_port == 0 || options.sessions == 0 || options.file.empty()) Usage();
    std::string const body = OnTheWire(FileText(options.file));
    RunCrowd("messages", options.clients, options.sessions,
             [&] { return Work([&] { return SendMessage(options, body); }); });
    return 0;
}

}  // namespace velt_load
