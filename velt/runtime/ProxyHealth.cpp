#include <velt/runtime/ProxyHealth.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include <velt/runtime/HealthRequest.h>
#include <velt/streams/TCPStream.h>

namespace VELT {

namespace {

constexpr unsigned kTimeoutMs = 1000;
constexpr std::string_view kAnswer = "HTTP/1.0 200 OK\r\n\r\n";

void WriteLine(TCPStream& stream, char const* name, std::string_view value) {
    std::string_view const pieces[] = {name, ": ", value, "\r\n"};
    char const* buffers[4];
    unsigned lengths[4];
    for (unsigned i = 0; i < 4; ++i) {
        buffers[i] = pieces[i].data();
        lengths[i] = static_cast<unsigned>(pieces[i].size());
    }
    unsigned sent = 0;
    stream.writev(4, lengths, buffers, &sent);
}

void WriteNumber(TCPStream& stream, char const* name, int value) {
    char text[32];
    int const length = std::snprintf(text, sizeof text, "%d", value);
    WriteLine(stream, name, {text, static_cast<std::size_t>(length)});
}

}  // namespace

void answer_request(TCPStream& stream) {
    char path[128] = "";
    read_request_info(stream.GetSocket(), path, sizeof path);
    if (std::string_view(path) != "/") throw ProxyHealthIOError(KORtk::Here(), "Unknown command");
    stream.write(kAnswer.data(), static_cast<unsigned>(kAnswer.size()));
    ProxyHealth::proxy_status(&stream);
}

// Never destroyed: a check may still be answered while the process exits.
std::atomic<std::time_t> ProxyHealth::m_starttime{0};
std::string& ProxyHealth::m_proxyname = *new std::string;
std::deque<boost::shared_ptr<ProxyHealth::ProxyPort>>& ProxyHealth::m_portlist =
    *new std::deque<boost::shared_ptr<ProxyPort>>;

void ProxyHealth::init(std::string const& name) {
    if (m_starttime != 0) return;
    m_proxyname = name;
    m_starttime = ::time(nullptr);
}

bool ProxyHealth::is_active() { return m_starttime.load(std::memory_order_relaxed) != 0; }

void ProxyHealth::disable() { m_starttime = 0; }

boost::shared_ptr<ProxyHealth::ProxyPort> ProxyHealth::listener(unsigned short port) {
    auto const known =
        std::find_if(m_portlist.begin(), m_portlist.end(), [port](auto const& entry) { return entry->port == port; });
    if (known != m_portlist.end()) return *known;
    return m_portlist.emplace_back(new ProxyPort(port));
}

void ProxyHealth::handle_request(TCPStream* stream) {
    if (!is_active()) return;
    stream->set_timeout(kTimeoutMs);
    try {
        answer_request(*stream);
    } catch (ProxyHealthIOError const&) {
        // Whoever asks wrongly gets no answer, and there is nothing to report of it.
    }
}

void ProxyHealth::proxy_status(TCPStream* stream) {
    bool const well = std::all_of(m_portlist.begin(), m_portlist.end(), [](auto const& port) { return port->ok; });
    WriteLine(*stream, "Health", well ? "OK" : "NOTOK");
    WriteLine(*stream, "Name", m_proxyname.empty() ? "?" : m_proxyname);
    WriteNumber(*stream, "Start", static_cast<int>(m_starttime.load()));
    for (auto const& port : m_portlist) WriteNumber(*stream, port->ok ? "Listening" : "FailedPort", port->port);
}

}  // namespace VELT
