// Log: the target behind the configured sinks.
// Owner: one, immortal, as threads may report while the process ends. Threads: reports from any; the set-up calls from
// one at a time. Failure: Open throws; a report never does.
#pragma once

#include <QXStats/QXCounter.h>
#include <QXlog/Prepared.h>
#include <QXlog/QXlog.h>
#include <QXlog/Settings.h>
#include <QXlog/Sink.h>
#include <QXlog/Writer.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace QXlog::detail {

class Log : public KORlog::Target {
public:
    static Log& Get();

    void Configure(std::string const& identity, Settings settings);
    void Open();
    void GoAsync();
    bool Drain(int stepMs, int mostSteps);
    void Shutdown();
    void StandardError(bool on);

    KORlog::Target& Current();
    KORlog::Target* Exchange(KORlog::Target* target);

    std::string useableSeverities() const override;
    void write(KORlog::sev::Severity severity, KORtk::Location const& where, Event const& event,
               std::string const& text, KORlog::InfoBag const& bag) override;

    void Prepare(PreparedReport& report);
    void EmitPrepared(PreparedReport& report);  // from a signal handler, also while this thread is in here

private:
    static Record MakeRecord(KORtk::Location const& where, Event const& event, std::string const& text,
                             KORlog::InfoBag const& bag);
    Log();
    void OpenLocked();
    void CloseLocked();
    void ListenLocked();
    void Deliver(Record& record);
    void EndWriter();
    static void OnFork();
    static void OnForkParent();
    static void OnForkChild();

    std::atomic<KORlog::Target*> m_other{nullptr};
    std::atomic<bool> m_hasSinks{false};
    std::atomic<Writer*> m_writer{nullptr};  // the one at work, or null
    std::atomic<unsigned long> m_setup{0};   // counts the sets of sinks

    std::mutex m_mutex;                              // guards all below; taken before the registry's
    std::vector<std::unique_ptr<Writer>> m_writers;  // all of them, for ever: a report may be on its way into one
    std::string m_identity;
    Settings m_settings;
    bool m_open = false;
    bool m_standardError = false;
    std::vector<std::unique_ptr<Sink>> m_sinks;

    QXStats::QXCounter m_records{"logging.records"};
    QXStats::QXCounter m_errors{"logging.sink.errors"};
    QXStats::QXCounter m_blocked{"logging.queue.blocked"};
    QXStats::QXCounter m_dropped{"logging.queue.dropped"};
};

}  // namespace QXlog::detail
