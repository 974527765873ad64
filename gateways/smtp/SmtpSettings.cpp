#include "SmtpSettings.h"

#include <system/SystemPath.h>
#include <velt/config_details/settings/quarantineretryer.h>
#include <velt/config_details/settings/smtpretryer.h>
#include <velt/connection/TCPConnection.h>
#include <velt/runtime/Proxy.h>

#include "core/Reply.h"

namespace smtp {
namespace {

namespace S = VELTCFG::smtp;
using VELT::ReadSetting;

template <class Descriptor>
std::string Text(VELT::Config& config) {
    return ReadSetting<Descriptor>(config).str();
}

template <class Descriptor>
unsigned Milliseconds(VELT::Config& config) {
    return ReadSetting<Descriptor>(config) * 1000;
}

// A name fit for a greeting: what the setting says, or what the machine is called.
std::string OwnName(VELT::Config& config) {
    std::string const configured = Text<S::GreetingName>(config);
    if (!configured.empty()) return Printable(configured, 255);
    for (bool full : {true, false}) {
        std::string const name = VELT::Proxy::GetProxyHostName(full);
        if (!name.empty()) return name;
    }
    return "localhost";
}

std::vector<std::string> Patterns(VELT::Config& config) {
    std::vector<std::string> out;
    auto const list = ReadSetting<S::AcceptDomains>(config);
    for (unsigned i = 0; i < list.size(); ++i) out.push_back(list.at(i).str());
    return out;
}

UpstreamTimeouts Timeouts(VELT::Config& config) {
    return {Milliseconds<S::UpstreamGreetingTimeout>(config), Milliseconds<S::UpstreamCommandTimeout>(config),
            Milliseconds<S::UpstreamDataTimeout>(config),     Milliseconds<S::UpstreamBlockTimeout>(config),
            Milliseconds<S::UpstreamFinalTimeout>(config),    ReadSetting<S::MinDataRate>(config)};
}

// The default is one of the system's fixed paths; any other directory was named by somebody.
template <class Setting>
std::string Directory(VELT::Config& config) {
    std::string directory = Text<Setting>(config);
    if (directory == Setting::defaults::value) directory = SystemPath(directory);
    if (!directory.ends_with('/')) directory += '/';
    return directory;
}

}  // namespace

KeepSettings ReadKeepSettings(VELT::Config& config) {
    return {ReadSetting<S::StoreAndForward>(config),
            Directory<VELTCFG::smtpretryer::ScanDir>(config),
            Directory<VELTCFG::quarantineretryer::ScanDir>(config),
            std::chrono::seconds(ReadSetting<S::KeepAfter>(config)),
            {ReadSetting<S::RetryPause>(config), ReadSetting<S::RetryPauseLimit>(config)},
            std::chrono::seconds(ReadSetting<S::RetryPatience>(config)),
            ReadSetting<S::GiveUpAfter>(config),
            std::int64_t{ReadSetting<VELTCFG::smtpretryer::RetryInterval>(config)} +
                ReadSetting<VELTCFG::smtpretryer::ScanInterval>(config)};
}

SessionSettings::SessionSettings(VELT::Config& config)
    : relayHost(Text<S::RelayHost>(config)),
      relayPort(ReadSetting<S::RelayPort>(config)),
      showsClient(Text<S::TransparentSource>(config) != "gateway"),
      greetingName(OwnName(config)),
      acceptDomains(Patterns(config)),
      deferDifferentIdentity(Text<S::DifferentIdentity>(config) == "defer"),
      refusedText(Printable(Text<S::RefusedText>(config))),
      uncheckedText(Printable(Text<S::UncheckedText>(config))),
      maxCommandLine(ReadSetting<S::MaxCommandLine>(config)),
      maxTextLine(ReadSetting<S::MaxTextLine>(config)),
      maxHeaderBytes(ReadSetting<S::MaxHeaderSize>(config) * std::size_t{1024}),
      maxMessageBytes(ReadSetting<S::MaxMessageSize>(config) * std::uint64_t{1024}),
      maxRecipients(ReadSetting<S::MaxRecipients>(config)),
      maxErrors(ReadSetting<S::MaxErrors>(config)),
      maxIdleCommands(ReadSetting<S::MaxIdleCommands>(config)),
      maxHops(ReadSetting<S::MaxHops>(config)),
      commandTimeoutMs(Milliseconds<S::CommandTimeout>(config)),
      minDataRate(ReadSetting<S::MinDataRate>(config)),
      dataTimeoutMs(Milliseconds<S::DataTimeout>(config)),
      upstream(Timeouts(config)),
      keep(ReadKeepSettings(config)) {}

void SessionSettings::RelayTo(VELT::TCPConnection const& server) {
    transparent = true;
    relayHost = server.m_addressText;
    relayPort = server.m_port;
}

}  // namespace smtp
