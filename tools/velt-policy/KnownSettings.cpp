#include "tools/velt-policy/KnownSettings.h"

#include <algorithm>
#include <cctype>

#include <gateways/smtp/SmtpSettings.h>
#include <policyloader/engines/EngineSettings.h>
#include <policyloader/store/Value.h>
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

namespace velt_policy {
namespace {

namespace cfg = VELT::config_attribute;
using eFabric::IProductValue;
using Kind = Reading::Kind;

struct Choices {
    std::string_view section;
    std::string_view key;
    char const* words;
};
constexpr Choices kChoices[] = {
    {policyloader::kInfoName, "Parts", "all, plain, html"}, {policyloader::kInfoName, "Position", "bottom, top"},
    {"network", "Interception", "device, netfilter, off"},  {"smtp", "DifferentIdentity", "split, defer"},
    {"smtp", "TransparentSource", "client, gateway"},
};

std::string Text(bool value) { return value ? "true" : "false"; }
std::string Text(VELT::CharBuf const& value) { return value.str(); }
template <class T>
std::string Text(T value) {
    return std::to_string(value);
}

// Whether reading has changed what is written. A flag and a text are never clamped.
bool IsClamped(IProductValue const&, bool) { return false; }
bool IsClamped(IProductValue const&, VELT::CharBuf const&) { return false; }
bool IsClamped(IProductValue const& value, int read) {
    int raw = 0;
    return value.getInt(&raw) && raw != read;
}
template <class T>
bool IsClamped(IProductValue const& value, T read) {
    unsigned raw = 0;
    return value.getUnsigned(&raw) && raw != read;
}

template <class Descriptor>
Reading Read(KnownSetting const& setting, IProductValue const& value) {
    typename Descriptor::value_type read{};
    if (!VELT::config_helper::GetValue<Descriptor>(&value, read)) return {Kind::standard, setting.standard, {}};
    return {IsClamped(value, read) ? Kind::clamped : Kind::asIs, Text(read), {}};
}

template <class Vector>
Reading ReadItem(Vector const& vector, IProductValue const& list, unsigned index) {
    auto const read = vector.at(index);
    auto const* const raw = list.at(index);
    typename Vector::value_type converted{};
    using converter = typename VELT::config_types::detail::element_converter<typename Vector::value_type>::type;
    if (!raw || !converter::convert(*raw, converted)) return {Kind::standard, Text(read), {}};
    return {IsClamped(*raw, read) ? Kind::clamped : Kind::asIs, Text(read), {}};
}

template <class Descriptor>
Reading ReadList(KnownSetting const&, IProductValue const& value) {
    typename Descriptor::value_type vector;
    VELT::config_helper::GetValue<Descriptor>(&value, vector);
    Reading reading;
    for (unsigned i = 0; i < vector.size(); ++i) {
        reading.items.push_back(ReadItem(vector, value, i));
        reading.effective += (i ? ", " : "") + reading.items.back().effective;
    }
    return reading;
}

template <class Descriptor>
constexpr auto ReaderOf(Descriptor) {
    return &Read<Descriptor>;
}
template <class Name, class T>
constexpr auto ReaderOf(cfg::list<Name, T>) {
    return &ReadList<cfg::list<Name, T>>;
}

std::string Unquoted(std::string const& text) {
    bool const quoted = text.size() > 1 && text.front() == '"';
    return quoted ? text.substr(1, text.size() - 2) : text;
}

template <class... Descriptor>
void Add(std::vector<KnownSetting>& all, cfg::setting_list<Descriptor...> list) {
    decltype(KnownSetting::read) const readers[] = {ReaderOf(Descriptor{})...};
    std::size_t next = 0;
    for (cfg::SettingRow const& row : cfg::Describe(list))
        all.push_back({row.text.section, row.text.key, row.text.policy, row.type, row.range, Unquoted(row.defaultValue),
                       readers[next++]});
}

Reading ReadForEngine(KnownSetting const& setting, IProductValue const& value) {
    auto const* const row = policyloader::FindEngineSetting(setting.section, setting.key);
    auto const read = row->read(static_cast<policyloader::Value const&>(value));
    return read ? Reading{Kind::asIs, *read, {}} : Reading{Kind::standard, setting.standard, {}};
}

std::vector<KnownSetting> MakeTable() {
    std::vector<KnownSetting> all;
    Add(all, VELTCFG::connection::Settings{});
    Add(all, VELTCFG::debug_scan_agent::Settings{});
    Add(all, VELTCFG::logretryer::Settings{});
    Add(all, VELTCFG::network::Settings{});
    Add(all, VELTCFG::process::Settings{});
    Add(all, VELTCFG::quarantineretryer::Settings{});
    Add(all, VELTCFG::scanning::Settings{});
    Add(all, VELTCFG::scannerd::Settings{});
    Add(all, VELTCFG::smtp::Settings{});
    Add(all, VELTCFG::smtpretryer::Settings{});
    for (auto const& row : policyloader::kEngineSettings)
        all.push_back(
            {row.section, row.key, VELT::Config::POLICY_CONTENT, row.type(), "", row.standard, &ReadForEngine});
    return all;
}

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

// How many letters have to be put in, left out or changed.
std::size_t Distance(std::string const& a, std::string const& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t corner = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t const changed = corner + (a[i - 1] != b[j - 1]);
            corner = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, changed});
        }
    }
    return row.back();
}

}  // namespace

char const* KnownSetting::choices() const {
    for (auto const& one : kChoices)
        if (one.section == section && one.key == key) return one.words;
    return nullptr;
}

bool KnownSetting::isChoice(std::string const& text) const {
    char const* const words = choices();
    return !words || (text.find(',') == std::string::npos && !text.empty() &&
                      (std::string(", ") + words + ", ").find(", " + text + ", ") != std::string::npos);
}

std::vector<KnownSetting> const& KnownSettings() {
    static std::vector<KnownSetting> const& table = *new std::vector<KnownSetting>(MakeTable());
    return table;
}

KnownSetting const* FindSetting(std::string_view section, std::string_view key) {
    for (auto const& one : KnownSettings())
        if (one.section == section && one.key == key) return &one;
    return nullptr;
}

// A third of the letters may be wrong.
std::string NearestSetting(std::string_view section, std::string_view key) {
    std::string const meant = Lower(section) + '/' + Lower(key);
    std::string const bare = Lower(key);
    std::string nearest;
    std::size_t least = meant.size() / 3 + 1;
    for (auto const& one : KnownSettings()) {
        std::size_t const inSection = Distance(meant, Lower(one.section) + '/' + Lower(one.key));
        bool const elsewhere = bare == Lower(one.key);
        std::size_t const distance = elsewhere ? std::min<std::size_t>(inSection, 2) : inSection;
        if (distance >= least) continue;
        least = distance;
        nearest = one.section + '/' + one.key;
    }
    return nearest;
}

std::string RawText(IProductValue const& value) {
    char const* text = nullptr;
    if (value.getString(&text) && text) return text;
    std::string all;
    for (unsigned i = 0; i < value.size(); ++i) {
        auto const* const item = value.at(i);
        if (item == &value) return "(an alert)";
        if (item && item->getString(&text) && text) all += (i ? ", " : "") + std::string(text);
    }
    return all;
}

}  // namespace velt_policy
