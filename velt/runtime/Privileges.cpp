// The change of identity after the ports are open. Supplementary groups are not touched.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string>

#include <velt/config_details/settings/process.h>
#include <velt/errors/ErrnoEvents.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/runtime/Proxy.h>
#include <velt/streams/NetUtils.h>

namespace VELT {

namespace {

constexpr std::size_t kRecordBytes = 1024;  // a user or group whose record is larger counts as unknown

// A number that the system's type cannot hold is refused: cut to it, it might be the superuser's.
int ChangeTo(int (*change)(unsigned), long id) {
    if (id <= static_cast<long>(std::numeric_limits<unsigned>::max())) return change(static_cast<unsigned>(id));
    errno = EINVAL;
    return -1;
}

// False when the setting is absent: its default is never applied.
template <class Descriptor>
bool FindText(Config& config, std::string& text) {
    using Names = config_helper::CfgNameCache<Descriptor>;
    eFabric::IPolicyLoader const* const loader = Config::getPolicyLoader();
    CharBuf found;
    auto const* const value = config.getProductValue(0, Names::value.settings(loader), Names::value.attribute(loader));
    if (!config_helper::GetValue<Descriptor>(value, found)) return false;
    text = found.str();
    return true;
}

}  // namespace

// The empty text is the number 0: it has nothing that is no digit.
long Proxy::MapUID(char const* name) {
    if (!name) return -1;
    if (IsAllDigits(name)) return std::strtol(name, nullptr, 10);
    char buffer[kRecordBytes];
    passwd record{};
    passwd* found = nullptr;
    ::getpwnam_r(name, &record, buffer, sizeof buffer, &found);
    return found ? static_cast<long>(found->pw_uid) : -1;
}

long Proxy::MapGID(char const* name) {
    if (!name) return -1;
    if (IsAllDigits(name)) return std::strtol(name, nullptr, 10);
    char buffer[kRecordBytes];
    group record{};
    group* found = nullptr;
    ::getgrnam_r(name, &record, buffer, sizeof buffer, &found);
    return found ? static_cast<long>(found->gr_gid) : -1;
}

void Proxy::SetUidAndGid() {
    ChangeGroup();
    ChangeUser();
}

void Proxy::ChangeGroup() {
    std::string name;
    if (!FindText<VELTCFG::process::GroupId>(m_config, name)) return;
    long const id = MapGID(name.c_str());
    if (id < 0 || ChangeTo(::setgid, id) == 0) return;
    int const error = errno;
    LogEvent(events::SETGID_FAILED, [&] { return QXPROP_VELT_ID(name) | _find_errno(error); });
}

void Proxy::ChangeUser() {
    std::string name;
    if (!FindText<VELTCFG::process::UserId>(m_config, name)) return;
    long const id = MapUID(name.c_str());
    if (id < 0) {
        LogEvent(events::USER_UNKNOWN, [&] { return KORlog::InfoBag(QXPROP_VELT_ID(name)); });
        return;
    }
    if (ChangeTo(::setuid, id) == 0) return;
    int const error = errno;
    LogEvent(events::SETUID_FAILED, [&] { return QXPROP_VELT_ID(name) | _find_errno(error); });
}

}  // namespace VELT
