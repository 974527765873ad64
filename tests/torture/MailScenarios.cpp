// A mail that goes from the spool to its next hop.
#include <velt/connection/Connection.h>
#include <velt/streams/ScannerStream.h>
#include <velt/streams/TCPStream.h>

#include <stdexcept>

#include "Peer.h"
#include "Scenario.h"

namespace torture {

namespace {

constexpr unsigned kBytes = 2000;
constexpr unsigned kLongLine = 9000;  // more than the buffer

// Two copies of a text with dots at the starts of lines: as it is spooled, and as it goes out.
struct Mail {
    explicit Mail(bool large) {
        Add(Numbered(kBytes), Numbered(kBytes));
        Add(".\r\n.dot\r\n..\r\n", "..\r\n..dot\r\n...\r\n");
        if (large) Add('.' + std::string(kLongLine, 'x') + "\r\n", ".." + std::string(kLongLine, 'x') + "\r\n");
        Add("end\r\n", "end\r\n");
    }
    void Add(std::string_view spooled, std::string_view sent) {
        in += spooled;
        out += sent;
    }
    std::string in, out;
};

template <bool large>
class SendsMail : public Scenario {
public:
    SendsMail() {
        if (m_spooled.write(m_mail.in.data(), static_cast<unsigned>(m_mail.in.size())) < 0)
            throw std::runtime_error("the mail is not spooled");
    }
    bool Act() override {
        bool const said = m_session.SendMailStream(&m_spooled, m_stream.get()) == 0;
        m_stream.reset();
        return said;
    }
    std::string Judge() override { return Compare("mail", m_collector.Got(), m_mail.out); }

private:
    Mail const m_mail{large};
    VELT::ScannerStream m_spooled{"mail", false};
    VELT::Connection m_session;
    Line m_line;
    Collector m_collector{m_line.far};  // waits for the stream's end
    std::unique_ptr<VELT::TCPStream> m_stream = std::make_unique<VELT::TCPStream>(m_line.near);
};

}  // namespace

std::vector<NamedScenario> MailScenarios() {
    return {{"sends_a_small_mail", &Make<SendsMail<false>>}, {"sends_a_large_mail", &Make<SendsMail<true>>}};
}

}  // namespace torture
