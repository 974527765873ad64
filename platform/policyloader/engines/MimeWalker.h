// MimeWalker: takes a message to pieces while it streams by: one pass, no tree, no recursion; the memory is that of
// one header block for each open level.  Owner: one scan (or a body that holds an encoded message), its thread.
// Units: bytes from the start of what the walker is fed.
// Failure: none; broken structure is walked as far as it goes, and `doubtful` tells of it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <policyloader/engines/Component.h>
#include <policyloader/engines/EntityHead.h>

namespace policyloader {

// Takes the content of one entity, still in its transfer encoding.
class EntityBody {
public:
    virtual ~EntityBody() = default;
    virtual void data(std::string_view piece) = 0;
    virtual void end() = 0;
};

class EntitySink {
public:
    // A header block has ended. Null: a limit is reached, the walk is over.
    virtual Component* entity(EntityHead const& head, Component* parent, unsigned depth) = 0;
    // Its content begins.
    virtual std::unique_ptr<EntityBody> body(EntityHead const& head, Component& component, unsigned depth) = 0;
    // A header block is longer than what is looked at; the walk is over.
    virtual void headTooLong() = 0;

protected:
    ~EntitySink() = default;
};

class MimeWalker {
public:
    // `outermost`: what is fed is the object itself, so that components get their ranges.
    MimeWalker(EntitySink& sink, Component* parent, unsigned depth, bool outermost);
    ~MimeWalker();
    void feed(std::string_view block);
    void finish();
    bool doubtful() const { return m_doubtful; }

private:
    struct Entity;
    struct Hit {
        std::size_t level;  // of the entity whose boundary it is
        bool last;
        bool found;
    };

    std::size_t resume(std::string_view block);
    void feedLines(std::string_view block, std::size_t at);
    void tail(std::string_view text);
    void line(std::string_view text, std::uint64_t offset);
    void headLine(std::string_view text, std::uint64_t offset);
    void endHead(std::uint64_t bodyBegin);
    void content(std::string_view piece);
    Hit findBoundary(std::string_view text);
    void boundary(Hit const& hit, std::uint64_t offset, std::uint64_t after);
    void push(std::uint64_t offset, bool message);
    void closeTo(std::size_t level, std::uint64_t bodyEnd);
    void stop();

    EntitySink& m_sink;
    Component* m_parent;
    unsigned m_depth;
    bool m_outermost;
    std::vector<Entity> m_stack;  // outermost first
    std::string m_pending;        // the begun line, while it may still be a boundary or belongs to a header
    std::string m_heldLineEnd;    // goes to the content unless a boundary follows
    std::uint64_t m_offset = 0;   // of what is fed next
    bool m_inLine = false;        // the line's beginning has been passed on as content
    bool m_doubtful = false;
    bool m_stopped = false;
};

}  // namespace policyloader
