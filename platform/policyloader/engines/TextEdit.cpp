#include <policyloader/engines/TextEdit.h>

#include <memory>

#include <policyloader/engines/CharsetConverter.h>
#include <policyloader/engines/HeadFields.h>
#include <policyloader/engines/TextCase.h>
#include <policyloader/engines/TransferEncoder.h>

namespace policyloader {
namespace {

char const* NameOf(TransferEncoding encoding) {
    return encoding == TransferEncoding::Base64 ? "base64" : "quoted-printable";
}

bool EndsHead(std::string_view block) {
    if (block.empty() || block == "\n" || block == "\r\n") return true;
    auto const ends = [&](std::string_view end) {
        return block.size() >= end.size() && block.substr(block.size() - end.size()) == end;
    };
    return ends("\n\n") || ends("\n\r\n");
}

// The content on its way: out of its encoding, into UTF-8, with the insertion, and all the way back.
class Splice {
public:
    Splice(TextEdit const& edit, std::string const& lineEnd, ByteSink const& sink)
        : m_edit(edit), m_sink(sink), m_decoder(edit.from), m_encoder(edit.to, lineEnd) {
        if (!edit.charset.empty()) m_toUtf8 = std::make_unique<CharsetConverter>(edit.charset, "utf-8");
        if (!edit.back.empty()) m_back = std::make_unique<CharsetConverter>("utf-8", edit.back);
        bool const bytes = edit.to == TransferEncoding::Base64 || m_back;
        m_lineEnd = !bytes ? lineEnd : edit.textLineEnd.empty() ? "\r\n" : edit.textLineEnd;
    }

    void feed(std::string_view raw) { decoded(m_decoder.decode(raw)); }
    void finish() {
        decoded(m_decoder.finish());
        if (m_toUtf8) converted(m_toUtf8->finish());
        if (!m_done) insert();
        if (m_back) encoded(m_back->finish());
        m_sink(m_encoder.finish());
    }

private:
    void decoded(std::string_view text) { converted(m_toUtf8 ? m_toUtf8->convert(text) : text); }

    void converted(std::string_view text) {
        bool const here = !m_done && m_edit.at < m_at + text.size();
        std::size_t const before = here ? static_cast<std::size_t>(m_edit.at - m_at) : text.size();
        put(text.substr(0, before));
        if (here) insert();
        put(text.substr(before));
        m_at += text.size();
    }
    void insert() {
        put(WithLineEnds(m_edit.insertion, m_lineEnd));
        m_done = true;
    }
    void put(std::string_view text) {
        if (!text.empty()) encoded(m_back ? m_back->convert(text) : text);
    }
    void encoded(std::string_view text) {
        auto const out = m_encoder.encode(text);
        if (!out.empty()) m_sink(out);
    }

    TextEdit const& m_edit;
    ByteSink const& m_sink;
    std::string m_lineEnd;
    TransferDecoder m_decoder;
    std::unique_ptr<CharsetConverter> m_toUtf8;
    std::unique_ptr<CharsetConverter> m_back;
    TransferEncoder m_encoder;
    std::uint64_t m_at = 0;
    bool m_done = false;
};

// What the part said of its content and is no longer so.
std::string EditedHead(std::string const& block, TextEdit const& edit, std::string const& lineEnd) {
    bool const typed = !edit.contentType.empty(), coded = edit.to != edit.from;
    bool const counted = HasField(block, "Content-MD5") || HasField(block, "Content-Length");
    if (!typed && !coded && !counted && EndsHead(block)) return block;
    auto head = KeepFields(block, lineEnd, [&](std::string_view name) {
        if (SameText(name, "Content-Type")) return !typed;
        if (SameText(name, "Content-Transfer-Encoding")) return !coded;
        return !SameText(name, "Content-MD5") && !SameText(name, "Content-Length");
    });
    bool const message = edit.component->kind() == Component::Message;
    if (message && (typed || coded) && !HasField(head, "MIME-Version")) head += "MIME-Version: 1.0" + lineEnd;
    if (typed) head += "Content-Type: " + WithLineEnds(edit.contentType, lineEnd) + lineEnd;
    if (coded) head.append("Content-Transfer-Encoding: ").append(NameOf(edit.to)).append(lineEnd);
    return head + lineEnd;
}

}  // namespace

void WriteEdited(eFabric::IStreamTransport& in, TextEdit const& edit, std::string const& lineEnd, ReadBuffer& buffer,
                 ByteSink const& sink) {
    auto const& range = edit.component->range();
    char last = '\n';
    ByteSink const noted = [&](std::string_view bytes) {
        if (!bytes.empty()) last = bytes.back();
        sink(bytes);
    };
    std::string block;
    ReadRange(in, range.headBegin, range.bodyBegin, buffer, [&](std::string_view b) { block += b; });
    noted(EditedHead(block, edit, lineEnd));
    Splice splice(edit, lineEnd, noted);
    ReadRange(in, range.bodyBegin, range.bodyEnd, buffer, [&](std::string_view b) { splice.feed(b); });
    splice.finish();
    bool const atEnd = range.bodyEnd >= in.size();
    if (atEnd ? last != '\n' : !EndsLine(in, range.bodyEnd, buffer)) sink(lineEnd);
}

bool EndsLine(eFabric::IStreamTransport& in, std::uint64_t at, ReadBuffer& buffer) {
    if (at >= in.size()) return false;
    bool ends = false;
    ReadRange(in, at, at + 1, buffer, [&](std::string_view one) { ends = one == "\r" || one == "\n"; });
    return ends;
}

}  // namespace policyloader
