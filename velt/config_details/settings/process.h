// The settings of section "process". Types only; see velt/config_details/commdef.h.
#pragma once

#include <velt/config_details/commdef.h>

namespace VELTCFG::process {

using VELT::CharBuf;
using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct attrname_ConnectionHandlerStacksize {
    static constexpr SettingText text{"process", "ConnectionHandlerStacksize", "bytes",
                                      "Stack of a connection thread. A size that the system rejects, as it does the "
                                      "default, means the system's own. Read at start-up."};
};
using ConnectionHandlerStacksize =
    cfg::bounded<attrname_ConnectionHandlerStacksize, unsigned, cfg::integral_bounds<unsigned, 128, 1, 65535>>;

struct attrname_ForkedModel {
    static constexpr SettingText text{"process", "ForkedModel", "",
                                      "Each connection runs in a process of its own. Read at start-up."};
};
using ForkedModel = cfg::bounded<attrname_ForkedModel, bool, cfg::bool_bounds<false>>;

struct attrname_ForkedModelThreads {
    static constexpr SettingText text{"process", "ForkedModelThreads", "",
                                      "Processes may use helper threads, such as the clock's. Read at start-up."};
};
using ForkedModelThreads = cfg::bounded<attrname_ForkedModelThreads, bool, cfg::bool_bounds<true>>;

struct attrname_GroupId {
    static constexpr SettingText text{"process", "GroupId", "", "The group that the proxy runs as. Read at start-up."};
};
struct defaults_GroupId {
    static constexpr char const* value = "uucp";
};
using GroupId = cfg::unbounded<attrname_GroupId, CharBuf, defaults_GroupId>;

struct attrname_IdleTimeout {
    static constexpr SettingText text{"process", "IdleTimeout", "seconds",
                                      "For host daemons; the library reads it and acts on it nowhere. Read at "
                                      "start-up."};
};
using IdleTimeout = cfg::bounded<attrname_IdleTimeout, int, cfg::integral_bounds<int, 1, 1, 65535>>;

struct attrname_LoggingEnabled {
    static constexpr SettingText text{"process", "LoggingEnabled", "", "Events are reported. Read at start-up."};
};
using LoggingEnabled = cfg::bounded<attrname_LoggingEnabled, bool, cfg::bool_bounds<true>>;

struct attrname_MemoryLimit {
    static constexpr SettingText text{
        "process", "MemoryLimit", "kB",
        "A process whose data, thread stacks included, is larger finishes its work and is "
        "replaced; 0 is never. Read at start-up."};
};
using MemoryLimit = cfg::bounded<attrname_MemoryLimit, unsigned, cfg::integral_bounds<unsigned, 75000, 0, 4294967295>>;

struct attrname_MemoryLimitRate {
    static constexpr SettingText text{"process", "MemoryLimitRate", "seconds",
                                      "How often the size is measured; 0 is never. Read at start-up."};
};
using MemoryLimitRate = cfg::bounded<attrname_MemoryLimitRate, unsigned, cfg::integral_bounds<unsigned, 30, 0, 65535>>;

struct attrname_MonitorHealth {
    static constexpr SettingText text{"process", "MonitorHealth", "",
                                      "Connections from 127.0.0.1 are health checks and run no session. Read at "
                                      "start-up."};
};
using MonitorHealth = cfg::bounded<attrname_MonitorHealth, bool, cfg::bool_bounds<true>>;

struct attrname_PermThreads {
    static constexpr SettingText text{"process", "PermThreads", "threads",
                                      "Connection threads that a worker process keeps; may exceed MaxConnections. Read "
                                      "at start-up."};
};
using PermThreads = cfg::bounded<attrname_PermThreads, unsigned, cfg::integral_bounds<unsigned, 4, 1, 65535>>;

struct attrname_Priority {
    static constexpr SettingText text{"process", "Priority", "",
                                      "What worker processes add to their nice value. Read at start-up."};
};
using Priority = cfg::bounded<attrname_Priority, int, cfg::integral_bounds<int, 1, 1, 65535>>;

struct attrname_ProxyIdleTimeout {
    static constexpr SettingText text{"process", "ProxyIdleTimeout", "seconds",
                                      "After how long without work a temporary connection thread ends. Read at "
                                      "start-up."};
};
using ProxyIdleTimeout = cfg::bounded<attrname_ProxyIdleTimeout, int, cfg::integral_bounds<int, 900, 0, 65535>>;

struct attrname_ProxyRefreshRate {
    static constexpr SettingText text{"process", "ProxyRefreshRate", "connections",
                                      "A worker that has accepted more than this is replaced; 0 is never. Read at "
                                      "start-up."};
};
using ProxyRefreshRate = cfg::bounded<attrname_ProxyRefreshRate, unsigned, cfg::integral_bounds<unsigned, 0, 0, 65535>>;

struct attrname_ShutDownTimeout {
    static constexpr SettingText text{"process", "ShutDownTimeout", "seconds",
                                      "A process that has not ended after this is killed with its group; 0 waits for "
                                      "ever. Read at start-up."};
};
using ShutDownTimeout = cfg::bounded<attrname_ShutDownTimeout, int, cfg::integral_bounds<int, 2, 0, 65535>>;

struct attrname_TCPDebugDirectory {
    static constexpr SettingText text{"process", "TCPDebugDirectory", "",
                                      "Where a host's captures of its streams go (docs/formats/capture.md); made if it "
                                      "is not there, and opened to all. Empty is no capture. Read at start-up."};
};
struct defaults_TCPDebugDirectory {
    static constexpr char const* value = "";
};
using TCPDebugDirectory = cfg::unbounded<attrname_TCPDebugDirectory, CharBuf, defaults_TCPDebugDirectory>;

struct attrname_ThreadLimit {
    static constexpr SettingText text{"process", "ThreadLimit", "threads",
                                      "For host daemons; the library reads it and acts on it nowhere. Read at "
                                      "start-up."};
};
using ThreadLimit = cfg::bounded<attrname_ThreadLimit, unsigned, cfg::integral_bounds<unsigned, 1, 1, 65535>>;

struct attrname_UserId {
    static constexpr SettingText text{"process", "UserId", "", "The user that the proxy runs as. Read at start-up."};
};
struct defaults_UserId {
    static constexpr char const* value = "uucp";
};
using UserId = cfg::unbounded<attrname_UserId, CharBuf, defaults_UserId>;

using Settings =
    cfg::setting_list<ConnectionHandlerStacksize, ForkedModel, ForkedModelThreads, GroupId, IdleTimeout, LoggingEnabled,
                      MemoryLimit, MemoryLimitRate, MonitorHealth, PermThreads, Priority, ProxyIdleTimeout,
                      ProxyRefreshRate, ShutDownTimeout, TCPDebugDirectory, ThreadLimit, UserId>;

}  // namespace VELTCFG::process
