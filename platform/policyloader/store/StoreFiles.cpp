#include <policyloader/store/StoreFiles.h>

#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <utility>

#include <eFabric/XmlFile.h>
#include <policyloader/store/StoreModel.h>

namespace policyloader {
namespace {

using eFabric::XmlError;
using eFabric::XmlFile;

constexpr int Attempts = 3;
// Seconds. The coarsest time stamps in use count by two.
constexpr std::time_t SettlingTime = 3;

}  // namespace

StoreFiles::StoreFiles(std::vector<std::string> paths, std::shared_ptr<StorePool> pool)
    : m_paths(std::move(paths)), m_pool(std::move(pool)) {}

StoreFiles::~StoreFiles() = default;

StoreFiles::Stamp StoreFiles::StampOf(std::string const& path) {
    struct stat status {};
    if (path.empty() || ::stat(path.c_str(), &status) != 0) return Stamp{};
    return Stamp{true, status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

StoreFiles::Content StoreFiles::ContentOf(std::string const& path) {
    using Kind = Content::Kind;
    if (path.empty()) return Content{};
    try {
        auto bytes = XmlFile::Read(path);
        return bytes ? Content{Kind::Present, std::move(*bytes)} : Content{};
    } catch (XmlError const& error) {
        return Content{Kind::Unreadable, error.reason()};
    }
}

StoreFiles::Marks StoreFiles::MarksOf(Contents const& contents) {
    Marks marks;
    for (auto const& content : contents) marks.push_back(Mark{content.kind, std::hash<std::string>{}(content.text)});
    return marks;
}

// Times of files go in steps. One that changed just now may change again without a trace.
bool StoreFiles::Settled(Stamps const& stamps) {
    auto const now = std::time(nullptr);
    return std::all_of(stamps.begin(), stamps.end(),
                       [&](Stamp const& stamp) { return !stamp.exists || stamp.changed.tv_sec < now - SettlingTime; });
}

StoreFiles::Stamps StoreFiles::look() const {
    Stamps stamps;
    for (auto const& path : m_paths) stamps.push_back(StampOf(path));
    return stamps;
}

StoreFiles::Contents StoreFiles::read() const {
    Contents contents;
    for (auto const& path : m_paths) contents.push_back(ContentOf(path));
    return contents;
}

// No file changed from before the first was read until after the last was: all of them stood so at one moment.
std::optional<StoreFiles::Contents> StoreFiles::readTogether() {
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        auto before = look();
        auto contents = read();
        if (look() != before) continue;
        m_settled = Settled(before);
        m_stamps = std::move(before);
        return contents;
    }
    m_stamps.reset();
    return std::nullopt;
}

StoreSnapshot const& StoreFiles::load() {
    auto contents = readTogether();
    return build(contents ? std::move(*contents) : read());
}

bool StoreFiles::haveChanged() const {
    if (m_paths.empty()) return false;
    return !m_settled || !m_stamps || look() != *m_stamps;
}

StoreSnapshot const* StoreFiles::reload() {
    auto contents = readTogether();
    if (!contents) return nullptr;
    auto marks = MarksOf(*contents);
    if (marks == m_wrong) return nullptr;
    m_wrong.clear();
    if (marks == m_good) return nullptr;
    m_wrong = std::move(marks);
    forbidLoss(*contents);
    auto const& fresh = build(std::move(*contents));
    m_wrong.clear();
    return &fresh;
}

void StoreFiles::forbidLoss(Contents const& contents) const {
    for (std::size_t i = 0; i < m_good.size(); ++i)
        if (m_good[i].kind != Content::Kind::Missing && contents[i].kind == Content::Kind::Missing)
            throw XmlError({m_paths[i], 0, 0}, "is gone; what it said stays in force until it is back");
}

void StoreFiles::require(Contents const& contents) const {
    for (std::size_t i = 0; i < contents.size(); ++i)
        if (contents[i].kind == Content::Kind::Unreadable) throw XmlError({m_paths[i], 0, 0}, contents[i].text);
}

StoreSnapshot const& StoreFiles::build(Contents contents) {
    require(contents);
    auto marks = MarksOf(contents);
    auto model = std::make_unique<StoreModel>(m_pool);
    for (std::size_t i = 0; i < contents.size(); ++i)
        if (contents[i].kind == Content::Kind::Present)
            model->add(XmlFile(m_paths[i], std::move(contents[i].text), "rules"));
    m_newest = std::make_unique<StoreSnapshot const>(std::move(model));
    m_good = std::move(marks);
    return *m_newest;
}

}  // namespace policyloader
