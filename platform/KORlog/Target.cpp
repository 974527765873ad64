#include <KORlog/Target.h>

namespace KORlog {

namespace sev {
Severity const no_sev{0};
}

Target::~Target() = default;

void Target::sendlog(sev::Severity severity, KORtk::Location const& where, QXlog::Event const& event,
                     std::string const& text, InfoBag const& bag) noexcept {
    try {
        if (useableSeverities().empty()) return;
        std::string const file = where.file ? where.file : "";
        std::string const function = where.function ? where.function : "";
        write(severity, KORtk::Location{file.c_str(), where.line, function.c_str()}, event, text, bag);
    } catch (...) {  // a report that fails does not disturb who makes it
    }
}

}  // namespace KORlog
