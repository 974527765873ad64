#include <policyloader/store/StoreFiles.h>

#include <sys/stat.h>

#include <functional>
#include <utility>

#include <eFabric/XmlFile.h>
#include <policyloader/store/StoreModel.h>

namespace policyloader {

using eFabric::XmlFile;

StoreFiles::StoreFiles(std::vector<std::string> paths) : m_paths(std::move(paths)), m_digest(m_paths.size()) {}

StoreFiles::Stamp StoreFiles::StampOf(std::string const& path) {
    struct stat status {};
    if (path.empty() || ::stat(path.c_str(), &status) != 0) return Stamp{};
    return Stamp{true, status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

StoreFiles::Digest StoreFiles::DigestOf(Contents const& contents) {
    Digest digest;
    for (auto const& bytes : contents)
        digest.push_back(bytes ? std::optional(std::hash<std::string>{}(*bytes)) : std::nullopt);
    return digest;
}

std::vector<StoreFiles::Stamp> StoreFiles::look() const {
    std::vector<Stamp> stamps;
    for (auto const& path : m_paths) stamps.push_back(StampOf(path));
    return stamps;
}

StoreFiles::Contents StoreFiles::read() const {
    Contents contents;
    for (auto const& path : m_paths) contents.push_back(path.empty() ? std::nullopt : XmlFile::Read(path));
    return contents;
}

std::unique_ptr<StoreSnapshot const> StoreFiles::build(Contents contents) {
    auto digest = DigestOf(contents);
    auto model = std::make_unique<StoreModel>();
    for (std::size_t i = 0; i < contents.size(); ++i)
        if (contents[i]) model->add(XmlFile(m_paths[i], std::move(*contents[i]), "rules"));
    auto snapshot = std::make_unique<StoreSnapshot const>(std::move(model));
    m_digest = std::move(digest);
    return snapshot;
}

// The stamps are taken before the files are read, so that what changes meanwhile is seen at the next look.
std::unique_ptr<StoreSnapshot const> StoreFiles::load() {
    m_stamps = look();
    return build(read());
}

bool StoreFiles::haveChanged() {
    auto now = look();
    bool const changed = now != m_stamps;
    m_stamps = std::move(now);
    return changed;
}

std::unique_ptr<StoreSnapshot const> StoreFiles::reload() {
    auto contents = read();
    if (DigestOf(contents) == m_digest) return nullptr;
    forbidLoss(contents);
    return build(std::move(contents));
}

void StoreFiles::forbidLoss(Contents const& contents) const {
    for (std::size_t i = 0; i < contents.size(); ++i)
        if (m_digest[i] && !contents[i])
            throw eFabric::XmlError({m_paths[i], 0, 0}, "is gone; what it said stays in force until it is back");
}

}  // namespace policyloader
