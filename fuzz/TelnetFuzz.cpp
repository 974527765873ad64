// The telnet filter of a stream, on input that the network cuts anywhere, against the walk of a plain model. Where it
// is cut makes no difference to what the handler is told, nor, while nobody interrupts, to the data.
#include <velt/streams/TCPStream.h>

#include <memory>
#include <string>

#include "fuzz/Input.h"
#include "testing/TelnetModel.h"

using velt_fuzz::Require;

namespace {

// A stream's filter. Each buffer is exactly as large as what is in it, so that a step beyond it is seen.
class Filter {
public:
    Filter() { m_stream.set_escape_handler(&m_handler); }

    std::string Run(std::string const& text) {
        auto length = static_cast<unsigned>(text.size());
        auto const buffer = std::make_unique<char[]>(length);
        text.copy(buffer.get(), length);
        m_stream.handle_telnet(buffer.get(), length);
        Require(length <= text.size(), "no more than came");
        return {buffer.get(), length};
    }
    std::vector<std::string> const& calls() const { return m_handler.calls; }

private:
    velt_testing::NotingHandler m_handler;
    VELT::TCPStream m_stream;
};

}  // namespace

// The first byte counts the cuts; the bytes after it are the lengths of the pieces; the rest is the input.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    std::string const lengths = input.Text(input.Byte());
    std::string const text = input.Rest();
    Filter cut, whole;
    velt_testing::TelnetModel cutModel, wholeModel;
    std::string got;
    std::size_t at = 0;
    for (unsigned char const length : lengths) {
        std::string const piece = text.substr(at, length);
        std::string const left = cut.Run(piece);
        Require(left == cutModel.Filter(piece), "the same data");
        got += left;
        at += piece.size();
    }
    std::string const last = text.substr(at);
    std::string const left = cut.Run(last);
    Require(left == cutModel.Filter(last), "the same data at last");
    got += left;
    std::string const uncut = whole.Run(text);
    Require(uncut == wholeModel.Filter(text), "the same data of the whole");
    Require(cut.calls() == cutModel.calls(), "the same calls as the model");
    Require(cut.calls() == whole.calls(), "the same calls wherever it is cut");
    Require(cutModel.hadInterrupt() || got == uncut, "the same data wherever it is cut");
    return 0;
}
