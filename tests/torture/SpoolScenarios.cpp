// An object that grows out of memory into its file, and all that is done with one.
#include <velt/streams/ScannerStream.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Scenario.h"

using VELT::ScannerStream;

namespace torture {

namespace {

constexpr unsigned kMemory = 4096;  // of a stream, as the world has it
constexpr unsigned kLarge = 10000;  // on disk
constexpr unsigned kSmall = 3000;   // in memory
constexpr unsigned kPiece = 1000;   // of a write
constexpr unsigned kTricklePiece = 700;
constexpr unsigned kNoLimit = 0x7FFFFFFF;

// What a scenario uses and what it leaves to be judged.
struct Trial {
    Trial() {
        std::ofstream(given_large, std::ios::binary) << large;
        std::ofstream(given_small, std::ios::binary) << small;
        got.reserve(2 * kLarge);
        want.reserve(2 * kLarge);
    }
    ~Trial() {
        for (auto const& path : {given_large, given_small, other}) std::filesystem::remove(path);
    }
    std::string const large = Numbered(kLarge);
    std::string const small = Numbered(kSmall);
    std::string const given_large = SpoolPath("given.large");
    std::string const given_small = SpoolPath("given.small");
    std::string const other = SpoolPath("other.copy");
    std::string const copy = SpoolPath("copy");  // judged where it is written
    std::string got, want;
};

bool Put(ScannerStream& stream, std::string_view text) {
    for (; !text.empty(); text.remove_prefix(std::min<std::size_t>(kPiece, text.size()))) {
        auto const length = static_cast<unsigned>(std::min<std::size_t>(kPiece, text.size()));
        if (stream.write(text.data(), length) != static_cast<long>(length)) return false;
    }
    return true;
}

bool ReadRest(ScannerStream& stream, std::string& got) {
    for (char block[512];;) {
        long const count = stream.read(block, sizeof block);
        if (count <= 0) return count == 0;
        got.append(block, static_cast<std::size_t>(count));
    }
}

bool ReadAll(ScannerStream& stream, std::string& got) { return stream.seek(0, 0) == 0 && ReadRest(stream, got); }

// --- Written and read back ---

bool Reads(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.large;
    return Put(stream, trial.large) && ReadAll(stream, trial.got);
}

bool ReadsLines(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.large;
    if (!Put(stream, trial.large) || stream.seek(0, 0) != 0) return false;
    for (;;) {
        char* line = nullptr;
        bool io_done = false;
        VELT::LINE_STATE_T state;
        int const length = stream.getline(line, true, io_done, state, true);
        if (state != VELT::LINE_COMPLETE) return length == 0;
        trial.got.append(line, static_cast<std::size_t>(length)).append("\r\n");
    }
}

bool ReadsBlocks(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.large;
    if (!Put(stream, trial.large) || stream.seek(0, 0) != 0) return false;
    for (;;) {
        char* data = nullptr;
        bool io_done = false;
        int const count = stream.readdata(data, kNoLimit, true, io_done);
        if (count <= 0) return count == 0;
        trial.got.append(data, static_cast<std::size_t>(count));
    }
}

// Each vector leaves the cursor behind its end.
bool ReadsByVector(Trial& trial) {
    ScannerStream stream("torture", true);
    trial.want = trial.small + trial.large;
    for (std::string_view const text : {std::string_view(trial.small), std::string_view(trial.large)}) {
        char const* piece = text.data();
        auto length = static_cast<unsigned>(text.size());
        unsigned written = 0;
        if (stream.writev(1, &length, &piece, &written) != 0 || written != length) return false;
        if (stream.seek(stream.size(), 0) != static_cast<long>(stream.size())) return false;
    }
    return ReadAll(stream, trial.got);
}

bool ReadsTheSecondObject(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.small;
    if (!Put(stream, trial.large)) return false;
    stream.reset();
    return Put(stream, trial.small) && ReadAll(stream, trial.got);
}

bool WritesInTheMiddle(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.large;
    trial.want.replace(kMemory - 10, 20, std::string(20, '#'));
    return Put(stream, trial.large) && stream.seek(kMemory - 10, 0) == kMemory - 10 &&
           Put(stream, std::string(20, '#')) && ReadAll(stream, trial.got);
}

bool TricklePart(ScannerStream& stream, std::string& got, bool& ended) {
    char block[kTricklePiece];
    unsigned count = 0;
    if (stream.trickle_read(block, sizeof block, &count) != 0 || count == UINT_MAX) return false;
    got.append(block, count);
    ended = count == 0;
    return true;
}

bool Trickles(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.large;
    std::string_view text = trial.large;
    bool ended = false;
    for (; !text.empty(); text.remove_prefix(std::min<std::size_t>(kPiece, text.size())))
        if (!Put(stream, text.substr(0, kPiece)) || !TricklePart(stream, trial.got, ended)) return false;
    do
        if (!TricklePart(stream, trial.got, ended)) return false;
    while (!ended);
    return true;
}

bool TricklesFrom(Trial& trial) {
    constexpr int kFrom = 5000;
    ScannerStream stream("torture", false);
    trial.want = trial.large.substr(kFrom);
    if (!Put(stream, trial.large) || stream.trickle_seekto(kFrom) != kFrom) return false;
    for (bool ended = false; !ended;)
        if (!TricklePart(stream, trial.got, ended)) return false;
    return true;
}

// --- Cut and grown ---

bool Cuts(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.large.substr(0, 5000) + trial.small;
    return Put(stream, trial.large) && stream.setsize(5000) && Put(stream, trial.small) && ReadAll(stream, trial.got);
}

bool Grows(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.small;
    trial.want.resize(kLarge, '\0');
    return Put(stream, trial.small) && stream.setsize(kLarge) && ReadAll(stream, trial.got);
}

// --- Copied ---

bool Copies(ScannerStream& stream, std::string const& text, Trial& trial) {
    trial.want = text;
    return Put(stream, text) && stream.spool_to_disk(trial.copy.c_str()) == 0;
}

bool CopiesMemory(Trial& trial) {
    ScannerStream stream("torture", false);
    return Copies(stream, trial.small, trial);
}

bool CopiesDisk(Trial& trial) {
    ScannerStream stream("torture", false);
    return Copies(stream, trial.large, trial);
}

bool GoesOnBehindACopy(Trial& trial) {
    ScannerStream stream("torture", false);
    if (!Put(stream, trial.large) || stream.seek(100, 0) != 100) return false;
    if (stream.spool_to_disk(trial.other.c_str()) != 0) return false;
    trial.want = trial.large.substr(100);
    return ReadRest(stream, trial.got);
}

bool GoesToAStream(Trial& trial) {
    ScannerStream stream("torture", false);
    ScannerStream other("other", true);
    trial.want = trial.large;
    return Put(stream, trial.large) && stream.spool_to_stream(&other) == 0 && ReadAll(other, trial.got);
}

bool ComesFromAStream(Trial& trial) {
    ScannerStream stream("torture", false);
    ScannerStream other("other", true);
    trial.want = trial.large;
    return Put(other, trial.large) && other.seek(0, 0) == 0 &&
           stream.spool_from_stream(&other, static_cast<unsigned>(trial.large.size())) == 0 &&
           ReadAll(stream, trial.got);
}

// --- Taken from files ---

bool TakesSmall(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.small;
    return stream.spool_from_disk(trial.given_small.c_str()) == 0 && ReadAll(stream, trial.got);
}

bool TakesLarge(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.large;
    return stream.spool_from_disk(trial.given_large.c_str()) == 0 && ReadAll(stream, trial.got);
}

bool Adopts(Trial& trial) {
    ScannerStream stream("torture", false);
    auto const end = static_cast<long>(trial.small.size());
    trial.want = trial.small + "more";
    return stream.set_disk_file(trial.given_small.c_str()) == 0 && stream.seek(end, 0) == end && Put(stream, "more") &&
           ReadAll(stream, trial.got);
}

bool Reopens(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.large;
    return Put(stream, trial.large) && stream.reopen_disk_file() == 0 && ReadAll(stream, trial.got);
}

// --- Headers rewritten ---

std::string const kHead =
    "Subject: old\r\n folded\r\nTo: a@a.test\r\nX: " + std::string(5000, 'x') + "\r\nY: y\r\n\r\n";
std::string const kNewHead = "Subject: new\nTo: a@a.test\nX: " + std::string(5000, 'x') + "\nY: y\n\n";

bool RewritesHeaders(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = kNewHead + trial.large;
    return Put(stream, kHead) && Put(stream, trial.large) &&
           stream.spool_to_disk(trial.copy.c_str(), {{"Subject:", "new"}}) == 0;
}

bool RewritesSmallHeaders(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = "to: b@b.test\nA: a\n\n" + trial.small;
    return Put(stream, "To: a@a.test\r\nA: a\r\n\r\n") && Put(stream, trial.small) &&
           stream.spool_to_disk(trial.copy.c_str(), {{"to:", "b@b.test"}}) == 0;
}

// Says 0 whatever came of it.
bool Dumps(Trial& trial) {
    ScannerStream stream("torture", false);
    trial.want = trial.small;
    return Put(stream, trial.small) && stream.emergency_dump(trial.copy.c_str()) == 0;
}

template <bool (*use)(Trial&)>
class Spool : public Scenario {
public:
    bool Act() override { return use(m_trial); }
    std::string Judge() override {
        if (std::filesystem::exists(m_trial.copy)) {
            std::ifstream copy(m_trial.copy, std::ios::binary);
            m_trial.got.assign(std::istreambuf_iterator<char>(copy), {});
            std::filesystem::remove(m_trial.copy);
        }
        std::filesystem::remove(m_trial.copy + ".info");
        return Compare("object", m_trial.got, m_trial.want);
    }

private:
    Trial m_trial;
};

}  // namespace

std::vector<NamedScenario> SpoolScenarios() {
    return {
        {"reads", &Make<Spool<Reads>>},
        {"reads_lines", &Make<Spool<ReadsLines>>},
        {"reads_blocks", &Make<Spool<ReadsBlocks>>},
        {"reads_what_a_vector_wrote", &Make<Spool<ReadsByVector>>},
        {"reads_the_second_object", &Make<Spool<ReadsTheSecondObject>>},
        {"writes_in_the_middle", &Make<Spool<WritesInTheMiddle>>},
        {"trickles", &Make<Spool<Trickles>>},
        {"trickles_from_a_place", &Make<Spool<TricklesFrom>>},
        {"cuts", &Make<Spool<Cuts>>},
        {"grows", &Make<Spool<Grows>>},
        {"copies_memory", &Make<Spool<CopiesMemory>>},
        {"copies_disk", &Make<Spool<CopiesDisk>>},
        {"goes_on_behind_a_copy", &Make<Spool<GoesOnBehindACopy>>},
        {"goes_to_a_stream", &Make<Spool<GoesToAStream>>},
        {"comes_from_a_stream", &Make<Spool<ComesFromAStream>>},
        {"takes_a_small_file", &Make<Spool<TakesSmall>>},
        {"takes_a_large_file", &Make<Spool<TakesLarge>>},
        {"adopts_a_file", &Make<Spool<Adopts>>},
        {"reopens", &Make<Spool<Reopens>>},
        {"rewrites_headers", &Make<Spool<RewritesHeaders>>},
        {"rewrites_headers_in_memory", &Make<Spool<RewritesSmallHeaders>>},
        {"dumps", &Make<Spool<Dumps>>},
    };
}

}  // namespace torture
