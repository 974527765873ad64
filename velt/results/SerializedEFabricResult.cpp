#include <velt/results/SerializedEFabricResult.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include <velt/results/SerialDecoding.h>

namespace VELT {

namespace {

// The text, its 0, and one more 0 where there is room: `size` grows by the two. Null, and nothing written: an empty
// text, or one of `size` or more. Bytes are signed, so those of other scripts become negative.
wchar_t* convert_to_wchar(char const* text, wchar_t* buffer, int& size) {
    std::size_t const length = std::strlen(text);
    if (!buffer || length == 0 || size < 0 || length >= static_cast<std::size_t>(size)) return nullptr;
    wchar_t* const end = std::transform(text, text + length, buffer,
                                        [](char byte) { return static_cast<wchar_t>(static_cast<signed char>(byte)); });
    *end = L'\0';
    if (length + 1 < static_cast<std::size_t>(size)) end[1] = L'\0';
    size += 2;
    return buffer;
}

// Each name with a separator behind it, and a 0 that ends the text. Names come from the wire: what is written ends
// within the buffer, whatever their count, and so the room is counted here and not by the two that each one adds.
bool convert_to_wchar(std::vector<std::string> const& names, wchar_t* buffer, int size, wchar_t separator) {
    if (!buffer || size < 1) return true;
    for (std::string const& name : names) {
        int const length = static_cast<int>(std::min<std::size_t>(name.size(), INT_MAX / 2));
        if (length + 2 > size) break;
        int room = size;
        convert_to_wchar(name.c_str(), buffer, room);
        buffer[length] = separator;
        buffer += length + 1;
        size -= length + 1;
    }
    *buffer = L'\0';
    return true;
}

// True: to its empty line. `other`: to a line that does not begin with the name.
bool ReadSection(BufferedStream& stream, char const* name, IKORPropertyBag& bag, bool& other) {
    results::SerialSource source(stream);
    std::size_t const length = std::strlen(name);
    char* line = nullptr;
    bool complete = false;
    while (source.ReadLine(line, complete) > 0) {
        other = std::strncmp(line, name, length) != 0;
        if (other) return false;
        if (line[length] == '.') results::decode_property_bag(bag, source, line + length + 1);
    }
    return complete;
}

}  // namespace

std::map<std::string_view, SerializedEFabricResult::Handler> SerializedEFabricResult::s_AsciiDecode;

struct MSRDecodeInit {
    MSRDecodeInit() {
        SerializedEFabricResult::s_AsciiDecode = {
            {"msr.triggered", &SerializedEFabricResult::decode_triggered},
            {"msr.modified", &SerializedEFabricResult::decode_modified},
            {"msr.action", &SerializedEFabricResult::decode_action},
            {"msr.master.action", &SerializedEFabricResult::decode_master_action},
            {"msr.infection_description", &SerializedEFabricResult::decode_infection_description},
            {"msr.infection_names", &SerializedEFabricResult::decode_infection_names},
            {"msr.infected_components", &SerializedEFabricResult::decode_infected_components},
            {"msr.actions", &SerializedEFabricResult::decode_actions},
            {"msr.master.result", &SerializedEFabricResult::decode_master_result},
            {"msr.sr.result", &SerializedEFabricResult::decode_result},
        };
    }
};

namespace {

MSRDecodeInit const s_filled;

}  // namespace

SerializedEFabricResult* SerializedEFabricResult::deserialize(BufferedStream* stream, bool* ended) {
    bool whole = false;
    std::unique_ptr<SerializedEFabricResult> made;
    bool const ok = results::WithMemory([&] {
        made.reset(new SerializedEFabricResult);
        return made->decode_ascii_stream(stream, whole);
    });
    if (ended) *ended = whole;
    return ok ? made.release() : nullptr;
}

void SerializedEFabricResult::deserialize(BufferedStream* stream, char const* name, IKORPropertyBag& bag, bool* ended,
                                          bool* other) {
    if (ended) *ended = false;
    if (other) *other = false;
    bag.Clear();
    if (!stream) return;
    bool isOther = false;
    bool const isWhole = results::WithMemory([&] { return ReadSection(*stream, name, bag, isOther); });
    if (ended) *ended = isWhole;
    if (other) *other = isOther;
}

SerializedEFabricResult::SerializedEFabricResult(BufferedStream* stream, bool& ok) {
    bool ended = false;
    ok = results::WithMemory([&] { return decode_ascii_stream(stream, ended); });
}

bool SerializedEFabricResult::decode_ascii_stream(BufferedStream* stream, bool& ended) {
    if (!stream) return true;
    results::SerialSource source(*stream);
    for (;;) {
        results::RecordLine const line(source);
        ended = line.is_empty_line();
        if (line.is_end()) return !source.overdrawn();
        auto const token = s_AsciiDecode.find(line.word);
        if (token == s_AsciiDecode.end()) {
            results::ReportUnknownToken(__FILE__, __LINE__, line.word);
            return false;
        }
        if (!(this->*token->second)(source, line.text)) return false;
    }
}

bool SerializedEFabricResult::decode_triggered(results::SerialSource& source, char const* text) {
    return results::decode(source, text, triggered);
}

bool SerializedEFabricResult::decode_modified(results::SerialSource& source, char const* text) {
    return results::decode(source, text, modified);
}

bool SerializedEFabricResult::decode_action(results::SerialSource& source, char const* text) {
    return results::decode(source, text, action);
}

bool SerializedEFabricResult::decode_master_action(results::SerialSource& source, char const* text) {
    return decode_action(source, text);
}

bool SerializedEFabricResult::decode_infection_description(results::SerialSource& source, char const* text) {
    return results::decode(source, text, infection_description);
}

bool SerializedEFabricResult::decode_infection_names(results::SerialSource& source, char const* text) {
    return results::decode(source, text, infection_names);
}

bool SerializedEFabricResult::decode_infected_components(results::SerialSource& source, char const* text) {
    return results::decode(source, text, infected_components);
}

bool SerializedEFabricResult::decode_actions(results::SerialSource& source, char const* text) {
    return results::decode(source, text, actions);
}

bool SerializedEFabricResult::decode_master_result(results::SerialSource& source, char const*) {
    bool ok = false;
    master = std::make_unique<ScanResult>(source, ok);
    if (!ok) master.reset();
    return ok;
}

bool SerializedEFabricResult::decode_result(results::SerialSource& source, char const*) {
    bool ok = false;
    auto read = std::make_unique<ScanResult>(source, ok);
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
    return convert_to_wchar(infection_description.c_str(), buffer, size) != nullptr;
}

bool SerializedEFabricResult::GetInfectionNames(wchar_t* buffer, int size, wchar_t separator) const {
    return convert_to_wchar(infection_names, buffer, size, separator);
}

bool SerializedEFabricResult::GetInfectedComponentNames(wchar_t* buffer, int size, wchar_t separator) const {
    return convert_to_wchar(infected_components, buffer, size, separator);
}

bool SerializedEFabricResult::DidActionOccur(char const* name) const {
    return name && std::find(actions.begin(), actions.end(), name) != actions.end();
}

bool SerializedEFabricResult::GetActionList(char* buffer, unsigned& size, char separator, unsigned& count) const {
    unsigned room = std::exchange(size, 0);
    count = 0;
    if (!buffer) return true;
    char* const start = buffer;
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
