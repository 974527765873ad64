// velt-smtp: the mail gateway, and with "-s retryer -t smtp" the retryer for the mail that it keeps.
#include <QXlog/QXlog.h>

#include <cerrno>
#include <cstring>

#include <velt/config_details/settings/process.h>
#include <velt/logging/Log.h>
#include <velt/retry/RetryerServiceLoop.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>

#include "ClockWatch.h"
#include "Release.h"
#include "RetryFile.h"
#include "RetrySession.h"
#include "SmtpEvents.h"
#include "SmtpSession.h"
#include "SpoolSweep.h"

namespace {

// Nobody is meant where the setting is absent, whatever its own default says.
struct NoText {
    static constexpr char const* value = "";
};

// Whose mail does not rest for a clock that was set back, be there one that is due or none.
class WatchedRetryer : public VELT::RetryerServiceLoop {
public:
    using RetryerServiceLoop::RetryerServiceLoop;
    int PostForkInit() override {
        smtp::KeepRestingFromNow(directory);
        return RetryerServiceLoop::PostForkInit();
    }
};

class SmtpProxy : public VELT::Proxy {
public:
    int ProxyInit() override {
        if (dynamic_cast<VELT::RetryerServiceLoop*>(m_serviceLoop)) WatchClock();
        smtp::SweepSpool(m_scanDir);
        smtp::KeepSettings const keep = smtp::ReadKeepSettings(m_config);
        if (keep.enabled) MakeDirectory(keep.directory);
        if (keep.enabled) smtp::RestFromNow(keep.directory);
        MakeQuarantine(keep.quarantine);
        FinishReleases(keep);
        smtp::SweepDeferred(keep.directory);
        smtp::SweepDeferred(keep.quarantine);
        return 0;
    }

private:
    void WatchClock() {
        delete m_serviceLoop;
        m_serviceLoop = new WatchedRetryer(&m_config, m_retryerArgument);
    }

    bool Make(std::string const& path) {
        long const user = Identity<VELTCFG::process::attrname_UserId>(MapUID);
        long const group = Identity<VELTCFG::process::attrname_GroupId>(MapGID);
        return smtp::MakeRetryDirectory(path, user, group);
    }

    // Policies with nothing to keep do without it; a message that needs it says what is wrong.
    void MakeQuarantine(std::string const& path) { static_cast<void>(Make(path)); }

    // What is half-way yet is held in the deferred directory, as each walk says.
    static void FinishReleases(smtp::KeepSettings const& keep) {
        smtp::FinishReleases(keep.quarantine, keep.directory, [](std::string const&, int) {});
    }

    // What cannot be made is told again with each message that is not kept.
    void MakeDirectory(std::string const& path) {
        if (Make(path)) return;
        std::string const why = std::strerror(errno);
        VELT::LogEvent(smtp::events::STORE_FAILED, [&] {
            KORlog::InfoBag bag = smtp::names::FILE(path);
            bag |= smtp::names::FINDING(why);
            return bag;
        });
    }

    // What the process becomes later; -1: nothing else than what it is.
    template <class Attribute>
    long Identity(long (*map)(char const* name)) {
        auto const name =
            VELT::ReadSetting<VELT::config_attribute::unbounded<Attribute, VELT::CharBuf, NoText>>(m_config);
        return name.empty() ? -1 : map(name.c_str());
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
