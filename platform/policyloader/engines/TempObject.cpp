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

void TempObject::readAll(std::function<void(std::string_view)> const& take) {
    if (isInMemory()) return take(m_memory);
    std::vector<char> block(kBlockBytes);
    off_t at = 0;
    for (;;) {
        ssize_t const got = ::pread(m_file, block.data(), block.size(), at);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw EngineFailure(FailureId::Read, "temporary file: " + std::string(std::strerror(errno)));
        if (got == 0) return;
        take(std::string_view(block.data(), static_cast<std::size_t>(got)));
        at += got;
    }
}

}  // namespace policyloader
