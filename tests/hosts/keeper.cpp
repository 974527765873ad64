// keeper: a host that keeps work in files and retries it; run it with -s retryer -t QUEUE. A file says what its work
// is like, a word on each line, and each attempt takes one word, from the last line up:
//   done        the work succeeds, and the file is removed
//   later       it fails, and the file is left at rest
//   again       it fails, and the file is left as if it had never been tried
//   wait        the attempt lasts until the file "go" appears in the directory; then the next word
//   die         the process dies
// An attempt is noted by the line "PID ID new|again" at the end of the file "journal" beside the directory, before it
// is made; a success by a line of its own, "PID ID done". With a word after the proxy's and the product's names that is
// no id, "none", the factory gives no session.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <string>

#include <velt/connection/Connection.h>
#include <velt/retry/RetryerServiceLoop.h>
#include <velt/runtime/Proxy.h>

namespace {

constexpr long kRestSeconds = 60;  // how far back a file at rest is dated: more than any "NewFileDelta" of a test

class Keeper : public VELT::Connection {
public:
    Keeper(int fd, std::string directory, std::string id, bool isNew)
        : m_fd(fd), m_directory(std::move(directory)), m_id(std::move(id)), m_isNew(isNew) {}
    ~Keeper() override {
        if (m_fd != -1) ::close(m_fd);
    }

    // There is no client, and so no direction and no Start.
    void Run() override {
        if (!Note(m_isNew ? "new" : "again")) return;
        std::string word = TakeWord();
        if (word == "wait") {
            while (::access((m_directory + "go").c_str(), F_OK) != 0) ::poll(nullptr, 0, 10);
            word = TakeWord();
        }
        if (word == "die") ::raise(SIGKILL);
        if (word == "done") Finish();
        if (word == "later") Rest();
    }

    // Asked by the walk while Run is at work.
    bool Active(char const* path) override { return Path() == path; }

private:
    std::string Path() const { return m_directory + m_id + ".rmd"; }

    // A note that was cut short is told from the next one by the line end before that.
    bool Note(std::string const& what) const {
        std::string const line = "\n" + std::to_string(::getpid()) + " " + m_id + " " + what + "\n";
        int const journal =
            ::open((m_directory + "../journal").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        bool const whole = ::write(journal, line.data(), line.size()) == static_cast<ssize_t>(line.size());
        if (journal != -1) ::close(journal);
        return whole;
    }

    // The last line of the file, which is cut off.
    std::string TakeWord() const {
        char text[512];
        ssize_t const size = ::pread(m_fd, text, sizeof text, 0);
        std::string all(text, size > 0 ? static_cast<std::size_t>(size) : 0);
        while (!all.empty() && all.back() == '\n') all.pop_back();
        std::size_t const end = all.rfind('\n');
        std::size_t const begin = end == std::string::npos ? 0 : end + 1;
        if (begin != 0 && ::ftruncate(m_fd, static_cast<off_t>(begin)) != 0) return "";
        return all.substr(begin);
    }

    // Noted first: a process that dies between the two does the work twice, and never not at all. A file that has been
    // put in the place of this one is other work.
    void Finish() const {
        if (!Note("done")) return;
        struct stat held {};
        struct stat named {};
        if (::fstat(m_fd, &held) != 0 || ::stat(Path().c_str(), &named) != 0) return;
        if (named.st_ino == held.st_ino) ::unlink(Path().c_str());
    }

    // The status time becomes the present with it.
    void Rest() const {
        timespec const times[2] = {{0, UTIME_OMIT}, {::time(nullptr) - kRestSeconds, 0}};
        ::futimens(m_fd, times);
    }

    int m_fd;
    std::string m_directory, m_id;
    bool m_isNew;
};

bool s_refuse = false;

VELT::Connection* MakeKeeper(int fd, bool /*notQuarantine*/, std::string& directory, std::string& id, bool isNew) {
    if (s_refuse) return nullptr;
    return new Keeper(fd, directory, id, isNew);
}

}  // namespace

int main(int argc, char** argv) {
    s_refuse = argc > 1 && std::string(argv[argc - 1]) == "none";
    VELT::RetryerServiceLoop::setRetryerFactory(&MakeKeeper);
    new VELT::Proxy;  // the library's from now on
    return VELT::ProxyStart(argc, argv);
}
