#include <velt/scanning/ThreadTraces.h>

#include <dirent.h>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <velt/scanning/ModuleMap.h>
#include <velt/scanning/SignalText.h>
#include <velt/streams/ScannerStream.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace VELT {

namespace {

constexpr int kMostFrames = 64;
constexpr long kAnswerMs = 200;   // for a thread to begin its answer
constexpr long kScansMs = 2000;   // for the one that scans, without which there is little to see
constexpr long kFinishMs = 2000;  // for a thread to end its answer, the copy of an item and all
constexpr long kAllMs = 5000;

enum State : int { Idle, Asked, Answering, Answered };

// One question at a time; the thread that is asked writes the answer.
struct Question {
    std::atomic<int> thread{0};
    std::atomic<int> state{Idle};
    WatchedItem const* item = nullptr;
    int directory = -1;
    int count = 0;
    void* frames[kMostFrames];
};

Question s_question;
ModuleMap s_modules;

int TraceSignal() { return SIGRTMIN + 7; }

int ThisThread() { return static_cast<int>(::syscall(SYS_gettid)); }

long Milliseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

void Answer() {
    s_question.count = ::backtrace(s_question.frames, kMostFrames);
    WatchedItem const& item = *s_question.item;
    if (item.data && item.thread == s_question.thread) item.data->keep_copy(s_question.directory, "item");
}

// A question that has been given up, or that is another thread's by now, is not answered.
void OnTraceSignal(int) {
    int const before = errno;
    int expected = Asked;
    if (s_question.thread == ThisThread() && s_question.state.compare_exchange_strong(expected, Answering)) {
        Answer();
        s_question.state = Answered;
    }
    errno = before;
}

bool AnsweredBy(long deadline) {
    timespec const step{0, 1'000'000};
    while (s_question.state != Answered) {
        if (Milliseconds() >= deadline) return false;
        ::nanosleep(&step, nullptr);
    }
    return true;
}

// False: no answer. A question whose answer was begun and does not end stays open for ever, and no other is asked.
bool Ask(int thread, long patience) {
    s_question.count = 0;
    s_question.thread = thread;
    s_question.state = Asked;
    if (thread == ThisThread()) {
        OnTraceSignal(0);
    } else {
        ::syscall(SYS_tgkill, ::getpid(), thread, TraceSignal());
    }
    if (AnsweredBy(Milliseconds() + patience)) return true;
    int expected = Asked;
    if (s_question.state.compare_exchange_strong(expected, Idle)) return false;
    return AnsweredBy(Milliseconds() + kFinishMs);
}

void Name(SignalText& out, int tasks, char const* thread) {
    char name[32] = "";
    int const task = ::openat(tasks, thread, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int const comm = ::openat(task, "comm", O_RDONLY | O_CLOEXEC);
    ssize_t const length = ::read(comm, name, sizeof name - 1);
    if (length > 0) name[length - 1] = '\0';  // in the place of the line's end
    out << "thread " << thread << " " << name;
    if (comm >= 0) ::close(comm);
    if (task >= 0) ::close(task);
}

void Frames(SignalText& out) {
    for (int i = 0; i < s_question.count; ++i) {
        auto const address = reinterpret_cast<unsigned long>(s_question.frames[i]);
        ModuleMap::Place const place = s_modules.Find(address);
        out << "  #" << i << " ";
        if (place.file)
            (out << place.file << "+").Hex(place.offset);
        else
            out.Hex(address);
        out << "\n";
    }
}

int NumberOf(char const* text) {
    int number = 0;
    for (; *text >= '0' && *text <= '9'; ++text) number = number * 10 + (*text - '0');
    return *text ? 0 : number;
}

void One(SignalText& out, int tasks, char const* name, bool scans, long deadline) {
    Name(out, tasks, name);
    if (scans) out << ", which scans";
    if (s_question.state == Answering || Milliseconds() >= deadline) {
        out << ": not asked\n";
    } else if (!Ask(NumberOf(name), scans ? kScansMs : kAnswerMs)) {
        out << ": no answer\n";
    } else {
        out << ":\n";
        Frames(out);
    }
}

// Calls each(name) for every thread of the process.
template <class Each>
void ForEachThread(int tasks, Each each) {
    struct Entry {  // as the kernel gives it
        unsigned long inode;
        long next;
        unsigned short length;
        unsigned char type;
        char name[1];
    };
    alignas(Entry) char block[2048];
    ::lseek(tasks, 0, SEEK_SET);
    for (long got; (got = ::syscall(SYS_getdents64, tasks, block, sizeof block)) > 0;) {
        for (long at = 0; at < got;) {
            auto const* const entry = reinterpret_cast<Entry const*>(block + at);
            if (NumberOf(entry->name) != 0) each(entry->name);
            at += entry->length;
        }
    }
}

}  // namespace

// The first back-trace of a process loads the unwinder, which takes memory.
void ThreadTraces::Prepare() {
    void* frame[1];
    ::backtrace(frame, 1);
    struct sigaction action = {};
    action.sa_handler = OnTraceSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(TraceSignal(), &action, nullptr);
}

// The thread that scans comes first, whatever the time that others take.
void ThreadTraces::Write(int directory, WatchedItem const& item) {
    int const tasks = ::open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (tasks < 0) return;
    s_modules.Read();
    SignalText out(directory, "threads");
    if (s_question.state != Answering) {
        s_question.item = &item;
        s_question.directory = directory;
    }
    long const deadline = Milliseconds() + kAllMs;
    for (bool const scans : {true, false}) {
        ForEachThread(tasks, [&](char const* name) {
            if ((NumberOf(name) == item.thread) == scans) One(out, tasks, name, scans, deadline);
        });
    }
    ::close(tasks);
}

}  // namespace VELT
