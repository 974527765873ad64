// Header blocks of a scanner process, on input that the network cuts anywhere: what is read of them is the same
// wherever it is cut, and with a buffer that holds the whole of it, what a plain model reads.
#include <velt/scanning/StreamRequest.h>

#include <deque>
#include <map>
#include <string>

#include "fuzz/Input.h"
#include "testing/ScriptedStream.h"

using velt_fuzz::Require;
using velt_testing::EndsWith;
using velt_testing::ScriptedStream;

namespace {

struct Block {
    int result = 0;
    std::map<std::string, std::string> headers;

    bool operator==(Block const&) const = default;
};

Block Read(std::deque<std::string> pieces, EndsWith end, unsigned buffer) {
    ScriptedStream stream(std::move(pieces), end, buffer);
    VELT::StreamRequest request;
    int const result = request.read_headers(&stream);
    std::size_t held = 0;
    for (auto const& [name, value] : request) held += name.size() + value.size();
    Require(held <= VELT::StreamRequest::s_mostBytes, "no more than its limit");
    return {result, request};
}

Block Modelled(std::string const& text, EndsWith end) {
    Block block;
    for (std::size_t at = 0;;) {
        std::size_t const feed = text.find('\n', at);
        if (feed == text.npos) break;
        std::string line = text.substr(at, feed - at);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        at = feed + 1;
        block.result = block.headers.empty() ? -3 : 0;
        if (line.empty()) return block;
        std::size_t const space = line.find(' ');
        block.result = -2;
        if (space == line.npos) return block;
        block.headers[line.substr(0, space)] = line.substr(space + 1);
    }
    block.result = end == EndsWith::close ? -1 : block.headers.empty() ? -3 : 0;
    return block;
}

}  // namespace

// The first byte says how the peer ends and how large the buffer is, the second counts the cuts; the bytes after it are
// the lengths of the pieces; the rest is the input.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 65536) return 0;
    velt_fuzz::Input input(data, size);
    unsigned const choice = input.Byte();
    auto const end = static_cast<EndsWith>(choice % 3);
    std::string const lengths = input.Text(input.Byte());
    std::string const text = input.Rest();
    std::deque<std::string> pieces;
    std::size_t at = 0;
    for (unsigned char const length : lengths) {
        if (at >= text.size() || length == 0) continue;
        pieces.push_back(text.substr(at, length));
        at += length;
    }
    if (at < text.size()) pieces.push_back(text.substr(at));
    std::deque<std::string> whole;
    if (!text.empty()) whole.push_back(text);
    unsigned const small = 8 + choice / 3;
    Require(Read(pieces, end, small) == Read(whole, end, small), "the same wherever it is cut");
    Require(Read(pieces, end, 131072) == Modelled(text, end), "what the model reads");
    return 0;
}
