#include <QXlog/QXlog.h>
#include <QXlog/Registry.h>

#include <atomic>

namespace QXlog {
namespace {

std::atomic<KORlog::Target*> s_target{nullptr};

class NoSinks : public KORlog::Target {
    std::string useableSeverities() const override { return {}; }
    void write(KORlog::sev::Severity, KORtk::Location const&, Event const&, std::string const&,
               KORlog::InfoBag const&) override {}
};

}  // namespace

void init(std::string const&, std::string const&) { detail::Registry::Get().SetAllowed(true); }
void initEvRep(int, int) {}
void goAsyncEvRep(int) {}
void shutdownEvRep() {}

namespace detail {

KORlog::Target& get_qxtarget() {
    static NoSinks& none = *new NoSinks;
    KORlog::Target* const target = s_target.load();
    return target ? *target : none;
}

KORlog::Target* exchange_qxtarget(KORlog::Target* target) {
    KORlog::Target* const before = s_target.exchange(target);
    Registry::Get().SetListened(target);
    return before;
}

void noLogging() { allowLogging(false); }
bool allowLogging(bool on) { return Registry::Get().SetAllowed(on); }
void stdErrLogging(bool) {}

}  // namespace detail
}  // namespace QXlog
