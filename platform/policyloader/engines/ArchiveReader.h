// ArchiveReader: one archive, entry by entry, from first to last.  The bytes of an entry come in pieces; nothing is
// ever written to a place that an archive names.
// Owner: the unpacking of one object, its thread.  Units: bytes.
// Failure: EngineFailure when the object itself cannot be read, std::bad_alloc; a broken archive ends early and
// `state` and `problem` say so.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <policyloader/engines/ArchiveKind.h>
#include <policyloader/engines/LzmaReader.h>

struct archive;
struct archive_entry;

namespace policyloader {

class TempObject;

class ArchiveReader {
public:
    struct Entry {
        std::string name;  // fit to be shown; empty: none
        bool encrypted = false;
        bool doubtful = false;              // no file, and yet it has a content that some readers make one of
        std::string target;                 // of a link
        bool stored = false;                // its bytes stand in the archive as they are; told of zip alone
        std::optional<std::uint64_t> size;  // as the archive declares it
    };
    enum class State { Good, Broken, Encrypted, TooLarge };  // the last: reading it takes too much memory

    // For zip, which has its entries twice: as they stand, and in a directory at its end.
    enum class Order { Usual, ByDirectory, AsItStands };

    // The archive begins at `begin` and lasts to the end.
    ArchiveReader(TempObject const& from, std::uint64_t begin, ArchiveKind kind, Order order);
    ~ArchiveReader();
    ArchiveReader(ArchiveReader const&) = delete;
    ArchiveReader& operator=(ArchiveReader const&) = delete;

    // How many entries a list of them speaks of, where the reader allocates for all before it shows the first one.
    std::uint64_t announced() const { return m_announced; }
    bool next(Entry& entry);  // false: there is no other, or none that can be read
    std::string_view read();  // of the entry; empty: at its end, or where it breaks; valid until the next call
    State state() const { return m_state; }
    std::string const& problem() const { return m_problem; }

private:
    struct Source;
    struct Closer {
        void operator()(archive* opened) const;
    };
    void open(ArchiveKind kind, Order order);
    void checkList();
    void checkLayers();
    bool check(int status);
    void fail();
    void give(State state, char const* problem);
    bool nextOfLzma(Entry& entry);
    std::string_view readLzma();

    std::unique_ptr<Source> m_source;
    std::unique_ptr<archive, Closer> m_archive;
    std::unique_ptr<LzmaReader> m_lzma;  // null: the library reads
    std::vector<char> m_piece;
    std::size_t m_ready = 0;  // bytes of the piece that are read before they are asked for
    std::uint64_t m_announced = 0;
    State m_state = State::Good;
    std::string m_problem;
    bool m_isOpen = false;  // as an archive of its kind
    bool m_over = false;
};

// A name from an archive as it may be shown, compared and stored: UTF-8, relative, without steps upward, without
// control characters, and short. The end of a long name stays, as it tells the kind.
std::string SafeEntryName(std::string_view name);  // itself where it is safe and short

}  // namespace policyloader
