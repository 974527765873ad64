// velt-settings: prints every setting of this release as the page docs/settings.md.
// A host adds itself by a section of its own below.
#include <iostream>
#include <string>

#include <gateways/smtp/SmtpSettings.h>
#include <tools/velt-scannerd/ScannerdSettings.h>
#include <velt/config_details/listing.h>
#include <velt/config_details/settings/connection.h>
#include <velt/config_details/settings/debug_scan_agent.h>
#include <velt/config_details/settings/logretryer.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/quarantineretryer.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/config_details/settings/smtpretryer.h>

namespace {

using VELT::config_attribute::Describe;
using VELT::config_attribute::SettingRow;

constexpr char const* kPolicies[] = {"base",  "connection", "content", "transport", "protocol",
                                     "const", "machine",    "network", "system"};

// A vertical bar would end the cell.
std::string Cell(std::string const& text) {
    std::string cell;
    for (char c : text) {
        if (c == '|') cell += '\\';
        cell += c;
    }
    return cell.empty() ? std::string() : " " + cell;
}

void PrintSection(char const* title, std::vector<SettingRow> const& rows) {
    std::cout << "\n## " << title << "\n\n| Key | Type | Default | Range | Unit | Policy | Meaning |\n"
              << "|---|---|---|---|---|---|---|\n";
    for (SettingRow const& row : rows) {
        std::cout << "| `" << row.text.key << "` |" << Cell(row.type) << " |" << Cell(row.defaultValue) << " |"
                  << Cell(row.range) << " |" << Cell(row.text.unit) << " |" << Cell(kPolicies[row.text.policy]) << " |"
                  << Cell(row.text.help) << " |\n";
    }
}

void PrintHead() {
    std::cout << "# Settings\n\n"
                 "Made by `scripts/gen-settings` from `velt/config_details/settings/` and the gateways' own settings; "
                 "do not edit.\n\n"
                 "A setting stands in the policy store under a policy, a section and a key. Policy `base` is one for "
                 "all; the others have an `_in` and an `_out` form, by the direction of the session.\n\n"
                 "An absent setting, and one that cannot be converted, is its default. A number outside its range is "
                 "the nearer end of the range. A list that is absent is empty. Nothing of this is reported; "
                 "`velt-policy check` tells of it.\n";
}

}  // namespace

int main() {
    PrintHead();
    PrintSection("connection", Describe(VELTCFG::connection::Settings{}));
    PrintSection("debug_scan_agent", Describe(VELTCFG::debug_scan_agent::Settings{}));
    PrintSection("logretryer", Describe(VELTCFG::logretryer::Settings{}));
    PrintSection("network", Describe(VELTCFG::network::Settings{}));
    PrintSection("process", Describe(VELTCFG::process::Settings{}));
    PrintSection("quarantineretryer", Describe(VELTCFG::quarantineretryer::Settings{}));
    PrintSection("scannerd", Describe(VELTCFG::scannerd::Settings{}));
    PrintSection("scanning", Describe(VELTCFG::scanning::Settings{}));
    PrintSection("smtp", Describe(VELTCFG::smtp::Settings{}));
    PrintSection("smtpretryer", Describe(VELTCFG::smtpretryer::Settings{}));
    return std::cout.flush() ? 0 : 1;
}
