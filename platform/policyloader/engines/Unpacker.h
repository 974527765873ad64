// Unpacker: watches one content stream by, keeps a copy of it as soon as it may be an archive, and takes that to pieces
// when the content has ended. Archives within archives are their entries' affair.
// Owner: one content of one scan, its thread.  Units: bytes; a copy beyond 256 KiB goes to a file without a name.
// Failure: EngineFailure when a copy cannot be kept or read. What an archive itself lacks is told to the sink.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <policyloader/engines/ArchiveKind.h>
#include <policyloader/engines/ArchiveReader.h>
#include <policyloader/engines/Component.h>
#include <policyloader/engines/Engine.h>
#include <policyloader/engines/TempObject.h>

namespace policyloader {

class EntityBody;

class UnpackSink {
public:
    // An entry begins. Null: a limit is reached, the walk is over.
    virtual Component* entry(std::string const& name, Component& archive, unsigned depth) = 0;
    virtual std::unique_ptr<EntityBody> entryBody(Component& entry, unsigned depth) = 0;
    // Before so many bytes come, or so many entries: false and over, when that is beyond a limit.
    virtual bool expect(std::uint64_t bytes) = 0;
    virtual bool expectEntries(std::uint64_t entries) = 0;
    virtual void unpacked(std::uint64_t bytes) = 0;
    virtual void unreadable(Component& archive, Unreadable why, std::string const& text) = 0;
    virtual bool isOver() const = 0;

protected:
    ~UnpackSink() = default;
};

class Unpacker {
public:
    enum class Watch { Everywhere, AtStart };  // an archive may also stand behind something else
    Unpacker(UnpackSink& sink, Component& component, unsigned depth, Watch watch);
    ~Unpacker();
    void feed(std::string_view piece);
    void finish();

private:
    void decide();
    void search(std::string_view piece);
    void keep(std::string_view piece);
    enum class Telling { Always, IfAny, Never };  // of what cannot be read: in any case, behind what could be, not
    void takeStart();
    void takeZip();
    void takeEmbedded(Telling telling);
    void findMarks();
    void findMark(std::size_t mark, std::string_view text, std::uint64_t begin);
    bool isSevenZip(std::string_view text, std::uint64_t begin) const;
    bool tooManyEntries();
    std::size_t walk(ArchiveReader& reader, Telling telling);
    void tell(ArchiveReader const& reader, bool encrypted, bool broken);
    bool takeEntry(ArchiveReader& reader, ArchiveReader::Entry const& entry);
    std::string stem() const;

    UnpackSink& m_sink;
    Component& m_component;
    unsigned m_depth;
    Watch m_watch;
    bool m_decided = false;
    std::string m_head;  // until the kind is known; then what may be the beginning of a mark
    ArchiveSign m_sign;
    MarkCount m_zipsWithin{kZipMark};  // entries of archives that stand in this one as they are
    bool m_doubtful = false;           // an entry is more than the library shows of it
    std::array<std::optional<std::uint64_t>, std::size(kArchiveMarks)> m_marks;  // in the copy
    std::unique_ptr<TempObject> m_copy;                                          // null: nothing is kept
};

}  // namespace policyloader
