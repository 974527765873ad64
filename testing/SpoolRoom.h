// SpoolRoom: a spool directory of a test's own, and a pool of memory buffers of a size that the test knows.
// Owner: the test or its fixture; streams go before it. Thread: one. Units: bytes. Failure: std::runtime_error.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <testing/TempRoot.h>
#include <velt/streams/ScannerStream.h>

namespace velt_testing {

class SpoolRoom {
public:
    explicit SpoolRoom(unsigned memory = 16) { Use(memory); }

    void Use(unsigned memory) {  // for the streams made from now on
        std::string directory = m_root / "spool";
        VELT::ScannerStream::set_buffer_pool(0, memory);
        VELT::ScannerStream::set_spool_dir(directory);
    }

    std::string operator/(std::string_view name) const { return m_root / name; }
    std::string Spool(std::string_view name) const { return m_root / ("spool/" + std::string(name)); }
    std::string Read(std::string_view name) const { return m_root.Read(name); }
    void Write(std::string_view name, std::string_view content) const { m_root.Write(name, content); }
    bool Exists(std::string_view name) const { return m_root.Exists(name); }

    std::vector<std::string> Spooled() const {  // the files in the spool directory
        std::vector<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(m_root / "spool"))
            if (entry.is_regular_file()) names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    TempRoot m_root;
};

inline long Put(VELT::ScannerStream& stream, std::string_view text) {
    return stream.write(text.data(), static_cast<unsigned>(text.size()));
}

// All that the raw read gives from the cursor on.
inline std::string ReadRest(VELT::ScannerStream& stream) {
    std::string text;
    char block[512];
    for (long count; (count = stream.read(block, sizeof block)) > 0;) text.append(block, static_cast<size_t>(count));
    return text;
}

inline std::string ReadAll(VELT::ScannerStream& stream) {
    stream.seek(0, 0);
    return ReadRest(stream);
}

struct SpoolLine {
    VELT::LINE_STATE_T state;
    int length;
    std::string text;
};

inline SpoolLine NextLine(VELT::ScannerStream& stream, bool strip_cr = true) {
    char* text = nullptr;
    bool io_done = false;
    VELT::LINE_STATE_T state;
    int const length = stream.getline(text, true, io_done, state, strip_cr);
    return {state, length, text && length > 0 ? std::string(text, static_cast<size_t>(length)) : ""};
}

// The whole lines from where the buffered layer stands.
inline std::vector<std::string> RestOfLines(VELT::ScannerStream& stream) {
    std::vector<std::string> lines;
    for (;;) {
        SpoolLine line = NextLine(stream);
        if (line.state != VELT::LINE_COMPLETE) return lines;
        lines.push_back(std::move(line.text));
    }
}

// All that the buffered layer still hands out as blocks.
inline std::string RestOfBlocks(VELT::ScannerStream& stream) {
    std::string text;
    for (;;) {
        char* data = nullptr;
        bool io_done = false;
        int const count = stream.readdata(data, 0x7FFFFFFF, true, io_done);
        if (count <= 0) return text;
        text.append(data, static_cast<size_t>(count));
    }
}

}  // namespace velt_testing
