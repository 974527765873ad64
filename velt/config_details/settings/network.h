// The settings of section "network". Types only; see velt/config_details/commdef.h.
#pragma once

#include <velt/config_details/commdef.h>

namespace VELTCFG::network {

using VELT::CharBuf;
using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct attrname_AcceptCount {
    static constexpr SettingText text{"network", "AcceptCount", "processes",
                                      "Worker processes that accept connections. Read at start-up."};
};
using AcceptCount = cfg::bounded<attrname_AcceptCount, unsigned, cfg::integral_bounds<unsigned, 1, 1, 65535>>;

struct listname_BindAddress {
    static constexpr SettingText text{"network", "BindAddress", "addresses",
                                      "The addresses to listen on; without any, all of the machine. Read at start-up."};
};
using BindAddress = cfg::list<listname_BindAddress, CharBuf>;

struct listname_BindPorts {
    static constexpr SettingText text{"network", "BindPorts", "ports",
                                      "The ports to listen on, at each of the addresses. Read at start-up."};
};
using BindPorts = cfg::list<listname_BindPorts, unsigned short>;

struct attrname_ConnectTimeout {
    static constexpr SettingText text{"network", "ConnectTimeout", "seconds",
                                      "How long one attempt to connect to a server may take. Read at start-up."};
};
using ConnectTimeout = cfg::bounded<attrname_ConnectTimeout, unsigned, cfg::integral_bounds<unsigned, 30, 0, 65535>>;

struct attrname_ForbidReverseLookups {
    static constexpr SettingText text{"network", "ForbidReverseLookups", "",
                                      "No address is ever looked up for its host name. Read at start-up."};
};
using ForbidReverseLookups = cfg::bounded<attrname_ForbidReverseLookups, bool, cfg::bool_bounds<false>>;

struct attrname_InitialNetMemPool {
    static constexpr SettingText text{"network", "InitialNetMemPool", "buffers",
                                      "Network buffers made in advance. Read at start-up."};
};
using InitialNetMemPool =
    cfg::bounded<attrname_InitialNetMemPool, unsigned, cfg::integral_bounds<unsigned, 0, 0, 65535>>;

struct attrname_Interception {
    static constexpr SettingText text{"network", "Interception", "",
                                      "Who intercepts connections on their way to other servers: \"device\", the "
                                      "device /dev/qxnat where there is one; \"netfilter\", the packet filter of the "
                                      "system; \"off\", nobody. Read at start-up."};
};
struct defaults_Interception {
    static constexpr char const* value = "device";
};
using Interception = cfg::unbounded<attrname_Interception, CharBuf, defaults_Interception>;

struct attrname_LDAPCached {
    static constexpr SettingText text{"network", "LDAPCached", "",
                                      "Whether connections to directory servers stay open between queries. Read at "
                                      "start-up."};
};
using LDAPCached = cfg::bounded<attrname_LDAPCached, bool, cfg::bool_bounds<true>>;

struct attrname_LDAPQueryTimeout {
    static constexpr SettingText text{"network", "LDAPQueryTimeout", "seconds",
                                      "How long a search in a directory may take. Read at start-up."};
};
using LDAPQueryTimeout =
    cfg::bounded<attrname_LDAPQueryTimeout, unsigned short, cfg::integral_bounds<unsigned short, 10, 1, 65535>>;

struct attrname_MaxConnections {
    static constexpr SettingText text{"network", "MaxConnections", "threads",
                                      "Connection threads that a worker process may grow to. Read at start-up."};
};
using MaxConnections = cfg::bounded<attrname_MaxConnections, unsigned, cfg::integral_bounds<unsigned, 1, 1, 65535>>;

struct attrname_MaxQueuedConnections {
    static constexpr SettingText text{"network", "MaxQueuedConnections", "connections",
                                      "How many connections may wait for a thread before accepting slows down; with 0 "
                                      "QueueRatio decides. Read at start-up."};
};
using MaxQueuedConnections =
    cfg::bounded<attrname_MaxQueuedConnections, unsigned, cfg::integral_bounds<unsigned, 0, 0, 65535>>;

struct attrname_NetMem {
    static constexpr SettingText text{"network", "NetMem", "KiB", "Size of one network buffer. Read at start-up."};
};
using NetMem = cfg::bounded<attrname_NetMem, unsigned, cfg::integral_bounds<unsigned, 4, 1, 65535>>;

struct attrname_QueueRatio {
    static constexpr SettingText text{"network", "QueueRatio", "connections per thread",
                                      "How many connections may wait per thread before accepting slows down, where "
                                      "MaxQueuedConnections is 0; 0 is no limit. Read at start-up."};
};
using QueueRatio = cfg::bounded<attrname_QueueRatio, unsigned, cfg::integral_bounds<unsigned, 1, 0, 65535>>;

struct attrname_Timeout {
    static constexpr SettingText text{"network", "Timeout", "seconds",
                                      "How long one wait for a client or server may take. Read at start-up."};
};
using Timeout = cfg::bounded<attrname_Timeout, unsigned, cfg::integral_bounds<unsigned, 60, 0, 3600>>;

using Settings = cfg::setting_list<AcceptCount, BindAddress, BindPorts, ConnectTimeout, ForbidReverseLookups,
                                   InitialNetMemPool, Interception, LDAPCached, LDAPQueryTimeout, MaxConnections,
                                   MaxQueuedConnections, NetMem, QueueRatio, Timeout>;

}  // namespace VELTCFG::network
