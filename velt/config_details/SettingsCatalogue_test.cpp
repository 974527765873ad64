// Every setting of the library with its type, default and range, as operators know them.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include <velt/config_details/listing.h>
#include <velt/config_details/settings/connection.h>
#include <velt/config_details/settings/debug_scan_agent.h>
#include <velt/config_details/settings/logretryer.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/quarantineretryer.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/config_details/settings/smtpretryer.h>

using VELT::config_attribute::Describe;
using VELT::config_attribute::SettingRow;

namespace {

std::vector<SettingRow> AllRows() {
    std::vector<SettingRow> all;
    auto const add = [&](std::vector<SettingRow> rows) { all.insert(all.end(), rows.begin(), rows.end()); };
    add(Describe(VELTCFG::connection::Settings{}));
    add(Describe(VELTCFG::debug_scan_agent::Settings{}));
    add(Describe(VELTCFG::logretryer::Settings{}));
    add(Describe(VELTCFG::network::Settings{}));
    add(Describe(VELTCFG::process::Settings{}));
    add(Describe(VELTCFG::quarantineretryer::Settings{}));
    add(Describe(VELTCFG::scanning::Settings{}));
    add(Describe(VELTCFG::smtpretryer::Settings{}));
    return all;
}

std::string LineOf(SettingRow const& row) {
    std::string line = std::string(row.text.section) + "/" + row.text.key + " " + row.type;
    if (!row.defaultValue.empty()) line += " = " + row.defaultValue;
    if (!row.range.empty()) line += ", " + row.range;
    if (row.text.policy) line += ", slot " + std::to_string(row.text.policy);
    return line;
}

}  // namespace

TEST(SettingsCatalogue, HoldsTheseRows) {
    std::vector<std::string> const expected = {
        "connection/MaxHosts unsigned = 0, 0 to 65535, slot 4",
        "debug_scan_agent/ExceptionTypes list of text, slot 2",
        "logretryer/LoggingEnabled bool = false",
        "logretryer/MaxConncurrent unsigned = 1, 1 to 65535",
        "logretryer/MemoryLimit unsigned = 0, 0 to 4294967295",
        "logretryer/NewFileDelta int = 5, 1 to 65535",
        "logretryer/RetryInterval unsigned = 300, 1 to 65535",
        "logretryer/ScanDir text = \"/deferred/logging/\"",
        "logretryer/ScanInterval unsigned = 10, 1 to 65535",
        "network/AcceptCount unsigned = 1, 1 to 65535",
        "network/BindAddress list of text",
        "network/BindPorts list of unsigned short",
        "network/ConnectTimeout unsigned = 30, 0 to 65535",
        "network/ForbidReverseLookups bool = false",
        "network/InitialNetMemPool unsigned = 0, 0 to 65535",
        "network/Interception text = \"device\"",
        "network/LDAPCached bool = true",
        "network/LDAPQueryTimeout unsigned short = 10, 1 to 65535",
        "network/MaxConnections unsigned = 1, 1 to 65535",
        "network/MaxQueuedConnections unsigned = 0, 0 to 65535",
        "network/NetMem unsigned = 4, 1 to 65535",
        "network/QueueRatio unsigned = 1, 0 to 65535",
        "network/Timeout unsigned = 60, 0 to 3600",
        "process/ConnectionHandlerStacksize unsigned = 128, 1 to 65535",
        "process/ForkedModel bool = false",
        "process/ForkedModelThreads bool = true",
        "process/GroupId text = \"uucp\"",
        "process/IdleTimeout int = 1, 1 to 65535",
        "process/LoggingEnabled bool = true",
        "process/MemoryLimit unsigned = 75000, 0 to 4294967295",
        "process/MemoryLimitRate unsigned = 30, 0 to 65535",
        "process/MonitorHealth bool = true",
        "process/PermThreads unsigned = 4, 1 to 65535",
        "process/Priority int = 1, 1 to 65535",
        "process/ProxyIdleTimeout int = 900, 0 to 65535",
        "process/ProxyRefreshRate unsigned = 0, 0 to 65535",
        "process/ShutDownTimeout int = 2, 0 to 65535",
        "process/TCPDebugDirectory text = \"\"",
        "process/ThreadLimit unsigned = 1, 1 to 65535",
        "process/UserId text = \"uucp\"",
        "quarantineretryer/LoggingEnabled bool = false",
        "quarantineretryer/MaxConncurrent unsigned = 1, 1 to 65535",
        "quarantineretryer/MemoryLimit unsigned = 0, 0 to 4294967295",
        "quarantineretryer/NewFileDelta int = 5, 1 to 65535",
        "quarantineretryer/RetryInterval unsigned = 300, 1 to 65535",
        "quarantineretryer/ScanDir text = \"/quarantine/smtp/\"",
        "quarantineretryer/ScanInterval unsigned = 10, 1 to 65535",
        "scanning/FlatSpinTimeout unsigned = 0, 0 to 86400",
        "scanning/InitialScanMemPool unsigned = 0, 0 to 65535",
        "scanning/InitialScannerThreads unsigned = 1, 1 to 65535",
        "scanning/InlineScannerThreadStackSize unsigned = 128, 64 to 65535",
        "scanning/LSDisabled bool = false",
        "scanning/LSServerWaitTime unsigned = 60, 0 to 4294967295",
        "scanning/MaxScanMem unsigned = 1, 1 to 65535",
        "scanning/MaxScannerThreads unsigned = 0, 0 to 65535",
        "scanning/ScannerAgent text = \"\"",
        "smtpretryer/LoggingEnabled bool = true",
        "smtpretryer/MaxConncurrent unsigned = 6, 1 to 65535",
        "smtpretryer/MemoryLimit unsigned = 0, 0 to 4294967295",
        "smtpretryer/NewFileDelta int = 5, 1 to 65535",
        "smtpretryer/RetryInterval unsigned = 300, 1 to 65535",
        "smtpretryer/ScanDir text = \"/deferred/smtp/\"",
        "smtpretryer/ScanInterval unsigned = 10, 1 to 65535",
    };
    std::vector<std::string> found;
    for (SettingRow const& row : AllRows()) found.push_back(LineOf(row));
    EXPECT_EQ(found, expected);
}

TEST(SettingsCatalogue, ExplainsEachRowOnce) {
    std::set<std::string> keys;
    for (SettingRow const& row : AllRows()) {
        EXPECT_TRUE(keys.insert(std::string(row.text.section) + "/" + row.text.key).second) << LineOf(row);
        EXPECT_GT(std::string(row.text.help).size(), 10u) << LineOf(row);
        if (row.type != "bool" && row.type != "text" && std::string(row.text.key) != "Priority") {
            EXPECT_STRNE(row.text.unit, "") << LineOf(row);
        }
    }
}
