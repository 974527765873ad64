// velt-smtp: the mail gateway.
#include <iostream>
#include <string_view>

#include <QXlog/QXlog.h>
#include <velt/logging/Log.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>

#include "SmtpEvents.h"
#include "SmtpSession.h"
#include "SpoolSweep.h"

namespace {

class SmtpProxy : public VELT::Proxy {
public:
    int ProxyInit() override {
        smtp::SweepSpool(m_scanDir);
        if (std::string_view(m_serviceType) != "tcp") TellOfNoRetries();
        return 0;
    }

private:
    // The service runs all the same: whoever started it may look at the files that it comes by.
    void TellOfNoRetries() const {
        VELT::LogEvent(smtp::events::RETRIES_NOTHING, [] { return KORlog::InfoBag(); });
        std::cerr << "The mail gateway keeps no mail: the service \"" << m_serviceType
                  << "\" retries nothing, and holds each file that is due." << std::endl;
    }
};

VELT::Connection* MakeSession(bool) { return new smtp::SmtpSession; }

}  // namespace

int main(int argc, char** argv) {
    smtp::events::RegisterTexts();
    VELT::TCPServiceLoop::RegisterConnectionFactory(MakeSession);
    new SmtpProxy;
    return VELT::ProxyStart(argc, argv);
}
