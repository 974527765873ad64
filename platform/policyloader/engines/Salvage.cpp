#include <policyloader/engines/Salvage.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>

namespace policyloader {
namespace {

constexpr std::size_t kShortest = 4;  // characters of base64 that are worth decoding

bool IsAlphabet(unsigned char c) { return std::isalnum(c) || c == '+' || c == '/' || c == '='; }

// Base64 with a little dirt: without the blanks at its ends it holds none, and three of four bytes are of the alphabet.
bool LooksEncoded(std::string_view line) {
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) line.remove_suffix(1);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.front()))) line.remove_prefix(1);
    if (line.size() < kShortest || line.substr(0, 2) == "--") return false;
    if (std::memchr(line.data(), ' ', line.size()) || std::memchr(line.data(), ':', line.size())) return false;
    auto const good = std::count_if(line.begin(), line.end(), [](unsigned char c) { return IsAlphabet(c); });
    return static_cast<std::size_t>(good) * 4 >= line.size() * 3;
}

}  // namespace

Salvage::Salvage(Opener opener)
    : m_opener(std::move(opener)),
      m_quoted(m_opener()),
      m_quotedDecoder(TransferEncoding::QuotedPrintable),
      m_runDecoder(Base64Decoder::EndsGroup) {
    for (std::size_t place = 0; place < std::size(m_whole); ++place) {
        m_whole[place] = m_opener();
        m_wholeDecoders[place] = Base64Decoder(Base64Decoder::Skipped);
        m_wholeDecoders[place].decode(std::string_view("AAA").substr(0, place), m_buffer);
    }
}

void Salvage::send(Scans& scans, std::string_view text) {
    for (auto const& scan : scans) scan->data(text);
}

void Salvage::feed(std::string_view block) {
    send(m_quoted, m_quotedDecoder.decode(block));
    for (std::size_t place = 0; place < std::size(m_whole); ++place) {
        m_buffer.clear();
        m_wholeDecoders[place].decode(block, m_buffer);
        send(m_whole[place], m_buffer);
    }
    while (!block.empty()) {
        std::size_t const end = block.find('\n');
        auto const text = block.substr(0, end == std::string_view::npos ? end : end + 1);
        line(text, end != std::string_view::npos);
        block.remove_prefix(text.size());
    }
}

// A block may end within a line; what comes first decides for the rest.
void Salvage::line(std::string_view text, bool ends) {
    bool const encoded =
        m_midLine ? m_inRun : LooksEncoded(text) || (m_inRun && text.size() <= kShortest + 2 && text.size() > 2);
    m_midLine = !ends;
    if (encoded)
        run(text);
    else if (m_inRun)
        endRun();
}

void Salvage::run(std::string_view text) {
    if (!m_inRun) {
        m_run = m_opener();
        m_runDecoder.restart();
    }
    m_inRun = true;
    m_buffer.clear();
    m_runDecoder.decode(text, m_buffer);
    send(m_run, m_buffer);
}

void Salvage::endRun() {
    m_buffer.clear();
    m_runDecoder.finish(m_buffer);
    send(m_run, m_buffer);
    for (auto const& scan : m_run) scan->end();
    m_run.clear();
    m_inRun = false;
}

void Salvage::finish() {
    if (m_inRun) endRun();
    send(m_quoted, m_quotedDecoder.finish());
    for (auto const& scan : m_quoted) scan->end();
    for (std::size_t place = 0; place < std::size(m_whole); ++place) {
        m_buffer.clear();
        m_wholeDecoders[place].finish(m_buffer);
        send(m_whole[place], m_buffer);
        for (auto const& scan : m_whole[place]) scan->end();
    }
}

}  // namespace policyloader
