#include <QXlog/Log.h>
#include <QXlog/QXlog.h>
#include <QXlog/Registry.h>

namespace QXlog {

void init(std::string const& identity, std::string const& file) {
    detail::Settings settings = detail::ReadSettings(file);
    detail::Log::Get().Configure(identity, std::move(settings));
    detail::allowLogging(true);
}

void initEvRep(int, int) { detail::Log::Get().Open(); }
void goAsyncEvRep(int) { detail::Log::Get().GoAsync(); }
void shutdownEvRep() { detail::Log::Get().Shutdown(); }

namespace detail {

KORlog::Target& get_qxtarget() { return Log::Get().Current(); }
KORlog::Target* exchange_qxtarget(KORlog::Target* target) { return Log::Get().Exchange(target); }
void noLogging() { allowLogging(false); }
bool allowLogging(bool on) { return Registry::Get().SetAllowed(on); }
bool drain(int stepMs, int mostSteps) { return Log::Get().Drain(stepMs, mostSteps); }

std::unique_ptr<PreparedReport> prepare(Event const& event, KORtk::Location where, std::string text,
                                        KORlog::InfoBag bag) {
    auto report = std::make_unique<PreparedReport>(event, where, std::move(text), std::move(bag));
    Log::Get().Prepare(*report);
    return report;
}

void emit_prepared(PreparedReport& report) { Log::Get().EmitPrepared(report); }

void stdErrLogging(bool on) { Log::Get().StandardError(on); }

}  // namespace detail
}  // namespace QXlog
