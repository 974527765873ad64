// A spool stream, in memory and on disk, against a string that holds the same object.
#include <algorithm>
#include <memory>
#include <string>

#include "fuzz/Input.h"
#include "testing/ScriptedStream.h"
#include "testing/SpoolRoom.h"

using velt_fuzz::Require;

namespace {

constexpr unsigned kPoolMemory = 64;
constexpr unsigned kMaxPlace = 200;

// The stream and its model take each step together.
class Pair {
public:
    Pair(velt_testing::SpoolRoom const& room, unsigned kind) : m_copy(room / "copy") {
        if (kind < 128)
            m_stream = std::make_unique<VELT::ScannerStream>("fuzz", kind % 2 == 0);
        else
            m_stream = std::make_unique<VELT::ScannerStream>(m_ownMemory = kind - 128);
    }

    void Step(velt_fuzz::Input& input) {
        unsigned const step = input.Byte() % 10;
        unsigned const place = input.Byte() % kMaxPlace;
        unsigned const amount = input.Byte();
        switch (step) {
            case 0:
                return Write(place, input.Text(amount));
            case 1:
                return Write(static_cast<unsigned>(m_model.size()), input.Text(amount));
            case 2:
                return Read(place, amount);
            case 3:
                return Resize(place);
            case 4:
                return Lines(place);
            case 5:
                return Trickle(place, amount);
            case 6:
                return Save();
            case 7:
                return Send();
            case 8:
                return LookAtALine(place);
            default:
                return Take(input.Text(amount));
        }
    }
    void CheckSize() const { Require(m_stream->size() == m_model.size(), "the same size"); }

private:
    std::string From(unsigned place) const { return place < m_model.size() ? m_model.substr(place) : ""; }
    void Seek(unsigned place) { Require(m_stream->seek(place, 0) == static_cast<long>(place), "the place sought"); }

    void Write(unsigned place, std::string const& text) {
        Seek(place);
        Require(velt_testing::Put(*m_stream, text) == static_cast<long>(text.size()), "a whole write");
        if (text.empty()) return;
        m_model.resize(std::max<std::size_t>(m_model.size(), place + text.size()));
        m_model.replace(place, text.size(), text);
    }
    void Read(unsigned place, unsigned amount) {
        Seek(place);
        std::string data(amount, '\0');
        data.resize(static_cast<std::size_t>(m_stream->read(data.data(), static_cast<unsigned long>(amount))));
        Require(data == From(place).substr(0, amount), "the same bytes");
    }
    void Resize(unsigned size) {
        Require(m_stream->setsize(size), "another size");
        m_model.resize(size);
    }
    // Lines come through the memory, which needs a byte for them and one for the NUL.
    void Lines(unsigned place) {
        if (m_ownMemory < 2) return;
        Seek(place);
        std::string joined;
        for (;;) {
            velt_testing::SpoolLine const line = velt_testing::NextLine(*m_stream, false);
            joined += line.text;
            if (line.state == VELT::LINE_CLOSED) break;
            if (line.state == VELT::LINE_COMPLETE) joined += '\n';
        }
        Require(joined + velt_testing::RestOfBlocks(*m_stream) == From(place), "the same lines");
    }
    void Trickle(unsigned place, unsigned amount) {
        if (place >= m_model.size()) return;
        long const where = m_stream->trickle_seekto(static_cast<int>(place));
        std::string data(amount, '\0');
        unsigned got = 0;
        Require(where == static_cast<long>(place) && m_stream->trickle_read(data.data(), amount, &got) == 0,
                "a trickle");
        Require(data.substr(0, got) == From(place).substr(0, amount), "the same trickle");
    }
    void Save() {
        Require(m_stream->spool_to_disk(m_copy.c_str()) == 0, "a copy");
        VELT::ScannerStream copy(4096);
        Require(copy.spool_from_disk(m_copy.c_str()) == 0, "the copy back");
        Require(velt_testing::ReadAll(copy) == m_model, "the same copy");
    }
    void Send() {
        velt_testing::ScriptedStream peer({});
        Require(m_stream->spool_to_stream(&peer) == 0, "a transfer");
        Require(peer.written() == m_model, "the same transfer");
    }
    void LookAtALine(unsigned place) {
        Seek(place);
        velt_testing::NextLine(*m_stream);  // its NUL stands in the buffer when the next step comes
    }
    void Take(std::string const& text) {
        velt_testing::ScriptedStream peer({text});
        Seek(static_cast<unsigned>(m_model.size()));
        unsigned const count = static_cast<unsigned>(text.size());
        Require(text.empty() || m_stream->spool_from_stream(&peer, count) == 0, "a whole object");
        m_model += text;
    }

    std::unique_ptr<VELT::ScannerStream> m_stream;
    std::string m_model;
    std::string m_copy;
    unsigned m_ownMemory = kPoolMemory;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static velt_testing::SpoolRoom const room(kPoolMemory);
    velt_fuzz::Input input(data, size);
    Pair pair(room, input.Byte());
    for (int steps = 0; steps < 200 && !input.empty(); ++steps) {
        pair.Step(input);
        pair.CheckSize();
    }
    return 0;
}
