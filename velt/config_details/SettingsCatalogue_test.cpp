// Every setting of the library with its type, default and range, as operators know them.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include <velt/config_details/listing.h>
#include <velt/config_details/settings/connection.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/scanning.h>

using VELT::config_attribute::Describe;
using VELT::config_attribute::SettingRow;

namespace {

std::vector<SettingRow> AllRows() {
    std::vector<SettingRow> all;
    auto const add = [&](std::vector<SettingRow> rows) { all.insert(all.end(), rows.begin(), rows.end()); };
    add(Describe(VELTCFG::connection::Settings{}));
    add(Describe(VELTCFG::network::Settings{}));
    add(Describe(VELTCFG::process::Settings{}));
    add(Describe(VELTCFG::scanning::Settings{}));
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
        "network/AcceptCount unsigned = 1, 1 to 65535",
        "network/BindAddress list of text",
        "network/BindPorts list of unsigned short",
        "network/ConnectTimeout unsigned = 30, 0 to 65535",
        "network/ForbidReverseLookups bool = false",
        "network/InitialNetMemPool unsigned = 0, 0 to 65535",
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
        "process/MonitorHealth bool = true",
        "process/PermThreads unsigned = 4, 1 to 65535",
        "process/Priority int = 1, 1 to 65535",
        "process/ProxyIdleTimeout int = 900, 0 to 65535",
        "process/ProxyRefreshRate unsigned = 0, 0 to 65535",
        "process/ShutDownTimeout int = 2, 0 to 65535",
        "process/ThreadLimit unsigned = 1, 1 to 65535",
        "process/UserId text = \"uucp\"",
        "scanning/InitialScanMemPool unsigned = 0, 0 to 65535",
        "scanning/MaxScanMem unsigned = 1, 1 to 65535",
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
