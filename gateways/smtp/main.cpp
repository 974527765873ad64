// velt-smtp: the mail gateway, and with "-s retryer -t smtp" the retryer for the mail that it keeps.
#include <QXlog/QXlog.h>

#include <filesystem>
#include <system_error>

#include <velt/logging/Log.h>
#include <velt/retry/RetryerServiceLoop.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>

#include "RetryFile.h"
#include "RetrySession.h"
#include "SmtpEvents.h"
#include "SmtpSession.h"
#include "SpoolSweep.h"

namespace {

class SmtpProxy : public VELT::Proxy {
public:
    int ProxyInit() override {
        smtp::SweepSpool(m_scanDir);
        smtp::KeepSettings const keep = smtp::ReadKeepSettings(m_config);
        if (keep.enabled) MakeDirectory(keep.directory);
        if (keep.enabled) smtp::SweepDeferred(keep.directory);
        return 0;
    }

private:
    // What cannot be made is told again with each message that is not kept.
    void MakeDirectory(std::string const& path) const {
        std::error_code error;
        std::filesystem::create_directories(path, error);
        if (!error) return;
        VELT::LogEvent(smtp::events::STORE_FAILED, [&] {
            KORlog::InfoBag bag = smtp::names::FILE(path);
            bag |= smtp::names::FINDING(error.message());
            return bag;
        });
    }
};

VELT::Connection* MakeSession(bool) { return new smtp::SmtpSession; }

VELT::Connection* MakeRetry(int fd, bool, std::string& directory, std::string& id, bool) {
    return new smtp::RetrySession(fd, directory, id);
}

}  // namespace

int main(int argc, char** argv) {
    smtp::events::RegisterTexts();
    VELT::TCPServiceLoop::RegisterConnectionFactory(MakeSession);
    VELT::RetryerServiceLoop::setRetryerFactory(MakeRetry);
    new SmtpProxy;
    return VELT::ProxyStart(argc, argv);
}
