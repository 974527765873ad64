// velt-queue: mail that waits, and mail that is held.
#include <syslog.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <set>
#include <string>

#include <gateways/smtp/core/Reply.h>

#include "tools/velt-queue/Actions.h"
#include "tools/velt-queue/CommandLine.h"
#include "tools/velt-queue/Manual.h"
#include "tools/velt-queue/Printing.h"

namespace {

using namespace velt_queue;

constexpr char kReleased[] = "released";
constexpr int kDone = 0, kNotAll = 1, kWrong = 2;

int Failed(std::string const& reason) {
    std::fprintf(stderr, "velt-queue: %s\n", smtp::Printable(reason, 1000).c_str());
    return kWrong;
}

int Finished(int status) {
    bool const told = std::fflush(stdout) == 0 && !std::ferror(stdout);
    return told ? status : Failed("the output cannot be written");
}

class Work {
public:
    Work(Options const& options, Places places)
        : m_options(options),
          m_places(std::move(places)),
          m_now(std::time(nullptr)),
          m_printer(options.json ? Printer::json(m_now, m_places.relay) : Printer::forPeople(m_now, m_places.relay)) {}

    // What is to be deleted is not delivered before that.
    int run() {
        bool const deletes = m_options.command == Command::Delete;
        if (!m_options.dryRun && !deletes) finishReleases();
        for (Mail const& mail : chosen()) treat(mail);
        if (!m_options.dryRun && deletes) finishReleases();
        if (m_options.command == Command::List) m_printer->total(m_mails, m_held, m_damaged, m_bytes);
        return m_status;
    }

private:
    // It is told by who asks for releases; others have asked for something else.
    void finishReleases() {
        FinishReleases(m_places, [this](Mail const& mail, Problem const& problem) {
            if (!problem.empty()) return fail(mail.id, problem);
            m_finished.insert(mail.id);
            note(mail, kReleased);
            if (m_options.command == Command::Release) m_printer->done(mail, kReleased);
        });
    }

    std::vector<Mail> chosen() {
        std::vector<Mail> mails;
        for (std::string const& id : m_options.ids) {
            if (!isDone(id)) addNamed(id, mails);
        }
        if (!m_options.ids.empty()) return mails;
        for (Mail& mail : all()) {
            if (!m_options.filter.isSet() || m_options.filter.fits(mail, m_now)) mails.push_back(std::move(mail));
        }
        return mails;
    }

    std::vector<Mail> all() const {
        std::vector<Mail> mails;
        for (Queue const queue : {Queue::Deferred, Queue::Quarantine}) {
            if (!m_options.concerns(queue)) continue;
            std::vector<Mail> found = ReadQueue(queue, m_places.of(queue));
            std::move(found.begin(), found.end(), std::back_inserter(mails));
        }
        return mails;
    }

    // A file of that name; else all files of the mail.
    void addNamed(std::string const& id, std::vector<Mail>& mails) {
        std::size_t const before = mails.size();
        for (Queue const queue : {Queue::Deferred, Queue::Quarantine}) {
            if (!m_options.concerns(queue)) continue;
            if (auto mail = ReadMail(queue, m_places.of(queue), id)) mails.push_back(std::move(*mail));
        }
        if (mails.size() > before) return;
        bool known = false;
        for (Mail& mail : all()) {
            if (!mail.isReadable() || mail.envelope.auditId != id) continue;
            known = true;
            if (!isDone(mail.id)) mails.push_back(std::move(mail));
        }
        if (!known) fail(id, "there is no such mail");
    }

    // Nothing is left to be released.
    bool isDone(std::string const& id) const { return m_options.command == Command::Release && m_finished.count(id); }

    void treat(Mail const& mail) {
        switch (m_options.command) {
            case Command::List:
                return list(mail);
            case Command::Show:
                return m_options.body ? report(mail, WriteBody(mail), nullptr) : show(mail);
            case Command::Release:
                return change(mail, kReleased, [&] { return Release(mail, m_places); });
            case Command::Retry:
                return change(mail, "to be tried", [&] { return Retry(mail, m_places); });
            case Command::Delete:
                return change(mail, "deleted", [&] { return Delete(mail, m_places); });
        }
    }

    void list(Mail const& mail) {
        ++m_mails;
        m_held += mail.isHeld();
        m_bytes += mail.size;
        m_damaged += !mail.isReadable();
        m_printer->list(mail);
    }

    void show(Mail const& mail) {
        m_printer->show(mail, mail.isReadable() ? HeaderOf(mail) : "");
        if (!mail.isReadable()) m_status = kNotAll;
    }

    template <class Action>
    void change(Mail const& mail, char const* what, Action&& action) {
        if (m_options.dryRun) return m_printer->done(mail, std::string("would be ") + what);
        report(mail, action(), what);
    }

    void report(Mail const& mail, Problem const& problem, char const* what) {
        if (!problem.empty()) return fail(mail.id, problem);
        if (!what) return;
        m_printer->done(mail, what);
        note(mail, what);
    }

    static void note(Mail const& mail, char const* what) {
        ::syslog(LOG_MAIL | LOG_NOTICE, "%s: %s, by uid %u", smtp::Printable(mail.path, 1000).c_str(), what,
                 ::getuid());
    }

    void fail(std::string const& id, std::string const& why) {
        m_printer->failed(id, why);
        m_status = kNotAll;
    }

    Options const& m_options;
    Places const m_places;
    std::time_t const m_now;
    std::unique_ptr<Printer> const m_printer;
    int m_status = kDone;
    std::set<std::string> m_finished;  // releases that had been cut off
    unsigned long m_mails = 0, m_held = 0, m_damaged = 0;
    std::uint64_t m_bytes = 0;
};

}  // namespace

int main(int argc, char** argv) try {
    std::signal(SIGPIPE, SIG_IGN);
    Options const options = ParseCommandLine(argc, argv);
    if (!options.problem.empty()) {
        std::fprintf(stderr, "velt-queue: %s\n%s", options.problem.c_str(), kUsageText);
        return kWrong;
    }
    if (options.help) {
        std::fputs(kManual, stdout);
        return Finished(kDone);
    }
    ::openlog("velt-queue", LOG_PID, LOG_MAIL);
    return Finished(Work(options, ReadPlaces(options.configuration)).run());
} catch (std::exception const& failure) {
    return Failed(failure.what());
}
