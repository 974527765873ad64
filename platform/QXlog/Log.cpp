#include <QXlog/Format.h>
#include <QXlog/Log.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>

namespace QXlog::detail {

Log& Log::Get() {
    static Log& log = *new Log;
    return log;
}

Log::Log() { ::pthread_atfork(OnFork, OnForkParent, OnForkChild); }

void Log::Configure(std::string const& identity, Settings settings) {
    EndWriter();
    Registry::Get().SetRules(settings.switches);
    std::lock_guard const lock(m_mutex);
    CloseLocked();
    m_identity = identity;
    m_settings = std::move(settings);
    ListenLocked();
}

void Log::Open() {
    std::lock_guard const lock(m_mutex);
    OpenLocked();
}

void Log::OpenLocked() {
    if (m_open) return;
    std::vector<std::unique_ptr<Sink>> sinks;
    bool text = false;
    for (SinkSettings const& one : m_settings.sinks) {
        sinks.push_back(MakeSink(one, m_settings.limits, m_identity));
        text = text || one.kind == SinkKind::Text;
    }
    if (m_standardError && !text) sinks.push_back(MakeSink({SinkKind::Text, {}, 0}, m_settings.limits, m_identity));
    m_sinks = std::move(sinks);
    m_open = true;
}

void Log::CloseLocked() {
    ++m_setup;
    m_sinks.clear();
    m_open = false;
}

// Reports are made when somebody takes them: a target in the sinks' place, or a sink.
void Log::ListenLocked() {
    m_hasSinks = !m_settings.sinks.empty() || m_standardError;
    Registry::Get().SetListened(m_hasSinks || m_other.load() != nullptr);
}

void Log::StandardError(bool on) {
    std::lock_guard const lock(m_mutex);
    if (m_standardError == on) return;
    m_standardError = on;
    CloseLocked();
    ListenLocked();
    OpenLocked();
}

void Log::GoAsync() {
    std::lock_guard const lock(m_mutex);
    if (m_writer.load()) return;
    OpenLocked();
    m_writers.push_back(std::make_unique<Writer>(m_settings.queueSize, m_settings.dropWhenFull,
                                                 [this](Record& record) { Deliver(record); }));
    m_writer = m_writers.back().get();
}

bool Log::Drain(int stepMs, int mostSteps) {
    Writer* const writer = m_writer.load();
    return !writer || writer->Drain(stepMs, mostSteps);
}

void Log::EndWriter() {
    if (Writer* const writer = m_writer.exchange(nullptr)) writer->Finish();
}

void Log::Shutdown() {
    EndWriter();
    std::lock_guard const lock(m_mutex);
    CloseLocked();
    m_settings.sinks.clear();
    m_standardError = false;
    ListenLocked();
}

KORlog::Target& Log::Current() {
    KORlog::Target* const other = m_other.load();
    return other ? *other : *this;
}

KORlog::Target* Log::Exchange(KORlog::Target* target) {
    std::lock_guard const lock(m_mutex);
    KORlog::Target* const before = m_other.exchange(target);
    ListenLocked();
    return before;
}

std::string Log::useableSeverities() const { return m_hasSinks ? "all" : ""; }

Record Log::MakeRecord(KORtk::Location const& where, Event const& event, std::string const& text,
                       KORlog::InfoBag const& bag) {
    Record record;
    record.time = std::chrono::system_clock::now();
    record.pid = ::getpid();
    record.event = event.id();
    record.reason = event.reason() ? event.reason()->number() : kNoReason;
    record.words = FindText(record.event, record.reason);
    record.text = text;
    record.file = where.file;
    record.line = where.line;
    record.function = where.function;
    record.bag = bag;
    return record;
}

void Log::write(KORlog::sev::Severity, KORtk::Location const& where, Event const& event, std::string const& text,
                KORlog::InfoBag const& bag) {
    ++m_records;
    Record record = MakeRecord(where, event, text, bag);
    Writer* const writer = m_writer.load();
    switch (writer ? writer->Push(record) : Writer::Pushed::Ended) {
        case Writer::Pushed::Taken:
            return;
        case Writer::Pushed::TakenAfterWait:
            ++m_blocked;
            return;
        case Writer::Pushed::Dropped:
            ++m_dropped;
            return;
        case Writer::Pushed::Ended:
            return Deliver(record);
    }
}

void Log::Deliver(Record& record) {
    std::lock_guard const lock(m_mutex);
    try {
        if (!m_hasSinks) return;
        OpenLocked();
        record.identity = m_identity;
        for (std::unique_ptr<Sink> const& sink : m_sinks) {
            if (!sink->Write(record)) ++m_errors;
        }
    } catch (...) {
        ++m_errors;
    }
}

void Log::Prepare(PreparedReport& report) {
    Record record = MakeRecord(report.m_where, report.m_event, report.m_text, report.m_bag);
    std::lock_guard const lock(m_mutex);
    if (!m_hasSinks) return;
    OpenLocked();
    record.identity = m_identity;
    report.m_setup = m_setup;
    for (std::unique_ptr<Sink> const& sink : m_sinks) report.m_bytes.push_back(sink->Prepare(record));
}

void Log::EmitPrepared(PreparedReport& report) {
    if (!is_loggable(report.m_event)) return;
    if (KORlog::Target* const other = m_other.load())
        return other->sendlog(KORlog::sev::no_sev, report.m_where, report.m_event, report.m_text, report.m_bag);
    ++m_records;
    if (!m_hasSinks || report.m_setup != m_setup) return;
    auto const now = std::chrono::system_clock::now();
    for (std::size_t i = 0; i < report.m_bytes.size(); ++i) {
        PreparedBytes& prepared = report.m_bytes[i];
        if (prepared.timeAt != PreparedBytes::kNoTime) WriteTime(&prepared.bytes[prepared.timeAt], now);
        if (!m_sinks[i]->Emit(prepared)) ++m_errors;
    }
}

// A child of a process with a writer thread has none: it writes its reports itself, and leaves the parent's to it.
void Log::OnFork() {
    Log& log = Get();
    log.m_mutex.lock();
    if (Writer* const writer = log.m_writer.load()) writer->LockForFork();
    Registry::Get().LockForFork();
}

void Log::OnForkParent() {
    Log& log = Get();
    Registry::Get().UnlockAfterFork();
    if (Writer* const writer = log.m_writer.load()) writer->UnlockAfterFork();
    log.m_mutex.unlock();
}

void Log::OnForkChild() {
    Log& log = Get();
    Registry::Get().UnlockAfterFork();
    log.m_writer.store(nullptr);
    log.m_mutex.unlock();
}

}  // namespace QXlog::detail
