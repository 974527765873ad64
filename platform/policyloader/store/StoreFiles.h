// StoreFiles: the files that make up the policy store, in the order in which later ones win.
// Owner: the policy loader. Threads: one at a time; the loader sees to it. Failure: eFabric::XmlError.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <policyloader/store/StoreSnapshot.h>

namespace policyloader {

class StoreFiles {
public:
    explicit StoreFiles(std::vector<std::string> paths);  // an empty path is no file

    std::unique_ptr<StoreSnapshot const> load();  // a missing file is an empty one

    // True once after each change that can be seen from outside (time, size, place on disk), since load() or the last
    // call.
    bool haveChanged();
    // What a change means: null when the contents are what they were. A file that was there and is gone is an error, as
    // it would silently take the settings to their defaults.
    std::unique_ptr<StoreSnapshot const> reload();

private:
    struct Stamp {
        bool exists = false;
        ::dev_t device = 0;
        ::ino_t inode = 0;
        ::off_t size = 0;
        std::time_t seconds = 0;
        long nanoseconds = 0;
        friend bool operator==(Stamp const& a, Stamp const& b) {
            return a.exists == b.exists && a.device == b.device && a.inode == b.inode && a.size == b.size &&
                   a.seconds == b.seconds && a.nanoseconds == b.nanoseconds;
        }
    };
    using Contents = std::vector<std::optional<std::string>>;  // nothing: no such file
    using Digest = std::vector<std::optional<std::size_t>>;

    static Stamp StampOf(std::string const& path);
    static Digest DigestOf(Contents const& contents);
    std::vector<Stamp> look() const;
    Contents read() const;
    void forbidLoss(Contents const& contents) const;
    std::unique_ptr<StoreSnapshot const> build(Contents contents);

    std::vector<std::string> const m_paths;
    std::vector<Stamp> m_stamps;  // as last looked at
    Digest m_digest;              // of what the last good snapshot was made of
};

}  // namespace policyloader
