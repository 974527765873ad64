// StoreFiles: the files that make up the policy store, in the order in which later ones win, and the newest state that
// they gave. What is read is what stood on disk at one moment: files that change while they are read are read again,
// and left for the next look when they go on changing.
// Owner: the policy loader. Threads: one at a time; the loader sees to it. Failure: eFabric::XmlError; the newest state
// is then the one before.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <policyloader/store/StoreSnapshot.h>

namespace policyloader {

struct StorePool;

class StoreFiles {
public:
    StoreFiles(std::vector<std::string> paths, std::shared_ptr<StorePool> pool);  // an empty path is no file
    ~StoreFiles();

    StoreSnapshot const& load();  // a missing file is an empty one

    // Whether what can be seen from outside (time, size, place on disk) is not as it was when they were last read, or
    // was too fresh then to tell a later change.
    bool haveChanged() const;
    // What a change means: null when the contents are what they were, when they are known to be wrong, and while they
    // are being written. A file that was there and is gone is an error, as it would silently take the settings to their
    // defaults. Throws once for each wrong content.
    StoreSnapshot const* reload();

    StoreSnapshot const* newest() const { return m_newest.get(); }  // null: none yet
    std::shared_ptr<StorePool> const& pool() const { return m_pool; }

private:
    struct Stamp {
        bool exists = false;
        ::dev_t device = 0;
        ::ino_t inode = 0;
        ::off_t size = 0;
        ::timespec modified{};
        ::timespec changed{};  // the kernel's own: a program cannot set it back
        friend bool operator==(Stamp const& a, Stamp const& b) {
            auto const same = [](::timespec const& x, ::timespec const& y) {
                return x.tv_sec == y.tv_sec && x.tv_nsec == y.tv_nsec;
            };
            return a.exists == b.exists && a.device == b.device && a.inode == b.inode && a.size == b.size &&
                   same(a.modified, b.modified) && same(a.changed, b.changed);
        }
    };
    using Stamps = std::vector<Stamp>;

    struct Content {
        enum class Kind { Missing, Present, Unreadable };
        Kind kind = Kind::Missing;
        std::string text;  // the bytes, or why there are none
    };
    using Contents = std::vector<Content>;

    struct Mark {
        Content::Kind kind;
        std::size_t digest;
        friend bool operator==(Mark const& a, Mark const& b) { return a.kind == b.kind && a.digest == b.digest; }
    };
    using Marks = std::vector<Mark>;

    static Stamp StampOf(std::string const& path);
    static Content ContentOf(std::string const& path);
    static Marks MarksOf(Contents const& contents);
    static bool Settled(Stamps const& stamps);
    Stamps look() const;
    Contents read() const;
    std::optional<Contents> readTogether();
    void forbidLoss(Contents const& contents) const;
    void require(Contents const& contents) const;
    StoreSnapshot const& build(Contents contents);

    std::vector<std::string> const m_paths;
    std::shared_ptr<StorePool> const m_pool;
    std::unique_ptr<StoreSnapshot const> m_newest;
    std::optional<Stamps> m_stamps;  // as last read; nothing: they changed meanwhile
    bool m_settled = true;           // the stamps were old enough to show every later change
    Marks m_good;                    // of what the newest state was made of
    Marks m_wrong;                   // of what was last refused
};

}  // namespace policyloader
