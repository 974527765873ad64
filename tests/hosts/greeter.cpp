// greeter: a line echo that first says who serves: its own process and that process's parent, "PID PPID". So a test can
// tell whose session it has.
// While the file that VELT_WORKERS_DIE names exists, every worker dies as soon as it runs: by _exit, or by a fault when
// VELT_WORKERS_FAULT is set, too.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include <velt/connection/Connection.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>
#include <velt/streams/TCPStream.h>

namespace {

class Greeter : public VELT::Connection {
public:
    void Start() override {
        VELT::TCPStream& client = *getSourceConnection().m_stream;
        if (client.PutLine(std::to_string(::getpid()) + " " + std::to_string(::getppid()), true) != 0) return;
        char* line = nullptr;
        while (ReadLine(client, line)) {
            if (client.PutLine(line, true) != 0) return;
        }
    }

private:
    static bool ReadLine(VELT::TCPStream& client, char*& line) {
        bool done = false;
        VELT::LINE_STATE_T state = VELT::LINE_CLOSED;
        int const length = client.getline(line, true, done, state, true);
        return length >= 0 && (state == VELT::LINE_COMPLETE || state == VELT::LINE_OVERFLOW);
    }
};

class MortalLoop : public VELT::TCPServiceLoop {
public:
    MortalLoop(VELT::Config* config, char const* file) : TCPServiceLoop(config), m_file(file) {}

    int PostForkInit() override {
        if (::access(m_file, F_OK) == 0) Die();
        return TCPServiceLoop::PostForkInit();
    }

private:
    [[noreturn]] static void Die() {
        if (std::getenv("VELT_WORKERS_FAULT")) {
            ::signal(SIGSEGV, SIG_DFL);  // a sanitizer would report it
            ::raise(SIGSEGV);
        }
        ::_exit(1);
    }

    char const* m_file;
};

class GreeterProxy : public VELT::Proxy {
public:
    // The standard loop gives its ports up before the other takes them.
    int ProxyInit() override {
        char const* const file = std::getenv("VELT_WORKERS_DIE");
        if (!file) return 0;
        delete m_serviceLoop;
        m_serviceLoop = new MortalLoop(&m_config, file);
        return 0;
    }
};

VELT::Connection* MakeGreeter(bool /*transparent*/) { return new Greeter; }

}  // namespace

int main(int argc, char** argv) {
    VELT::TCPServiceLoop::RegisterConnectionFactory(&MakeGreeter);
    new GreeterProxy;  // the library's from now on
    return VELT::ProxyStart(argc, argv);
}
