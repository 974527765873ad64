#include <velt/scanning/ScanRequests.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include <velt/streams/ScannerStream.h>
#include <velt/streams/TCPStream.h>

namespace VELT::scan_requests {

namespace {

constexpr std::size_t kGathered = 32 * 1024;  // bytes; what is larger goes out as it is
constexpr unsigned kMostAtOnce = 1u << 30;    // bytes of one write, which a socket's ends below 2 GiB

void AddHeader(std::string& block, char const* name, std::string_view value) {
    block.append(name).append(1, ' ').append(value).append(1, '\n');
}

}  // namespace

bool IsOneLine(std::string_view value) { return value.find_first_of("\r\n") == value.npos; }

bool IsOutOfStep(BufferedStream& stream) {
    char* ahead = nullptr;
    return stream.buffereddata(ahead) > 0;
}

std::string SetupBlock(Setup const& setup) {
    std::string block = "get setup_scan\n";
    AddHeader(block, "protocol", setup.protocol);
    AddHeader(block, "time", std::to_string(setup.time));
    AddHeader(block, "size", std::to_string(setup.size));
    AddHeader(block, "policy", setup.policy);
    if (!setup.filename.empty()) AddHeader(block, "filename", setup.filename);
    return block += '\n';
}

std::string ScanBlock(char const* identity, bool fallback, bool attributes) {
    std::string block = "get scan\n";
    if (identity) AddHeader(block, "identity", identity);
    if (fallback) AddHeader(block, "fallbackscan", "1");
    if (attributes) AddHeader(block, "connattr", "1");
    return block += '\n';
}

// The first bytes that come, up to a count; the rest is lost.
class Body::Limited : public BufferedStream {
public:
    Limited(Body& body, unsigned most) : m_body(body), m_left(most) {}

    int read(char*, unsigned, unsigned*) override { return EBADF; }
    int write(char const* data, unsigned length, unsigned* sent) override {
        *sent = length;
        unsigned const taken = std::min(length, m_left);
        m_left -= taken;
        unsigned went = 0;
        return taken ? m_body.write(data, taken, &went) : 0;
    }
    int writev(unsigned, unsigned*, char const**, unsigned*) override { return EBADF; }
    unsigned left() const { return m_left; }

private:
    Body& m_body;
    unsigned m_left;
};

Body::Body(TCPStream& target)
    : Body([&target](char const* data, unsigned length, bool more, unsigned* sent) {
          return target.SendDataFlagged(data, length, more ? MSG_MORE : 0, sent);
      }) {}

int Body::read(char*, unsigned, unsigned*) { return EBADF; }

int Body::SendNow(char const* data, unsigned length, bool more) {
    while (!m_error && length > 0) {
        unsigned sent = 0;
        m_error = m_send(data, std::min(length, kMostAtOnce), more, &sent);
        if (m_error < 0) m_error = errno;
        if (m_error == 0 && sent == 0) m_error = EIO;
        data += sent;
        length -= sent;
    }
    return m_error;
}

int Body::Begin(std::string const& block) { return SendNow(block.data(), static_cast<unsigned>(block.size()), true); }

int Body::Send() {
    SendNow(m_gathered.data(), static_cast<unsigned>(m_gathered.size()), false);
    m_gathered.clear();
    return m_error;
}

int Body::write(char const* data, unsigned length, unsigned* sent) {
    *sent = length;
    if (length < kGathered) {
        m_gathered.append(data, length);
        return m_gathered.size() >= kGathered ? Send() : m_error;
    }
    SendNow(m_gathered.data(), static_cast<unsigned>(m_gathered.size()), true);
    m_gathered.clear();
    return SendNow(data, length, false);
}

int Body::writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) {
    *sent = 0;
    for (unsigned i = 0; i < count && !m_error; ++i) {
        unsigned went = 0;
        write(buffers[i], lengths[i], &went);
        *sent += went;
    }
    return m_error;
}

// A spool file that is not as long as it was would put the two ends out of step.
int Body::WriteContent(ScannerStream& content, unsigned size) {
    Limited limited(*this, size);
    errno = 0;
    bool const copied = content.spool_to_stream(&limited) == 0;
    int const error = errno;
    if (Send()) return m_error;
    if (!copied) return error ? error : EIO;
    return limited.left() == 0 ? 0 : EIO;
}

}  // namespace VELT::scan_requests
