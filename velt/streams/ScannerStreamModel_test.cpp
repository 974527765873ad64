// Random interleavings of all that a spool stream can do, each step compared with SpoolModel. 100,000 of them with FULL
// set; SEED runs one alone, whose number a failure tells.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <testing/ScriptedStream.h>
#include <testing/SpoolModel.h>
#include <testing/SpoolRoom.h>
#include <velt/streams/BufferPool.h>

using namespace VELT;
using namespace velt_testing;

namespace {

int s_syncs = 0;

}  // namespace

// In place of the system's, for this program: what is asked for counts, the disk need not be waited for.
extern "C" int fsync(int) { return ++s_syncs, 0; }

namespace {

constexpr unsigned kPoolSizes[] = {2, 16, 64, 100};
constexpr int kSteps = 40;

class Interleaving {
public:
    Interleaving(SpoolRoom const& room, unsigned seed, std::vector<BufferPool*> const& pools)
        : m_room(room), m_random(seed), m_model(0, 0) {
        BufferPool* const pool = pools[Below(pools.size())];
        ScannerStream::s_bufferpool = pool;
        unsigned capacity = pool->size();
        if (Below(3) > 0) {
            m_stem = "id";
            m_stream = std::make_unique<ScannerStream>(m_stem, m_outbound = Below(2));
        } else
            m_stream = std::make_unique<ScannerStream>(capacity = Below(2 * pool->size()));
        Note("memory", capacity);
        Note("under a pool of", pool->size());
        m_model = SpoolModel(capacity, pool->size());
    }

    // Empty, or the first step after which the two differed, behind all the steps before it.
    std::string Run() {
        for (int i = 0; i < kSteps && m_difference.empty(); ++i) Step();
        if (m_model.onDisk()) Check(m_room.Read("spool/" + m_file) == m_model.bytes(), "the file");
        m_stream.reset();
        CheckNoFile();
        return m_difference.empty() ? "" : m_steps + "\ndiffer in " + m_difference;
    }

private:
    using Action = void (Interleaving::*)();

    unsigned Below(std::size_t limit) { return limit == 0 ? 0 : static_cast<unsigned>(m_random() % limit); }
    // Mostly small, now and then beyond what memory holds.
    unsigned Amount() { return Below(Below(6) == 0 ? 150 : 12); }
    unsigned Place() { return Below(Below(4) == 0 ? 200 : m_model.size() + 2); }
    std::string Text(unsigned length) {
        std::string text;
        while (text.size() < length) {
            unsigned const kind = Below(16);
            text += kind < 2 ? '\n' : kind < 4 ? '\r' : static_cast<char>('A' + Below(58));
        }
        return text;
    }
    void Note(char const* what, long value) { m_steps += std::string(what) + ' ' + std::to_string(value) + ", "; }
    void Check(bool same, char const* what) {
        if (!same && m_difference.empty()) m_difference = what;
    }

    void Step();
    void CheckAll(bool wasOnDisk) {
        if (m_model.onDisk() && !wasOnDisk) m_file = m_stem + (m_outbound ? ".out" : ".in");
        Check(m_stream->size() == m_model.size(), "the size");
        Check(m_stream->get_spool_file() == (m_model.onDisk() ? m_room.Spool(m_file) : ""), "the spool file's name");
        m_syncs += m_model.trickleOpen() && !m_wasTrickling ? 1 : 0;
        m_wasTrickling = m_model.trickleOpen();
        Check(s_syncs == m_syncs, "a sync before the trickle reads the file");
    }

    void CheckNoFile() { Check(m_file.empty() || !m_room.Exists("spool/" + m_file), "no file left"); }

    void Write() {
        std::string const text = Text(Amount());
        Note("write", static_cast<long>(text.size()));
        Check(Put(*m_stream, text) == static_cast<long>(text.size()), "the count written");
        m_model.Write(text);
    }
    void WriteVector() {
        std::vector<std::string> texts(Below(4));
        std::vector<unsigned> lengths;
        std::vector<char const*> buffers;
        unsigned total = 7, expected = total;  // it adds to what stands there
        for (std::string& text : texts) {
            text = Text(Amount() / 2);
            Note("writev", static_cast<long>(text.size()));
            lengths.push_back(static_cast<unsigned>(text.size()));
            buffers.push_back(text.data());
            expected += lengths.back();
        }
        int const result =
            m_stream->writev(static_cast<unsigned>(texts.size()), lengths.data(), buffers.data(), &total);
        Check(result == 0 && total == expected, "the count of a vectored write");
        m_model.WriteVector(texts);
    }
    void Read() {
        unsigned const amount = Amount();
        Note("read", amount);
        std::string text(amount, '\0');
        unsigned got = 0;
        Check(m_stream->read(text.data(), amount, &got) == 0 && got <= amount, "a read");
        Check(text.substr(0, got) == m_model.Read(amount), "the bytes read");
    }
    void Seek() {
        unsigned const place = Place();
        Note("seek", place);
        Check(m_stream->seek(place, 0) == static_cast<long>(m_model.Seek(place)), "the place sought");
    }
    void SeekBy() {
        unsigned const offset = Below(5);
        Note("seek by", offset);
        Check(m_stream->seek(offset, 1) == static_cast<long>(m_model.SeekBy(offset)), "the place sought from here");
    }
    void SeekNowhere() {
        Note("seek from the end", 0);
        Check(m_stream->seek(0, 2) == -1, "the refusal of an unknown kind of seek");
    }
    void Resize() {
        unsigned const size = Place();
        Note("setsize", size);
        Check(m_stream->setsize(size), "another size");
        m_model.Resize(size);
    }
    void Trickle() {
        unsigned const amount = Amount();
        Note("trickle", amount);
        std::string text(amount, '\0');
        unsigned got = ~0u;
        Check(m_stream->trickle_read(text.data(), amount, &got) == 0 && got <= amount, "a trickle");
        Check(text.substr(0, got) == m_model.Trickle(amount), "the bytes trickled");
    }
    void SeekTrickle() {
        unsigned const place = Place();
        Note("seek the trickle", place);
        Check(m_stream->trickle_seekto(static_cast<int>(place)) == static_cast<long>(m_model.SeekTrickle(place)),
              "the trickle's place");
    }
    void GetLine() {
        bool const force = Below(4) > 0, strip = Below(2);
        bool done = Below(2), modelDone = done;
        Note(force ? "getline" : "getline without force", strip + 2 * done);
        char* line = nullptr;
        LINE_STATE_T state;
        errno = EIO;
        long const length = m_stream->getline(line, force, done, state, strip);
        if (state == LINE_INCOMPLETE && length < 0) Check(errno == 0, "errno without a read");
        SpoolModel::Line const expected = m_model.GetLine(force, modelDone, strip);
        Check(state == expected.state && length == expected.length, "a line's state and length");
        Check(done == modelDone, "the one read of a line");
        Check((line != nullptr) == (state == LINE_COMPLETE || state == LINE_OVERFLOW), "a line or none");
        if (!m_difference.empty() || !line) return;
        Check(length <= 0 || (std::string(line, line + length) == expected.text && line[length] == '\0'),
              "the line and the NUL behind it");
        if (Below(3) == 0) Rewind(line, expected.start);
    }
    void Rewind(char const* line, std::size_t start) {
        Note("rewind", static_cast<long>(start));
        Check((m_stream->rewind(line) == 0) == m_model.Rewind(start), "a rewind");
    }
    void ReadData() {
        unsigned const most = Below(2) ? 0x7FFFFFFF : Below(9) + 1;
        bool const force = Below(4) > 0;
        bool done = Below(2), modelDone = done;
        Note(force ? "readdata" : "readdata without force", most);
        char* data = nullptr;
        int const count = m_stream->readdata(data, most, force, done);
        SpoolModel::Block const expected = m_model.ReadData(most, force, modelDone);
        Check(count == expected.count && done == modelDone, "a block's length");
        if (m_difference.empty() && count > 0) Check(std::string(data, data + count) == expected.text, "a block");
    }
    void Buffered() {
        Note("buffereddata", 0);
        char* data = nullptr;
        int const count = m_stream->buffereddata(data);
        SpoolModel::Block const expected = m_model.Buffered();
        Check(count == expected.count && (data == nullptr) == (count < 0), "the count of bytes at hand");
        if (m_difference.empty() && count > 0) Check(std::string(data, data + count) == expected.text, "bytes at hand");
    }
    void HasLine() {
        Note("is_line_buffered", 0);
        Check(m_stream->is_line_buffered() == m_model.HasLine(), "a line at hand");
    }
    void EmptyOverflow() {
        Note("empty_overflow", 0);
        Check(m_stream->empty_overflow() == m_model.EmptyOverflow(), "the end of an overlong line");
    }
    void Save() {
        Note("spool_to_disk", 0);
        Check(m_stream->spool_to_disk((m_room / "copy").c_str()) == 0, "a copy");
        Check(m_room.Read("copy") == m_model.bytes(), "the copy's bytes");
    }
    void Send() {
        Note("spool_to_stream", 0);
        ScriptedStream peer({});
        Check(m_stream->spool_to_stream(&peer) == 0, "a transfer");
        Check(peer.written() == m_model.bytes(), "the bytes sent");
    }
    void Take() {
        std::string const first = Text(Amount() + 1), second = Text(Amount() + 1);
        Note("spool_from_stream", static_cast<long>(first.size()));
        Note("and", static_cast<long>(second.size()));
        ScriptedStream peer({first, second + "rest"});
        Check(m_stream->spool_from_stream(&peer, static_cast<unsigned>(first.size() + second.size())) == 0, "a taking");
        Check(peer.Buffered() == "rest", "what the peer keeps");
        m_model.Write(first);
        m_model.Write(second);
    }
    void Rename() {
        Note("set_id", 0);
        m_stream->set_id(m_stem = "other");
        m_outbound = true;
    }
    void Reopen() {
        Note("reopen_disk_file", 0);
        Check(m_stream->reopen_disk_file() == 0, "the file opened anew");
        m_model.Reopen();
    }
    void Reset() {
        Note("reset", 0);
        m_stream->reset();
        m_model.Reset();
        CheckNoFile();
    }

    SpoolRoom const& m_room;
    std::mt19937 m_random;
    SpoolModel m_model;
    std::unique_ptr<ScannerStream> m_stream;
    std::string m_stem;
    bool m_outbound = false;
    std::string m_file;  // that it made last
    int m_syncs = s_syncs;
    bool m_wasTrickling = false;
    std::string m_steps, m_difference;
};

void Interleaving::Step() {
    struct Weighted {
        unsigned weight;
        Action action;
    };
    using I = Interleaving;
    static constexpr Weighted kActions[] = {
        {24, &I::Write},      {9, &I::WriteVector}, {14, &I::Read},    {16, &I::Seek},         {5, &I::SeekBy},
        {1, &I::SeekNowhere}, {9, &I::Resize},      {18, &I::Trickle}, {6, &I::SeekTrickle},   {24, &I::GetLine},
        {12, &I::ReadData},   {4, &I::Buffered},    {4, &I::HasLine},  {4, &I::EmptyOverflow}, {1, &I::Save},
        {1, &I::Send},        {2, &I::Take},        {2, &I::Rename},   {2, &I::Reopen},        {1, &I::Reset},
    };
    static unsigned const total = [] {
        unsigned sum = 0;
        for (Weighted const& each : kActions) sum += each.weight;
        return sum;
    }();
    bool const wasOnDisk = m_model.onDisk();
    unsigned at = Below(total);
    Weighted const* chosen = kActions;
    while (at >= chosen->weight) at -= (chosen++)->weight;
    (this->*chosen->action)();
    CheckAll(wasOnDisk);
}

TEST(SpoolStreamModel, HoldsAndHandsOutTheSameWhateverIsMixed) {
    SpoolRoom room;
    std::vector<BufferPool*> pools;
    for (unsigned const size : kPoolSizes) {
        room.Use(size);
        pools.push_back(ScannerStream::s_bufferpool);
    }
    char const* const one = std::getenv("SEED");
    unsigned const first = one ? static_cast<unsigned>(std::strtoul(one, nullptr, 10)) : 1;
    unsigned const count = one ? 1 : std::getenv("FULL") ? 100000 : 4000;
    for (unsigned seed = first; seed < first + count; ++seed) {
        std::string const difference = Interleaving(room, seed, pools).Run();
        ASSERT_EQ(difference, "") << "SEED=" << seed;
    }
}

}  // namespace
