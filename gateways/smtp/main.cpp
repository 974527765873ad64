// velt-smtp: the mail gateway.
#include <QXlog/QXlog.h>

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
        return 0;
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
