#include <policyloader/engines/TempObject.h>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/TransportIO.h>

namespace policyloader {

TempObject::~TempObject() {
    if (m_file >= 0) ::close(m_file);
}

void TempObject::append(std::string_view text) {
    if (isInMemory() && m_memory.size() + text.size() > m_memoryBytes) toFile();
    isInMemory() ? void(m_memory.append(text)) : writeFile(text);
    m_size += text.size();
}

void TempObject::toFile() {
    char const* const folder = ::secure_getenv("TMPDIR");
    std::string path = std::string(folder && *folder ? folder : "/tmp") + "/objectXXXXXX";
    m_file = ::mkostemp(path.data(), O_CLOEXEC);
    if (m_file < 0) throw EngineFailure(FailureId::Write, "temporary file: " + std::string(std::strerror(errno)));
    ::unlink(path.c_str());
    writeFile(m_memory);
    m_memory = std::string();
}

void TempObject::writeFile(std::string_view text) {
    while (!text.empty()) {
        ssize_t const done = ::write(m_file, text.data(), text.size());
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) throw EngineFailure(FailureId::Write, "temporary file: " + std::string(std::strerror(errno)));
        text.remove_prefix(static_cast<std::size_t>(done));
    }
}

std::size_t TempObject::readAt(std::uint64_t at, char* to, std::size_t count) const {
    if (isInMemory()) return at < m_memory.size() ? m_memory.copy(to, count, static_cast<std::size_t>(at)) : 0;
    for (;;) {
        ssize_t const got = ::pread(m_file, to, count, static_cast<off_t>(at));
        if (got >= 0) return static_cast<std::size_t>(got);
        if (errno != EINTR)
            throw EngineFailure(FailureId::Read, "temporary file: " + std::string(std::strerror(errno)));
    }
}

void TempObject::readAll(std::function<void(std::string_view)> const& take) const {
    if (isInMemory()) return take(m_memory);
    std::vector<char> block(kBlockBytes);
    std::uint64_t at = 0;
    while (std::size_t const got = readAt(at, block.data(), block.size())) {
        take(std::string_view(block.data(), got));
        at += got;
    }
}

}  // namespace policyloader
