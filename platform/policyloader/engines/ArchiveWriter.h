// ArchiveWriter: archives for tests, made in memory.
// Owner: a test, one thread.  Units: bytes.  Failure: a test failure, and what was made so far.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <archive.h>
#include <archive_entry.h>

namespace policyloader {

using Files = std::vector<std::pair<std::string, std::string>>;  // name, content

class ArchiveWriter {
public:
    // Names as the library has them: "zip", "7zip", "gnutar", "cpio", "raw"; "none", "gzip", "xz".
    explicit ArchiveWriter(char const* format, char const* filter = "none", char const* options = nullptr,
                           char const* password = nullptr)
        : m_archive(archive_write_new()) {
        check(archive_write_set_format_by_name(m_archive, format));
        if (std::string(filter) != "none") check(archive_write_add_filter_by_name(m_archive, filter));
        archive_write_set_bytes_in_last_block(m_archive, 1);
        if (password) check(archive_write_set_passphrase(m_archive, password));
        if (options) check(archive_write_set_options(m_archive, options));
        check(archive_write_open(m_archive, this, nullptr, &ArchiveWriter::write, nullptr));
    }
    ~ArchiveWriter() { archive_write_free(m_archive); }
    ArchiveWriter(ArchiveWriter const&) = delete;
    ArchiveWriter& operator=(ArchiveWriter const&) = delete;

    // `times`: the content as often.
    void add(std::string const& name, std::string const& content, std::size_t times = 1) {
        auto* const entry = archive_entry_new();
        archive_entry_set_pathname(entry, name.c_str());
        archive_entry_set_size(entry, static_cast<la_int64_t>(content.size() * times));
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, 0644);
        check(archive_write_header(m_archive, entry));
        for (; times > 0; --times)
            EXPECT_EQ(archive_write_data(m_archive, content.data(), content.size()),
                      static_cast<la_ssize_t>(content.size()));
        archive_entry_free(entry);
    }
    void link(std::string const& name, std::string const& target) {
        auto* const entry = archive_entry_new();
        archive_entry_set_pathname(entry, name.c_str());
        archive_entry_set_filetype(entry, AE_IFLNK);
        archive_entry_set_symlink(entry, target.c_str());
        archive_entry_set_perm(entry, 0777);
        check(archive_write_header(m_archive, entry));
        archive_entry_free(entry);
    }
    std::string finish() {
        check(archive_write_close(m_archive));
        return m_out;
    }

private:
    static la_ssize_t write(archive*, void* self, void const* from, std::size_t count) {
        static_cast<ArchiveWriter*>(self)->m_out.append(static_cast<char const*>(from), count);
        return static_cast<la_ssize_t>(count);
    }
    void check(int status) { EXPECT_EQ(status, ARCHIVE_OK) << archive_error_string(m_archive); }

    archive* m_archive;
    std::string m_out;
};

inline std::string MakeArchive(char const* format, Files const& files, char const* filter = "none",
                               char const* options = nullptr, char const* password = nullptr) {
    ArchiveWriter writer(format, filter, options, password);
    for (auto const& [name, content] : files) writer.add(name, content);
    return writer.finish();
}

inline std::string Compressed(char const* filter, std::string const& content) {
    return MakeArchive("raw", {{"data", content}}, filter);
}

}  // namespace policyloader
