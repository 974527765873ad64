#include "testing/ScriptedDirectory.h"

#include <algorithm>
#include <chrono>
#include <memory>

#include <ldap.h>

namespace velt_testing {

namespace {

struct FreeWhole {
    void operator()(BerElement* element) const { ::ber_free(element, 1); }
};
using Element = std::unique_ptr<BerElement, FreeWhole>;

constexpr int kPollMs = 20;

Element Message() { return Element(::ber_alloc_t(LBER_USE_DER)); }

bool Receive(int fd, char* to, std::size_t length) {
    for (ssize_t came = 0; length > 0; to += came, length -= static_cast<std::size_t>(came)) {
        came = ::recv(fd, to, length, 0);
        if (came <= 0) return false;
    }
    return true;
}

// One message with its outer frame; empty at the end of the connection.
std::string ReceiveMessage(int fd) {
    std::string message(2, '\0');
    if (!Receive(fd, message.data(), 2)) return {};
    std::size_t length = static_cast<unsigned char>(message[1]);
    if (length & 0x80) {
        std::string digits(length & 0x7f, '\0');
        if (digits.size() > 4 || !Receive(fd, digits.data(), digits.size())) return {};
        length = 0;
        for (char const one : digits) length = length << 8 | static_cast<unsigned char>(one);
        message += digits;
    }
    std::size_t const begin = message.size();
    message.resize(begin + length);
    return Receive(fd, message.data() + begin, length) ? message : std::string();
}

std::string Text(berval const& value) { return std::string(value.bv_val, value.bv_len); }

void TakeBody(BerElement* body, ScriptedDirectory::Request& request) {
    berval name{}, password{};
    ber_tag_t way = 0;
    ber_int_t aliases = 0;
    if (request.type == LDAP_REQ_SEARCH)
        ::ber_scanf(body, "{meeii", &name, &request.scope, &aliases, &request.entries, &request.seconds);
    else if (request.type == LDAP_REQ_BIND) {
        ::ber_scanf(body, "{imt", &request.version, &name, &way);
        ::ber_scanf(body, "m", &password);
    } else if (request.type == LDAP_REQ_DELETE)
        ::ber_scanf(body, "m", &name);
    else if (request.type == LDAP_REQ_ADD || request.type == LDAP_REQ_MODIFY)
        ::ber_scanf(body, "{m", &name);
    request.name = Text(name);
    request.password = Text(password);
}

ScriptedDirectory::Request Decoded(std::string& message) {
    ScriptedDirectory::Request request;
    berval bytes{message.size(), message.data()};
    Element const element(::ber_init(&bytes));
    ber_tag_t type = 0;
    ::ber_scanf(element.get(), "{it", &request.id, &type);
    request.type = static_cast<unsigned>(type);
    TakeBody(element.get(), request);
    return request;
}

unsigned AnswerOf(unsigned request) {
    if (request == LDAP_REQ_BIND) return LDAP_RES_BIND;
    if (request == LDAP_REQ_SEARCH) return LDAP_RES_SEARCH_RESULT;
    if (request == LDAP_REQ_MODIFY) return LDAP_RES_MODIFY;
    if (request == LDAP_REQ_ADD) return LDAP_RES_ADD;
    return request == LDAP_REQ_DELETE ? LDAP_RES_DELETE : LDAP_RES_EXTENDED;
}

}  // namespace

void ScriptedDirectory::Client::Send(BerElement* message) const {
    berval bytes{};
    ::ber_flatten2(message, &bytes, 0);
    ::send(m_fd, bytes.bv_val, bytes.bv_len, MSG_NOSIGNAL);
}

void ScriptedDirectory::Client::Entry(Request const& request, std::string const& name,
                                      std::map<std::string, std::vector<std::string>> const& attributes) {
    Element const message = Message();
    ::ber_printf(message.get(), "{it{s{", request.id, LDAP_RES_SEARCH_ENTRY, name.c_str());
    for (auto const& [attribute, values] : attributes) {
        ::ber_printf(message.get(), "{s[", attribute.c_str());
        for (std::string const& value : values) ::ber_printf(message.get(), "o", value.data(), value.size());
        ::ber_printf(message.get(), "]}");
    }
    ::ber_printf(message.get(), "}}}");
    Send(message.get());
}

void ScriptedDirectory::Client::Reference(Request const& request) {
    Element const message = Message();
    ::ber_printf(message.get(), "{it{s}}", request.id, LDAP_RES_SEARCH_REFERENCE, "ldap://127.0.0.2:1/dc=x");
    Send(message.get());
}

void ScriptedDirectory::Client::Intermediate(Request const& request) {
    Element const message = Message();
    ::ber_printf(message.get(), "{it{ts}}", request.id, LDAP_RES_INTERMEDIATE, LDAP_TAG_IM_RES_OID,
                 "1.3.6.1.4.1.32473.9");
    Send(message.get());
}

void ScriptedDirectory::Client::Notice() {
    Element const message = Message();
    ::ber_printf(message.get(), "{it{ess}}", 0, LDAP_RES_EXTENDED, 0, "", "");
    Send(message.get());
}

void ScriptedDirectory::Client::End(Request const& request, int code) {
    Element const message = Message();
    ::ber_printf(message.get(), "{it{ess}}", request.id, static_cast<ber_tag_t>(AnswerOf(request.type)), code, "", "");
    Send(message.get());
}

bool ScriptedDirectory::Client::IsSilent(int milliseconds) const {
    pollfd wait{m_fd, POLLIN, 0};
    return ::poll(&wait, 1, milliseconds) == 0;
}

void ScriptedDirectory::Client::Close() const { ::shutdown(m_fd, SHUT_RDWR); }

ScriptedDirectory::ScriptedDirectory(Script script) : m_script(std::move(script)), m_thread([this] { Serve(); }) {}

ScriptedDirectory::~ScriptedDirectory() {
    m_ends = true;
    m_thread.join();
}

// Looks now and then whether it shall end, also amid a connection that stays silent.
void ScriptedDirectory::Serve() {
    for (int connection = 1; !m_ends;) {
        pollfd wait{m_listener.fd(), POLLIN, 0};
        if (::poll(&wait, 1, kPollMs) <= 0) continue;
        Fd const client(::accept4(m_listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.get() >= 0) Talk(client.get(), connection++);
    }
}

void ScriptedDirectory::Talk(int fd, int connection) {
    while (!m_ends) {
        pollfd wait{fd, POLLIN, 0};
        if (::poll(&wait, 1, kPollMs) <= 0) continue;
        std::string message = ReceiveMessage(fd);
        if (message.empty()) return;
        Request request = Decoded(message);
        request.connection = connection;
        {
            std::lock_guard const guard(m_mutex);
            m_requests.push_back(request);
        }
        m_came.notify_all();
        Client client(fd);
        m_script(client, request);
    }
}

std::vector<ScriptedDirectory::Request> ScriptedDirectory::Requests() const {
    std::lock_guard const guard(m_mutex);
    return m_requests;
}

std::size_t ScriptedDirectory::Count(unsigned type) const {
    std::lock_guard const guard(m_mutex);
    return static_cast<std::size_t>(
        std::count_if(m_requests.begin(), m_requests.end(), [&](Request const& one) { return one.type == type; }));
}

bool ScriptedDirectory::WaitFor(unsigned type) const {
    std::unique_lock guard(m_mutex);
    return m_came.wait_for(guard, std::chrono::seconds(10), [&] {
        return std::any_of(m_requests.begin(), m_requests.end(), [&](Request const& one) { return one.type == type; });
    });
}

int ScriptedDirectory::Connections() const {
    std::lock_guard const guard(m_mutex);
    return m_requests.empty() ? 0 : m_requests.back().connection;
}

}  // namespace velt_testing
