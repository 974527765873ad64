// TextPart: one text of a mail that a reader is shown, while a scan streams it by: what stands in it, and where and how
// something can be put into it.
// Owner: the information engine, its scan thread.  Units: bytes of the decoded text.
// Failure: none; a text that cannot be added to without harm says so.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <policyloader/engines/CharsetConverter.h>
#include <policyloader/engines/Disclaimer.h>
#include <policyloader/engines/EntityHead.h>
#include <policyloader/engines/HtmlPlaces.h>
#include <policyloader/engines/HtmlText.h>
#include <policyloader/engines/TextDecoder.h>
#include <policyloader/engines/TextEdit.h>

namespace policyloader {

class TextPart {
public:
    TextPart(EntityHead const& head, Component& component, Disclaimer const& disclaimer);

    ~TextPart();

    void feed(std::string_view decoded);
    void finish();

    Component& component() const { return m_component; }
    bool isHtml() const { return m_html; }
    bool carries() const { return m_carries; }  // the disclaimer
    bool isPgp() const { return m_pgp; }        // signed or encrypted within the text
    // `boundaries` are those of every multipart around it. Nothing: it cannot be added to.
    std::optional<TextEdit> edit(std::vector<std::string> const& boundaries) const;

private:
    void seen(std::string_view utf8);
    void look(std::string_view utf8);
    void measure(std::string_view text);
    bool isWritable() const;
    void setWhole(TextEdit& made, std::string const& text) const;
    void setBytes(TextEdit& made, std::string const& text) const;
    std::string around(std::string const& text) const;
    std::string plainText() const;
    std::string typeWithUtf8() const;
    bool fitsAsItStands(TextEdit const& made, std::vector<std::string> const& boundaries) const;

    Disclaimer const& m_disclaimer;
    Component& m_component;
    // Of the header.
    bool m_html;
    bool m_flowed = false;
    bool m_deletesSpaces = false;
    bool m_eightBit = false;
    bool m_ambiguous = false;
    std::string m_charset;
    CharsetKind m_kind;
    std::string m_type;  // the field's value
    TransferEncoding m_encoding;
    // Of the content.
    struct Look;
    std::unique_ptr<Look> m_look;  // while it streams by
    HtmlPlaces m_places;
    std::string m_begin;  // of the text
    std::string m_lineEnd;
    std::uint64_t m_size = 0;
    char m_last = 0;
    bool m_carries = false;
    bool m_pgp = false;
    bool m_lossy = true;  // it cannot become UTF-8 without harm
};

}  // namespace policyloader
