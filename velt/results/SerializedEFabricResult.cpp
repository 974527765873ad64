#include <velt/results/SerializedEFabricResult.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include <velt/results/SerialDecoding.h>

namespace VELT {

namespace {

wchar_t* Widen(std::string const& text, wchar_t* buffer) {
    return std::transform(text.begin(), text.end(), buffer,
                          [](char byte) { return static_cast<wchar_t>(static_cast<signed char>(byte)); });
}

// Each name with a separator behind it and room for the 0 that ends the text.
bool WriteNames(std::vector<std::string> const& names, wchar_t* buffer, int size, wchar_t separator) {
    if (size < 1) return true;
    auto room = static_cast<std::size_t>(size);
    for (std::string const& name : names) {
        if (name.size() + 2 > room) break;
        buffer = Widen(name, buffer);
        *buffer++ = separator;
        room -= name.size() + 1;
    }
    *buffer = L'\0';
    return true;
}

}  // namespace

SerializedEFabricResult::Token const SerializedEFabricResult::s_AsciiDecode[] = {
    {"msr.triggered", &SerializedEFabricResult::decode_triggered},
    {"msr.modified", &SerializedEFabricResult::decode_modified},
    {"msr.action", &SerializedEFabricResult::decode_action},
    {"msr.master.action", &SerializedEFabricResult::decode_action},
    {"msr.infection_description", &SerializedEFabricResult::decode_infection_description},
    {"msr.infection_names", &SerializedEFabricResult::decode_infection_names},
    {"msr.infected_components", &SerializedEFabricResult::decode_infected_components},
    {"msr.actions", &SerializedEFabricResult::decode_actions},
    {"msr.master.result", &SerializedEFabricResult::decode_master_result},
    {"msr.sr.result", &SerializedEFabricResult::decode_result},
};

SerializedEFabricResult* SerializedEFabricResult::deserialize(BufferedStream* stream) {
    bool ok = false;
    auto made = std::make_unique<SerializedEFabricResult>(stream, ok);
    return ok ? made.release() : nullptr;
}

SerializedEFabricResult::SerializedEFabricResult(BufferedStream* stream, bool& ok)
    : empty_bags(results::kMostEmptyBags) {
    ok = !stream || decode_ascii_stream(*stream);
}

bool SerializedEFabricResult::decode_ascii_stream(BufferedStream& stream) {
    for (;;) {
        results::RecordLine const line(stream);
        if (line.length < 1) return true;
        auto const* const token = std::find_if(std::begin(s_AsciiDecode), std::end(s_AsciiDecode),
                                               [&](Token const& known) { return line.word == known.word; });
        if (token == std::end(s_AsciiDecode)) {
            results::ReportUnknownToken(__FILE__, __LINE__, line.word);
            return false;
        }
        if (!(this->*token->handler)(stream, line.text)) return false;
    }
}

bool SerializedEFabricResult::decode_triggered(BufferedStream& stream, std::string const& text) {
    return results::decode(stream, text.c_str(), triggered);
}

bool SerializedEFabricResult::decode_modified(BufferedStream& stream, std::string const& text) {
    return results::decode(stream, text.c_str(), modified);
}

bool SerializedEFabricResult::decode_action(BufferedStream& stream, std::string const& text) {
    std::string read;
    if (!results::decode(stream, text.c_str(), read)) return false;
    action = std::move(read);
    return true;
}

bool SerializedEFabricResult::decode_infection_description(BufferedStream& stream, std::string const& text) {
    return results::decode(stream, text.c_str(), infection_description);
}

bool SerializedEFabricResult::decode_infection_names(BufferedStream&, std::string const& text) {
    infection_names.push_back(text);
    return true;
}

bool SerializedEFabricResult::decode_infected_components(BufferedStream&, std::string const& text) {
    infected_components.push_back(text);
    return true;
}

bool SerializedEFabricResult::decode_actions(BufferedStream&, std::string const& text) {
    actions.push_back(text);
    return true;
}

bool SerializedEFabricResult::decode_master_result(BufferedStream& stream, std::string const&) {
    bool ok = false;
    master = std::make_unique<ScanResult>(stream, empty_bags, ok);
    if (!ok) master.reset();
    return ok;
}

bool SerializedEFabricResult::decode_result(BufferedStream& stream, std::string const&) {
    bool ok = false;
    auto read = std::make_unique<ScanResult>(stream, empty_bags, ok);
    if (ok) results.push_back(std::move(read));
    return ok;
}

IKORScanResult const* SerializedEFabricResult::at(long pos) const {
    auto const index = static_cast<std::size_t>(pos);
    return index < results.size() ? results[index].get() : nullptr;
}

IKORScanResult const* SerializedEFabricResult::FindFirstScanResult(long& pos) const { return at(pos = 0); }

IKORScanResult const* SerializedEFabricResult::FindNextScanResult(long& pos) const { return at(++pos); }

bool SerializedEFabricResult::GetInfectionDescription(wchar_t* buffer, int size) const {
    if (infection_description.empty() || static_cast<long>(infection_description.size()) >= size) return false;
    *Widen(infection_description, buffer) = L'\0';
    return true;
}

bool SerializedEFabricResult::GetInfectionNames(wchar_t* buffer, int size, wchar_t separator) const {
    return WriteNames(infection_names, buffer, size, separator);
}

bool SerializedEFabricResult::GetInfectedComponentNames(wchar_t* buffer, int size, wchar_t separator) const {
    return WriteNames(infected_components, buffer, size, separator);
}

bool SerializedEFabricResult::DidActionOccur(char const* name) const {
    return name && std::find(actions.begin(), actions.end(), name) != actions.end();
}

bool SerializedEFabricResult::GetActionList(char* buffer, unsigned& size, char separator, unsigned& count) const {
    char* const start = buffer;
    unsigned room = size;
    count = 0;
    for (std::string const& name : actions) {
        if (room <= name.size() + 1) break;
        buffer = std::copy(name.begin(), name.end(), buffer);
        *buffer++ = separator;
        room -= static_cast<unsigned>(name.size()) + 1;
        ++count;
    }
    *buffer = '\0';
    size = static_cast<unsigned>(buffer - start);
    return true;
}

}  // namespace VELT
