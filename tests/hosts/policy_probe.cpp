// policy_probe: a gateway that tells what its own session's policy says. A client sends lines of five fields with tabs
// between: sender, recipient, address of a server or nothing, "SECTION/KEY" of a setting of the library, slot or
// nothing for the setting's own. The session takes the first three for the facts of its envelope and its server end,
// and answers each line by a JSON object:
//     {"direction":"in","slot":"content","policy":"content_in","identity":"staff","raw":"5000","value":"3600"}
// identity and raw are null where there is none. A line that it does not understand ends the session.
#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <velt/Config.h>
#include <velt/config_details/settings/connection.h>
#include <velt/config_details/settings/debug_scan_agent.h>
#include <velt/config_details/settings/logretryer.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/quarantineretryer.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/config_details/settings/smtpretryer.h>
#include <velt/connection/Connection.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>
#include <velt/streams/TCPStream.h>

namespace {

using VELT::Config;

constexpr char const* Slots[] = {"base",  "connection", "content", "transport", "protocol",
                                 "const", "machine",    "network", "system"};

std::string TextOf(bool value) { return value ? "true" : "false"; }
std::string TextOf(VELT::CharBuf const& value) { return value.str(); }
template <class Number>
std::string TextOf(Number value) {
    return std::to_string(value);
}
template <class T, class Converter>
std::string TextOf(VELT::config_types::vector<T, Converter> const& list) {
    std::string text;
    for (unsigned i = 0; i < list.size(); ++i) text += (i ? "," : "") + TextOf(list.at(i));
    return text;
}

// One setting of the library: how a session reads it.
struct Setting {
    unsigned slot;
    std::optional<std::string> (*raw)(Config&, unsigned slot);
    std::string (*value)(Config&, unsigned slot);
};

template <class Descriptor>
std::optional<std::string> RawText(Config& config, unsigned slot) {
    auto const& names = VELT::config_helper::CfgNameCache<Descriptor>::value;
    auto const* const loader = Config::getPolicyLoader();
    auto const* const found = config.getProductValue(slot, names.settings(loader), names.attribute(loader));
    char const* text = nullptr;
    if (!found || !found->getString(&text)) return std::nullopt;
    return text;
}

template <class Descriptor>
std::string ValueText(Config& config, unsigned slot) {
    return TextOf(VELT::ReadSetting<Descriptor>(config, slot));
}

using Settings = std::map<std::string, Setting>;

template <class... Descriptor>
void Add(Settings& settings, VELT::config_attribute::setting_list<Descriptor...>) {
    auto const add = [&](auto const& text, Setting setting) {
        settings[std::string(text.section) + "/" + text.key] = setting;
    };
    (add(Descriptor::name::text, Setting{Descriptor::name::text.policy, &RawText<Descriptor>, &ValueText<Descriptor>}),
     ...);
}

Settings const& AllSettings() {
    static Settings const all = [] {
        Settings settings;
        Add(settings, VELTCFG::connection::Settings{});
        Add(settings, VELTCFG::debug_scan_agent::Settings{});
        Add(settings, VELTCFG::logretryer::Settings{});
        Add(settings, VELTCFG::network::Settings{});
        Add(settings, VELTCFG::process::Settings{});
        Add(settings, VELTCFG::quarantineretryer::Settings{});
        Add(settings, VELTCFG::scanning::Settings{});
        Add(settings, VELTCFG::smtpretryer::Settings{});
        return settings;
    }();
    return all;
}

std::string Json(std::string const& text) {
    std::string out = "\"";
    for (char const c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

std::string Json(std::optional<std::string> const& text) { return text ? Json(*text) : "null"; }

std::vector<std::string> Fields(std::string const& line) {
    std::istringstream in(line + '\t');
    std::vector<std::string> fields;
    for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
    return fields;
}

class Probe : public VELT::Connection {
public:
    void Start() override {
        VELT::TCPStream& client = *getSourceConnection().m_stream;
        char* line = nullptr;
        while (ReadLine(client, line)) {
            auto const reply = Answer(Fields(line));
            if (!reply || client.PutLine(*reply, true) != 0) return;
        }
    }

private:
    static bool ReadLine(VELT::TCPStream& client, char*& line) {
        bool done = false;
        VELT::LINE_STATE_T state = VELT::LINE_CLOSED;
        int const length = client.getline(line, true, done, state, true);
        return length >= 0 && state == VELT::LINE_COMPLETE;
    }

    std::optional<std::string> Answer(std::vector<std::string> const& fields) {
        if (fields.size() != 5 || !SetServer(fields[2])) return std::nullopt;
        auto const setting = AllSettings().find(fields[3]);
        if (setting == AllSettings().end()) return std::nullopt;
        auto const slot = SlotOf(fields[4], setting->second.slot);
        if (!slot) return std::nullopt;
        Config& config = GetConfig();
        config.set_source_mail_address(fields[0]);
        config.set_recipient_mail_address(fields[1]);
        return Decision(config, *slot, setting->second);
    }

    bool SetServer(std::string const& address) {
        sockaddr_in& end = *getServerConnection().get_address();
        end.sin_addr.s_addr = INADDR_ANY;
        return address.empty() || ::inet_pton(AF_INET, address.c_str(), &end.sin_addr) == 1;
    }

    static std::optional<unsigned> SlotOf(std::string const& name, unsigned standard) {
        if (name.empty()) return standard;
        auto const* const found = std::find(std::begin(Slots), std::end(Slots), name);
        if (found == std::end(Slots)) return std::nullopt;
        return static_cast<unsigned>(found - std::begin(Slots));
    }

    static std::string Decision(Config& config, unsigned slot, Setting const& setting) {
        auto const identity = config.policies[slot].policy(&config);
        auto const selected = identity ? std::optional<std::string>(identity.c_str()) : std::nullopt;
        return std::string("{\"direction\":\"") + (config.inbound ? "in" : "out") +
               "\",\"slot\":" + Json(std::string(Slots[slot])) +
               ",\"policy\":" + Json(std::string(Config::s_PolicyIds[config.inbound][slot].c_str())) +
               ",\"identity\":" + Json(selected) + ",\"raw\":" + Json(setting.raw(config, slot)) +
               ",\"value\":" + Json(setting.value(config, slot)) + "}";
    }
};

VELT::Connection* MakeProbe(bool /*transparent*/) { return new Probe; }

}  // namespace

int main(int argc, char** argv) {
    VELT::TCPServiceLoop::RegisterConnectionFactory(&MakeProbe);
    new VELT::Proxy;  // the library's from now on
    return VELT::ProxyStart(argc, argv);
}
