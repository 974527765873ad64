#include <system/SegvHandler.h>

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <iterator>

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
constexpr std::size_t kStackBytes = 256 * 1024;  // the user handler writes files

using UserHandler = void (*)();
std::atomic<UserHandler> s_userHandler{nullptr};
std::atomic<pid_t> s_thread{0};  // the thread that runs the handler
std::atomic<bool> s_installed{false};
struct sigaction s_before[std::size(kSignals)];  // set by Install, then only read

static_assert(std::atomic<UserHandler>::is_always_lock_free && std::atomic<pid_t>::is_always_lock_free);

pid_t ThisThread() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

// Ignoring a fault is not possible, so an ignored signal gets its default action.
void RestoreBefore(int signal) {
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        if (kSignals[i] != signal) continue;
        struct sigaction before = s_before[i];
        if (!(before.sa_flags & SA_SIGINFO) && before.sa_handler == SIG_IGN) before.sa_handler = SIG_DFL;
        ::sigaction(signal, &before, nullptr);
    }
}

void RestoreDefault(int signal) {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    ::sigaction(signal, &standard, nullptr);
}

// A fault comes again when the handler returns; a signal that somebody sent has to be sent again.
void SendAgain(int signal, siginfo_t const& info) {
    if (info.si_code <= 0) ::syscall(SYS_tgkill, ::getpid(), ThisThread(), signal);
}

void OnFault(int signal, siginfo_t* info, void*) {
    pid_t expected = 0;
    if (!s_thread.compare_exchange_strong(expected, ThisThread())) {
        if (expected != ThisThread()) {  // another thread's fault is being handled, and ends this one too
            for (;;) ::pause();
        }
        RestoreDefault(signal);
        return SendAgain(signal, *info);
    }
    if (UserHandler const handler = s_userHandler.load()) handler();
    RestoreBefore(signal);
    SendAgain(signal, *info);
}

// The alternate stack of one thread.
class AlternateStack {
public:
    AlternateStack() {
        m_memory = ::mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (m_memory == MAP_FAILED) return;
        stack_t stack{};
        stack.ss_sp = m_memory;
        stack.ss_size = kStackBytes;
        ::sigaltstack(&stack, nullptr);
    }
    ~AlternateStack() {
        if (m_memory == MAP_FAILED) return;
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        ::sigaltstack(&off, nullptr);
        ::munmap(m_memory, kStackBytes);
    }
    AlternateStack(AlternateStack const&) = delete;
    AlternateStack& operator=(AlternateStack const&) = delete;

private:
    void* m_memory;
};

}  // namespace

void SegvHandler::Install() {
    UseAlternateStack();
    if (s_installed.exchange(true)) return;
    struct sigaction action {};
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (std::size_t i = 0; i < std::size(kSignals); ++i) ::sigaction(kSignals[i], &action, &s_before[i]);
}

void SegvHandler::SetUserHandler(void (*handler)()) { s_userHandler.store(handler); }

void SegvHandler::UseAlternateStack() {
    static thread_local AlternateStack stack;
    static_cast<void>(stack);
}
