// The texts of configuration: what a domain object makes of any text, and the line that carries a Config to another
// process.
#include <boost/regex.hpp>

#include <algorithm>
#include <string>

#include "fuzz/Input.h"
#include "velt/Config.h"
#include "velt/config_details/ScanPolicy.h"
#include "velt/config_details/netobject.h"

using velt_fuzz::Require;

namespace {

constexpr std::size_t kLongestName = 200;

bool SameName(std::string const& a, std::string const& b) {
    auto const lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](char x, char y) { return lower(x) == lower(y); });
}

void CheckDomain(std::string const& domain, std::string const& text) {
    try {
        VELT::config_types::detail::netobject_is_domain const object(domain.data(), domain.data() + domain.size());
        bool const matches = object.text_match(text.data(), text.data() + text.size());
        if (!object.is_pattern()) Require(matches == SameName(domain, text), "a plain name is compared whole");
    } catch (boost::regex_error const&) {
        Require(domain.rfind("regex:", 0) == 0, "only an expression can be bad");
    }
}

void CheckLine(std::string const& line) {
    std::string joined;
    std::string field;
    for (char const* rest = line.c_str(); rest;) {
        rest = VELT::sep_to_string(rest, field);
        Require(field.find(' ') == std::string::npos, "a field has no blank");
        joined += field;
        if (rest) joined += ' ';
    }
    Require(joined == line.c_str(), "the fields make up the line");
    VELT::Config config;
    config.restore_state(line);
    Require(config.restored, "the Config is restored");
    VELT::Config again;
    again.restore_state(config.save_state());
    Require(again.inbound == config.inbound && again.save_state() == config.save_state(), "a saved line comes back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    std::string const domain = input.Line().substr(0, kLongestName);
    std::string const text = input.Line().substr(0, kLongestName);
    CheckDomain(domain, text);
    CheckLine(input.Rest());
    return 0;
}
