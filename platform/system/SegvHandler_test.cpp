// Crashes are made in children, which tell through a pipe how far their handlers came.
#include <system/SegvHandler.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

namespace {

int s_pipe[2];

void Say(char c) { static_cast<void>(!::write(s_pipe[1], &c, 1)); }

struct End {
    int signal;
    std::string said;
};

template <class Body>
End InChild(Body body) {
    if (::pipe(s_pipe) != 0) std::abort();
    pid_t const child = ::fork();
    if (child == 0) {
        rlimit const noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        for (int const one : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) ::signal(one, SIG_DFL);
        ::alarm(20);
        body();
        ::_exit(0);
    }
    ::close(s_pipe[1]);
    End end{0, {}};
    for (char c; ::read(s_pipe[0], &c, 1) == 1;) end.said += c;
    ::close(s_pipe[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return end;
}

void Fault() {
    int volatile* volatile nowhere = nullptr;
    *nowhere = 1;
}

void User() { Say('u'); }

TEST(Crashes, RunTheUserHandlerAndThenEndAsTheyWould) {
    End const end = InChild([] {
        SegvHandler::Install();
        SegvHandler::SetUserHandler(User);
        Fault();
    });
    EXPECT_EQ(end.said, "u");
    EXPECT_EQ(end.signal, SIGSEGV);
}

TEST(Crashes, ThatAreSentEndTheProcessToo) {
    for (int const signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) {
        End const end = InChild([&] {
            SegvHandler::Install();
            SegvHandler::SetUserHandler(User);
            ::raise(signal);
        });
        EXPECT_EQ(end.said, "u");
        EXPECT_EQ(end.signal, signal);
    }
}

TEST(Crashes, WithoutAUserHandlerJustEnd) {
    EXPECT_EQ(InChild([] {
                  SegvHandler::Install();
                  Fault();
              }).signal,
              SIGSEGV);
}

TEST(Crashes, InsideTheHandlerEndAtOnce) {
    End const same = InChild([] {
        SegvHandler::Install();
        SegvHandler::SetUserHandler([] {
            Say('u');
            Fault();
        });
        Fault();
    });
    EXPECT_EQ(same.said, "u");
    EXPECT_EQ(same.signal, SIGSEGV);
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
    return;  // it holds a raised signal back until the handler has returned
#endif
#endif
    End const other = InChild([] {
        SegvHandler::Install();
        SegvHandler::SetUserHandler([] {
            Say('u');
            ::raise(SIGBUS);
            Say('x');
        });
        Fault();
    });
    EXPECT_EQ(other.said, "u");
    EXPECT_EQ(other.signal, SIGBUS);
}

TEST(Crashes, GoOnToWhoeverWasThereBefore) {
    End const end = InChild([] {
        ::signal(SIGSEGV, [](int) {
            Say('p');
            ::_exit(0);
        });
        SegvHandler::Install();
        SegvHandler::Install();  // does not take itself for the one before
        SegvHandler::SetUserHandler(User);
        Fault();
    });
    EXPECT_EQ(end.said, "up");
    EXPECT_EQ(end.signal, 0);
}

TEST(Crashes, AreNotIgnoredOnAccountOfAnEarlierIgnore) {
    End const end = InChild([] {
        ::signal(SIGSEGV, SIG_IGN);
        SegvHandler::Install();
        ::raise(SIGSEGV);
    });
    EXPECT_EQ(end.signal, SIGSEGV);
}

#ifndef VELT_SANITIZED
int Deep(int n) {
    char volatile room[4096];
    room[0] = static_cast<char>(n);
    return n > 0 ? Deep(n + 1) + room[0] : 0;
}

TEST(Crashes, OfAnExhaustedStackAreHandledOnTheAlternateOne) {
    End const end = InChild([] {
        SegvHandler::Install();
        SegvHandler::SetUserHandler(User);
        Deep(1);
    });
    EXPECT_EQ(end.said, "u");
    EXPECT_EQ(end.signal, SIGSEGV);
}

TEST(Crashes, OfAThreadWithAStackOfItsOwnAreHandledThere) {
    End const end = InChild([] {
        SegvHandler::Install();
        SegvHandler::SetUserHandler(User);
        pthread_t thread;
        ::pthread_create(
            &thread, nullptr,
            [](void*) -> void* {
                SegvHandler::UseAlternateStack();
                Deep(1);
                return nullptr;
            },
            nullptr);
        ::pthread_join(thread, nullptr);
    });
    EXPECT_EQ(end.said, "u");
    EXPECT_EQ(end.signal, SIGSEGV);
}
#endif

}  // namespace
