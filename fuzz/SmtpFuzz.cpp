// The mail gateway's reading of commands, paths, message content and replies, against simple models.
#include <string>
#include <string_view>
#include <vector>

#include "core/Address.h"
#include "core/Command.h"
#include "core/DataDecoder.h"
#include "core/DataEncoder.h"
#include "core/Reply.h"
#include "fuzz/Input.h"

using velt_fuzz::Input;
using velt_fuzz::Require;

namespace {

struct Model {
    bool done = false;
    bool bare = false;
    std::string content;
    std::size_t taken = 0;
};

// Line by line, over the whole text at once: a line ends at CRLF; a CR or LF elsewhere is a bare one.
Model Read(std::string const& wire) {
    Model model;
    std::size_t start = 0;
    while (true) {
        std::size_t const end = wire.find("\r\n", start);
        std::string line = wire.substr(start, end == std::string::npos ? end : end - start);
        if (end != std::string::npos && line == ".") {
            model.done = true;
            model.taken = end + 2;
            return model;
        }
        bool const openCr = end == std::string::npos && !line.empty() && line.back() == '\r';
        std::string const sure = openCr ? line.substr(0, line.size() - 1) : line;
        if (sure.find_first_of("\r\n") != std::string::npos) model.bare = true;
        if (end == std::string::npos && line == ".\r") line.clear();
        if (!line.empty() && line.front() == '.') line.erase(0, 1);
        model.content += line;
        if (end == std::string::npos) break;
        model.content += "\r\n";
        start = end + 2;
    }
    model.taken = wire.size();
    return model;
}

std::string Stuff(std::string const& content) {
    smtp::DataEncoder encoder;
    std::string out;
    auto const sink = [&](std::string_view piece) { out += piece; };
    encoder.Encode(content, sink);
    encoder.Finish(sink);
    return out;
}

void CheckData(Input& input) {
    std::vector<std::string> pieces;
    for (unsigned cuts = input.Byte() % 8; cuts; --cuts) pieces.push_back(input.Text(input.Byte()));
    pieces.push_back(input.Rest());
    smtp::DataDecoder::Limits none;
    none.line = 0;
    smtp::DataDecoder decoder(none);
    std::string wire, content;
    std::size_t taken = 0;
    for (std::string const& piece : pieces) {
        wire += piece;
        taken +=
            decoder.Feed(piece.data(), piece.size(), [&](char const* data, std::size_t n) { content.append(data, n); });
    }
    Model const model = Read(wire);
    Require(decoder.done() == model.done, "the message ends at CRLF dot CRLF and nowhere else");
    Require(taken == model.taken, "what follows the end is left");
    Require((decoder.fault() == smtp::DataDecoder::Fault::BareLineEnd) == model.bare, "bare line ends are seen");
    if (model.bare) return;
    Require(content == model.content, "the content is that between the dots");
    if (!model.done) return;
    std::string const again = Stuff(content);
    Model const back = Read(again);
    Require(back.done && back.taken == again.size() && back.content == content, "it goes out as it came in");
}

// Whatever a content has in it, it goes out as one message.
void CheckEncoding(Input& input) {
    std::string const content = input.Rest();
    std::string const wire = Stuff(content);
    Model const model = Read(wire);
    Require(model.done && model.taken == wire.size() && !model.bare, "one message, with CRLF only");
}

void CheckLine(Input& input) {
    std::string const line = input.Rest();
    smtp::Command const command = smtp::ParseCommand(line);
    if (command.verb != smtp::Verb::Mail && command.verb != smtp::Verb::Rcpt) return;
    std::string_view rest = command.argument;
    smtp::Mailbox mailbox;
    smtp::PathKind const kind = command.verb == smtp::Verb::Mail ? smtp::PathKind::Reverse : smtp::PathKind::Forward;
    if (smtp::ParsePath(rest, kind, mailbox) != smtp::PathError::None) return;
    std::vector<smtp::Parameter> parameters;
    smtp::ParseParameters(rest, parameters);
    std::string const text = "<" + (mailbox.null ? std::string() : mailbox.str()) + ">";
    std::string_view again = text;
    smtp::Mailbox second;
    Require(smtp::ParsePath(again, kind, second) == smtp::PathError::None && again.empty(), "an address reads again");
    Require(second.str() == mailbox.str(), "as the same address");
    Require(!smtp::HasControl(text), "and carries no control character to the next server");
}

void CheckReply(Input& input) {
    smtp::ReplyParser parser;
    while (!input.empty()) {
        if (parser.Take(input.Line()) != smtp::ReplyParser::Status::Complete) continue;
        int const group = parser.reply().group();
        Require(group >= 2 && group <= 5, "a reply has a class");
        Require(parser.reply().wire().find('\0') == std::string::npos, "foreign text is printable");
        smtp::Capabilities::FromEhlo(parser.lines());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    switch (input.Byte() % 4) {
        case 0:
            CheckData(input);
            break;
        case 1:
            CheckEncoding(input);
            break;
        case 2:
            CheckLine(input);
            break;
        default:
            CheckReply(input);
            break;
    }
    return 0;
}
