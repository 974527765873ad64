// Line and block reading beside a bare search of the same bytes, and the buffer pool beside a plain locked queue.
// The search hands out pointers too, as a reader without a stream would; that is the floor for getline.
// The match of names beside the shell's wildcards, which know neither scores nor the worst case. An object in the spool
// beside plain writes and reads of a file, and beside copies into a buffer of the pool and out of it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/BufferedStream.h>
#include <velt/streams/NameMatch.h>
#include <velt/streams/ScannerStream.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <utility>

namespace {

constexpr unsigned bufferSize = 64 * 1024;

std::string LinesOf(std::size_t length) {
    std::string const line = std::string(length, 'x') + "\n";
    std::string text;
    while (text.size() + line.size() < bufferSize) text += line;
    return text;
}

// A stream whose raw read costs nothing, so that what is measured is the layer above it.
class Endless : public VELT::BufferedStream {
public:
    explicit Endless(std::string const& text) : m_pool(bufferSize, 1), m_text(text) {}
    ~Endless() override { reset_buffered_stream(); }
    int read(char* data, unsigned length, unsigned* received) override {
        if (!m_written) std::memcpy(data, m_text.data(), m_text.size());
        m_written = true;
        *received = static_cast<unsigned>(m_text.size()) <= length ? static_cast<unsigned>(m_text.size()) : 0;
        return 0;
    }
    int write(char const*, unsigned, unsigned*) override { return 0; }
    int writev(unsigned, unsigned*, char const**, unsigned*) override { return 0; }
    VELT::BufferPool* get_pool() override { return &m_pool; }

private:
    VELT::BufferPool m_pool;
    std::string const& m_text;
    bool m_written = false;  // the buffer holds the text from the first read on, at the same place
};

void Report(benchmark::State& state, std::size_t length) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(length + 1));
    state.SetItemsProcessed(state.iterations());
}

// Where a line begins and how long it is, out of line as a library's answer is.
__attribute__((noinline)) char* SearchLine(char*& at, char* end, int& length) {
    char* const found = static_cast<char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
    if (!found) return nullptr;
    length = static_cast<int>(found - at);
    return std::exchange(at, found + 1);
}

void Lines_memchr(benchmark::State& state) {
    auto const length = static_cast<std::size_t>(state.range(0));
    std::string text = LinesOf(length);
    char* at = text.data();
    char* const end = text.data() + text.size();
    for (auto _ : state) {
        int count = 0;
        char* line = SearchLine(at, end, count);
        if (at == end) at = text.data();
        benchmark::DoNotOptimize(line);
        benchmark::DoNotOptimize(count);
    }
    Report(state, length);
}

void Lines_getline(benchmark::State& state) {
    auto const length = static_cast<std::size_t>(state.range(0));
    std::string const text = LinesOf(length);
    Endless stream(text);
    bool io_done = false;
    for (auto _ : state) {
        char* line = nullptr;
        VELT::LINE_STATE_T verdict;
        int const count = stream.getline(line, true, io_done, verdict, true);
        benchmark::DoNotOptimize(line);
        benchmark::DoNotOptimize(count);
        if (verdict != VELT::LINE_COMPLETE) state.SkipWithError("no line");
    }
    Report(state, length);
}

void Blocks_memchr(benchmark::State& state) {
    std::string const text = LinesOf(76);
    auto const size = static_cast<std::size_t>(state.range(0));
    for (auto _ : state)
        for (std::size_t at = 0; at < text.size(); at += size)
            benchmark::DoNotOptimize(std::memchr(text.data() + at, 0, std::min(size, text.size() - at)));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void Blocks_readdata(benchmark::State& state) {
    std::string const text = LinesOf(76);
    auto const size = static_cast<unsigned>(state.range(0));
    Endless stream(text);
    bool io_done = false;
    for (auto _ : state)
        for (std::size_t got = 0; got < text.size();) {
            char* data = nullptr;
            got += static_cast<std::size_t>(stream.readdata(data, size, true, io_done));
            benchmark::DoNotOptimize(data);
        }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void Buffer_pool(benchmark::State& state) {
    static VELT::BufferPool pool(4096, 64);
    for (auto _ : state) {
        unsigned size = 0;
        char* const buffer = pool.obtain_buffer(size);
        benchmark::DoNotOptimize(buffer);
        pool.release_buffer(buffer);
    }
}

void Buffer_lockedQueue(benchmark::State& state) {
    static std::mutex mutex;
    static std::deque<char*> queue(64, nullptr);
    for (auto _ : state) {
        char* buffer;
        {
            std::lock_guard<std::mutex> const hold(mutex);
            buffer = queue.front();
            queue.pop_front();
        }
        benchmark::DoNotOptimize(buffer);
        std::lock_guard<std::mutex> const hold(mutex);
        queue.push_back(buffer);
    }
}

void Buffer_malloc(benchmark::State& state) {
    for (auto _ : state) {
        void* const buffer = std::malloc(4096);
        benchmark::DoNotOptimize(buffer);
        std::free(buffer);
    }
}

template <class Match>
void MatchNames(benchmark::State& state, char const* pattern, std::string const& name, Match match) {
    char const* text = name.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(pattern);
        benchmark::DoNotOptimize(text);
        benchmark::DoNotOptimize(match(pattern, text));
    }
}

constexpr char kDomain[] = "*.alpha.test";
constexpr char kHost[] = "mail.alpha.test";

void Names_match(benchmark::State& state) {
    MatchNames(state, kDomain, kHost, [](char const* p, char const* n) { return VELT::name_match(p, n, false); });
}
void Names_fnmatch(benchmark::State& state) {
    MatchNames(state, kDomain, kHost, [](char const* p, char const* n) { return ::fnmatch(p, n, 0); });
}
// The set keeps the last star from being settled by a look at the name's end.
void Names_manyStars(benchmark::State& state) {
    MatchNames(state, "*a*a*a*[b]", std::string(255, 'a'),
               [](char const* p, char const* n) { return VELT::name_match(p, n, false); });
}
void Names_starsAndText(benchmark::State& state) {
    MatchNames(state, "*a*a*a*b", std::string(255, 'a'),
               [](char const* p, char const* n) { return VELT::name_match(p, n, false); });
}

// A spool directory of this program's own, and a pool of memory of one size.
class Spool {
public:
    explicit Spool(unsigned memory) {
        VELT::ScannerStream::set_buffer_pool(4, memory);
        VELT::ScannerStream::set_spool_dir(m_directory);
    }
    ~Spool() { std::filesystem::remove_all(m_directory); }
    std::string File() const { return m_directory + "/plain"; }

private:
    std::string m_directory = ::mkdtemp(std::string("/tmp/velt-bench-XXXXXX").data());
};

constexpr unsigned piece = 4096;  // what the network gives at a time
constexpr unsigned largeObject = 20 * 1024 * 1024;

// Each object is written once, and read twice: to be scanned and to be sent on.
bool SpoolObject(unsigned size, char const* data, char* copy) {
    VELT::ScannerStream stream("object", false);
    for (unsigned at = 0; at < size; at += piece)
        if (stream.write(data, std::min(piece, size - at)) < 0) return false;
    for (int round = 0; round < 2; ++round) {
        stream.seek(0, 0);
        unsigned long got = 0;
        for (long count; (count = stream.read(copy, piece)) > 0;) got += static_cast<unsigned long>(count);
        if (got != size) return false;
    }
    return true;
}

bool FileObject(std::string const& path, unsigned size, char const* data, char* copy) {
    int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool good = fd >= 0;
    for (unsigned at = 0; at < size; at += piece) good = good && ::write(fd, data, piece) == piece;
    for (int round = 0; round < 2; ++round) {
        off_t at = 0;
        for (ssize_t count; (count = ::pread(fd, copy, piece, at)) > 0;) at += count;
        good = good && at == size;
    }
    ::close(fd);
    ::unlink(path.c_str());
    return good;
}

void CopyObject(VELT::BufferPool& pool, unsigned size, char const* data, char* copy) {
    unsigned room = 0;
    char* const memory = pool.obtain_buffer(room);
    for (unsigned at = 0; at < size; at += piece) std::memcpy(memory + at, data, std::min(piece, size - at));
    for (int round = 0; round < 2; ++round)
        for (unsigned at = 0; at < size; at += piece) {
            std::memcpy(copy, memory + at, std::min(piece, size - at));
            benchmark::ClobberMemory();
        }
    pool.release_buffer(memory);
}

void Spool_disk(benchmark::State& state) {
    Spool const spool(1024);
    std::string const data(piece, 'x');
    char copy[piece];
    for (auto _ : state)
        if (!SpoolObject(largeObject, data.data(), copy)) state.SkipWithError("no object");
}
void Spool_file(benchmark::State& state) {
    Spool const spool(1024);
    std::string const data(piece, 'x');
    char copy[piece];
    for (auto _ : state)
        if (!FileObject(spool.File(), largeObject, data.data(), copy)) state.SkipWithError("no file");
}
void Spool_memory(benchmark::State& state) {
    Spool const spool(bufferSize);
    std::string const data(piece, 'x');
    char copy[piece];
    for (auto _ : state) {
        if (!SpoolObject(static_cast<unsigned>(state.range(0)), data.data(), copy)) state.SkipWithError("no object");
        benchmark::ClobberMemory();
    }
}
void Spool_memcpy(benchmark::State& state) {
    VELT::BufferPool pool(bufferSize, 4);
    std::string const data(piece, 'x');
    char copy[piece];
    for (auto _ : state) {
        CopyObject(pool, static_cast<unsigned>(state.range(0)), data.data(), copy);
        benchmark::ClobberMemory();
    }
}

BENCHMARK(Spool_disk)->Unit(benchmark::kMillisecond);
BENCHMARK(Spool_file)->Unit(benchmark::kMillisecond);
BENCHMARK(Spool_memory)->Arg(1000)->Arg(16000)->Arg(64000);
BENCHMARK(Spool_memcpy)->Arg(1000)->Arg(16000)->Arg(64000);
BENCHMARK(Names_match);
BENCHMARK(Names_fnmatch);
BENCHMARK(Names_manyStars);
BENCHMARK(Names_starsAndText);
BENCHMARK(Lines_memchr)->Arg(32)->Arg(76)->Arg(998);
BENCHMARK(Lines_getline)->Arg(32)->Arg(76)->Arg(998);
BENCHMARK(Blocks_memchr)->Arg(512)->Arg(4096);
BENCHMARK(Blocks_readdata)->Arg(512)->Arg(4096);
BENCHMARK(Buffer_pool)->Threads(1)->Threads(2);
BENCHMARK(Buffer_lockedQueue)->Threads(1)->Threads(2);
BENCHMARK(Buffer_malloc)->Threads(1)->Threads(2);

}  // namespace
