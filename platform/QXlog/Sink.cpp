// The place of a record is the one of the report, not the one of the call to the journal.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include <KORtk/Exception.h>
#include <QXlog/Format.h>
#include <QXlog/Sink.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#ifdef VELT_WITH_SYSTEMD
#include <systemd/sd-journal.h>
#endif

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace QXlog::detail {
namespace {

bool WriteAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t const written = ::write(fd, data.data(), data.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// A datagram socket of our own to a log daemon, for what a signal handler sends: the one of the C library is behind a
// lock. Opened with the first report that is prepared.
class LogSocket {
public:
    explicit LogSocket(char const* path) : m_path(path) {}
    ~LogSocket() {
        if (m_fd >= 0) ::close(m_fd);
    }
    LogSocket(LogSocket const&) = delete;
    LogSocket& operator=(LogSocket const&) = delete;

    void Open() {
        if (m_fd >= 0) return;
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        std::strncpy(name.sun_path, m_path, sizeof name.sun_path - 1);
        int const fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) return;
        if (::connect(fd, reinterpret_cast<sockaddr const*>(&name), sizeof name) != 0) {
            ::close(fd);
            return;
        }
        m_fd = fd;
    }
    bool Send(std::string const& data) const {
        return m_fd >= 0 && ::send(m_fd, data.data(), data.size(), MSG_NOSIGNAL) >= 0;
    }

private:
    char const* m_path;
    int m_fd = -1;
};

class SyslogSink : public Sink {
public:
    SyslogSink(Limits const& limits, int facility, std::string const& identity)
        : m_limits(limits), m_facility(facility) {
        static std::string& kept = *new std::string;  // openlog keeps the pointer
        kept = identity;
        ::openlog(kept.c_str(), LOG_PID | LOG_NDELAY, facility);
    }
    ~SyslogSink() override { ::closelog(); }

    bool Write(Record const& record) override {
        ::syslog(m_facility | LOG_INFO, "%s", FormatMessage(record, m_limits).c_str());
        return true;
    }

    // Without a time: the daemon adds its own.
    PreparedBytes Prepare(Record const& record) override {
        m_socket.Open();
        return {"<" + std::to_string(m_facility | LOG_INFO) + ">" + record.identity + "[" + std::to_string(record.pid) +
                    "]: " + FormatMessage(record, m_limits),
                PreparedBytes::kNoTime};
    }
    bool Emit(PreparedBytes const& prepared) override { return m_socket.Send(prepared.bytes); }

private:
    Limits m_limits;
    int m_facility;
    LogSocket m_socket{"/dev/log"};
};

#ifdef VELT_WITH_SYSTEMD
constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

class JournalSink : public Sink {
public:
    explicit JournalSink(Limits const& limits) : m_limits(limits) {}

    bool Write(Record const& record) override {
        std::vector<std::string> fields = FormatJournal(record, m_limits);
        std::vector<iovec> rows;
        for (std::string& field : fields) rows.push_back({field.data(), field.size()});
        return ::sd_journal_sendv(rows.data(), static_cast<int>(rows.size())) == 0;
    }

    // No field has a line's end in it, so that each is one line of the journal's own protocol.
    PreparedBytes Prepare(Record const& record) override {
        m_socket.Open();
        PreparedBytes prepared;
        for (std::string const& field : FormatJournal(record, m_limits)) prepared.bytes.append(field).append("\n");
        return prepared;
    }
    bool Emit(PreparedBytes const& prepared) override { return m_socket.Send(prepared.bytes); }

private:
    Limits m_limits;
    LogSocket m_socket{kJournalSocket};
};

// Null where no journal runs: its call would lose the records in silence.
std::unique_ptr<Sink> MakeJournalSink(Limits const& limits) {
    if (::access(kJournalSocket, W_OK) != 0) return nullptr;
    return std::make_unique<JournalSink>(limits);
}
#else
std::unique_ptr<Sink> MakeJournalSink(Limits const&) { return nullptr; }
#endif

class StandardErrorSink : public Sink {
public:
    using Form = std::string (*)(Record const&, Limits const&);
    StandardErrorSink(Limits const& limits, Form form) : m_limits(limits), m_form(form) {}

    bool Write(Record const& record) override { return WriteAll(STDERR_FILENO, m_form(record, m_limits)); }

    PreparedBytes Prepare(Record const& record) override {
        std::string bytes = m_form(record, m_limits);
        std::size_t const at = bytes.find(FormatTime(record.time));
        return {std::move(bytes), at};
    }
    bool Emit(PreparedBytes const& prepared) override { return WriteAll(STDERR_FILENO, prepared.bytes); }

private:
    Limits m_limits;
    Form m_form;
};

// Appends a line by one write, so that the processes of a proxy may share the file. A file that was moved away is
// made anew, looked for at most once a second; when that is not possible any more the old one is written on.
class JsonFileSink : public Sink {
public:
    JsonFileSink(Limits const& limits, std::string file) : m_limits(limits), m_file(std::move(file)), m_fd(Open()) {
        if (m_fd < 0) throw KORtk::Exception(KORtk::Here(), m_file + ": cannot be opened: " + std::strerror(errno));
    }
    ~JsonFileSink() override { ::close(m_fd); }

    bool Write(Record const& record) override {
        auto const now = std::chrono::steady_clock::now();
        if (now - m_looked >= std::chrono::seconds(1)) {
            m_looked = now;
            if (MovedAway()) Reopen();
        }
        return WriteAll(m_fd, FormatJson(record, m_limits));
    }

    PreparedBytes Prepare(Record const& record) override {
        std::string bytes = FormatJson(record, m_limits);
        std::size_t const at = bytes.find(FormatTime(record.time));
        return {std::move(bytes), at};
    }
    bool Emit(PreparedBytes const& prepared) override { return WriteAll(m_fd, prepared.bytes); }

private:
    int Open() const { return ::open(m_file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640); }

    bool MovedAway() const {
        struct stat have, named;
        if (::fstat(m_fd, &have) != 0) return true;
        return ::stat(m_file.c_str(), &named) != 0 || named.st_dev != have.st_dev || named.st_ino != have.st_ino;
    }

    void Reopen() {
        int const fresh = Open();
        if (fresh < 0) return;
        ::close(m_fd.exchange(fresh));
    }

    Limits m_limits;
    std::string m_file;
    std::atomic<int> m_fd;
    std::chrono::steady_clock::time_point m_looked{};
};

}  // namespace

std::unique_ptr<Sink> MakeSink(SinkSettings const& settings, Limits const& limits, std::string const& identity) {
    switch (settings.kind) {
        case SinkKind::Journal:
            if (auto journal = MakeJournalSink(limits)) return journal;
            break;
        case SinkKind::Json:
            if (!settings.file.empty()) return std::make_unique<JsonFileSink>(limits, settings.file);
            return std::make_unique<StandardErrorSink>(limits, FormatJson);
        case SinkKind::Text:
            return std::make_unique<StandardErrorSink>(limits, FormatText);
        case SinkKind::Syslog:
            break;
    }
    return std::make_unique<SyslogSink>(limits, settings.facility, identity);
}

}  // namespace QXlog::detail
