// inside.txt and outside.txt: a file scores as its lines do one by one, and a rule matches no more than a line.
#include <algorithm>
#include <string>

#include <velt/connection/TCPConnection.h>
#include <velt/lookup/NetCheckIPV4.h>
#include <velt/lookup/NetPolicy.h>
#include <velt/lookup/Resolver.h>

#include "fuzz/Input.h"
#include "testing/SpoolRoom.h"

using velt_fuzz::Require;

namespace {

constexpr std::size_t kMaxFile = 4096;  // stays in the memory that the file is read with

// The lines of a file up to the first empty one; a last one without an end is none.
std::vector<std::string> ReadLines(std::string const& file) {
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; (end = file.find('\n', at)) != file.npos; at = end + 1) {
        std::string line = file.substr(at, end - at);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) break;
        lines.push_back(std::move(line));
    }
    return lines;
}

void CheckRule(std::string const& text, VELT::TCPConnection& end) {
    auto const line = VELT::NetCheckIPV4::parse(text.c_str());
    int const score = line ? line->score(nullptr, end) : -1;
    Require(score >= -1 && score <= 32, "a score of a network");
    if (VELT::NetCheckIPV4::matches(text.c_str(), end.get_address())) Require(score >= 0, "a line for each rule");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static velt_testing::SpoolRoom const room(8192);
    VELT::Resolver::s_reverse_lookups_banned = true;
    velt_fuzz::Input input(data, size);
    VELT::TCPConnection end;
    end.m_host = input.Line();
    for (int i = 0; i < 4; ++i) end.m_address.sin_addr.s_addr = end.m_address.sin_addr.s_addr << 8 | input.Byte();
    std::string const file = input.Text(kMaxFile);
    int best = -1;
    for (std::string const& line : ReadLines(file)) {
        auto const check = VELT::NetPolicyCheck::create_policy(line.c_str());
        if (check) best = std::max(best, check->score(nullptr, end));
        CheckRule(line.substr(std::min<std::size_t>(line.size(), 8)), end);
    }
    room.Write("inside.txt", file);
    VELT::NetPolicy policy;
    policy.load(room / "inside.txt");
    Require(policy.score(nullptr, end) == best, "the score of the best line");
    return 0;
}
