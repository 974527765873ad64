#include <policyloader/engines/MimeWalker.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace policyloader {
namespace {

constexpr std::size_t kMaxHeadBytes = 1u << 20;
constexpr std::size_t kMaxBoundaryLine = 1024;  // a longer line is content, whatever it begins with

bool IsBlank(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c); });
}

std::size_t LineEndLength(std::string_view text) {
    if (text.size() >= 2 && text.substr(text.size() - 2) == "\r\n") return 2;
    return !text.empty() && (text.back() == '\n' || text.back() == '\r') ? 1 : 0;
}

bool MayBeBoundary(std::string_view text) { return text.size() >= 2 && text[0] == '-' && text[1] == '-'; }

}  // namespace

struct MimeWalker::Entity {
    std::string headText;
    EntityHead head;
    Component* component = nullptr;
    std::unique_ptr<EntityBody> body;
    std::uint64_t headBegin = 0;
    bool inHead = true;
    bool message = false;
    bool closed = false;  // its last boundary was seen
};

MimeWalker::MimeWalker(EntitySink& sink, Component* parent, unsigned depth, bool outermost)
    : m_sink(sink), m_parent(parent), m_depth(depth), m_outermost(outermost) {
    push(0, true);
}

MimeWalker::~MimeWalker() = default;

void MimeWalker::feed(std::string_view block) {
    if (!m_stopped) feedLines(block, resume(block));
    m_offset += block.size();
}

// Goes on with the line that the last block left unfinished; answers where the next line begins.
std::size_t MimeWalker::resume(std::string_view block) {
    if (!m_inLine && m_pending.empty()) return 0;
    std::size_t const end = block.find('\n');
    std::string_view const rest = block.substr(0, end == std::string_view::npos ? end : end + 1);
    if (m_inLine) {
        content(rest);
        m_inLine = end == std::string_view::npos;
        return rest.size();
    }
    std::uint64_t const offset = m_offset - m_pending.size();
    std::string whole;
    whole.swap(m_pending);
    whole.append(rest);
    end == std::string_view::npos ? tail(whole) : line(whole, offset);
    return rest.size();
}

void MimeWalker::feedLines(std::string_view block, std::size_t at) {
    std::size_t run = at;  // content not yet passed on begins here
    while (at < block.size() && !m_stopped) {
        auto const* const end = static_cast<char const*>(std::memchr(block.data() + at, '\n', block.size() - at));
        std::size_t const next = end ? static_cast<std::size_t>(end - block.data()) + 1 : block.size();
        bool const inHead = m_stack.back().inHead;
        if (end && !inHead && block[at] != '-') {
            at = next;
            continue;
        }
        if (run < at) content(block.substr(run, at - run));
        std::string_view const text = block.substr(at, next - at);
        end ? line(text, m_offset + at) : tail(text);
        run = at = next;
    }
    if (run < at && !m_stopped) content(block.substr(run, at - run));
}

// A line whose end has not come yet.
void MimeWalker::tail(std::string_view text) {
    bool const inHead = m_stack.back().inHead;
    bool const undecided = text == "-" || (MayBeBoundary(text) && text.size() <= kMaxBoundaryLine);
    if (inHead && m_stack.back().headText.size() + text.size() > kMaxHeadBytes) {
        m_sink.headTooLong();
        stop();
    } else if (inHead || undecided) {
        m_pending.assign(text);
    } else {
        content(text);
        m_inLine = true;
    }
}

void MimeWalker::line(std::string_view text, std::uint64_t offset) {
    Hit const hit = MayBeBoundary(text) && text.size() <= kMaxBoundaryLine ? findBoundary(text) : Hit{0, false, false};
    if (hit.found)
        boundary(hit, offset, offset + text.size());
    else if (m_stack.back().inHead)
        headLine(text, offset);
    else
        content(text);
}

void MimeWalker::headLine(std::string_view text, std::uint64_t offset) {
    auto& entity = m_stack.back();
    bool const begins = entity.headText.empty();
    if (IsBlank(text)) {
        bool const empty = text.find_first_not_of("\r\n") == std::string_view::npos;
        m_doubtful |= (begins && entity.message) || !empty;  // blanks alone: to some a folded line
        return endHead(offset + text.size());
    }
    if (begins && !LooksLikeHeader(text)) {
        // No header at all: readers show this line as content.
        m_doubtful = true;
        endHead(offset);
        if (!m_stopped) content(text);
        return;
    }
    entity.headText.append(text);
    if (entity.headText.size() <= kMaxHeadBytes) return;
    m_sink.headTooLong();
    stop();
}

void MimeWalker::endHead(std::uint64_t bodyBegin) {
    std::size_t const level = m_stack.size() - 1;
    auto& entity = m_stack.back();
    bool const inDigest = level > 0 && m_stack[level - 1].head.isDigest() && !entity.message;
    entity.head = EntityHead::parse(entity.headText);
    auto const& fields = entity.head.fields;
    bool const typed = std::any_of(fields.begin(), fields.end(), [](auto const& field) {
        return field.first.size() == 12 && strncasecmp(field.first.c_str(), "Content-Type", 12) == 0;
    });
    if (inDigest && !typed) entity.head.message = true;
    entity.head.ofMessage = entity.message;
    entity.headText = std::string();
    entity.inHead = false;
    m_doubtful |= entity.head.doubtful;

    unsigned const depth = m_depth + static_cast<unsigned>(level);
    auto* const parent = level > 0 ? m_stack[level - 1].component : m_parent;
    entity.component = m_sink.entity(entity.head, parent, depth);
    if (!entity.component) return stop();
    if (m_outermost) entity.component->range() = {entity.headBegin, bodyBegin, bodyBegin, false};
    if (entity.head.message && !entity.head.isEncoded() && !entity.head.multipart)
        push(bodyBegin, true);
    else if (!entity.head.multipart || entity.head.isEncoded())
        entity.body = m_sink.body(entity.head, *entity.component, depth);
}

void MimeWalker::content(std::string_view piece) {
    auto& entity = m_stack.back();
    if (entity.inHead) return;
    if (!entity.body) {
        if (IsBlank(piece)) return;
        // Text before the first part, between or behind them.
        entity.body = m_sink.body(entity.head, *entity.component, m_depth + static_cast<unsigned>(m_stack.size()) - 1);
    }
    if (m_heldLineEnd == "\r" && piece == "\n") {
        m_heldLineEnd = "\r\n";
        return;
    }
    if (!m_heldLineEnd.empty()) entity.body->data(m_heldLineEnd);
    std::size_t const cut = piece.size() - LineEndLength(piece);
    if (cut > 0) entity.body->data(piece.substr(0, cut));
    m_heldLineEnd.assign(piece.substr(cut));
}

MimeWalker::Hit MimeWalker::findBoundary(std::string_view text) {
    std::string_view mark = text.substr(2);
    while (!mark.empty() && std::isspace(static_cast<unsigned char>(mark.back()))) mark.remove_suffix(1);
    for (std::size_t level = m_stack.size(); level-- > 0;) {
        auto& entity = m_stack[level];
        if (entity.inHead || !entity.head.multipart) continue;
        // A multipart that does not name its boundary: readers take the first line that looks like one.
        if (entity.head.boundaries.empty() && !mark.empty()) entity.head.boundaries.emplace_back(mark);
        for (auto const& boundary : entity.head.boundaries) {
            if (strncasecmp(mark.data(), boundary.data(), std::min(mark.size(), boundary.size())) != 0) continue;
            if (mark.substr(0, boundary.size()) != boundary) {
                m_doubtful |= mark.size() >= boundary.size();
                continue;
            }
            auto const rest = mark.substr(boundary.size());
            if (rest.empty() || rest == "--") return {level, !rest.empty(), true};
            m_doubtful = true;
        }
    }
    return {0, false, false};
}

void MimeWalker::boundary(Hit const& hit, std::uint64_t offset, std::uint64_t after) {
    std::uint64_t const end = offset - m_heldLineEnd.size();
    m_heldLineEnd.clear();
    closeTo(hit.level + 1, end);
    if (m_stopped) return;
    m_stack[hit.level].closed |= hit.last;
    if (!hit.last) push(after, false);
}

void MimeWalker::push(std::uint64_t offset, bool message) {
    m_stack.emplace_back();
    m_stack.back().headBegin = offset;
    m_stack.back().message = message;
}

void MimeWalker::closeTo(std::size_t level, std::uint64_t bodyEnd) {
    while (m_stack.size() > level && !m_stopped) {
        if (m_stack.back().inHead && !m_stack.back().headText.empty()) {
            m_doubtful |= !m_stack.back().message;
            endHead(bodyEnd);
            continue;
        }
        auto& entity = m_stack.back();
        m_doubtful |= entity.head.multipart && !entity.closed;
        if (entity.body) entity.body->end();
        if (entity.component && m_outermost) {
            entity.component->range().bodyEnd = bodyEnd;
            entity.component->range().known = true;
        }
        m_stack.pop_back();
    }
}

void MimeWalker::stop() {
    m_stopped = true;
    m_stack.clear();
}

void MimeWalker::finish() {
    if (m_stopped) return;
    if (!m_pending.empty()) {
        std::string last;
        last.swap(m_pending);
        line(last, m_offset - last.size());
    }
    if (m_stopped) return;
    if (!m_heldLineEnd.empty() && m_stack.back().body) m_stack.back().body->data(m_heldLineEnd);
    m_heldLineEnd.clear();
    closeTo(0, m_offset);
}

}  // namespace policyloader
