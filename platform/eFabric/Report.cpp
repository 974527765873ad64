#include <eFabric/Report.h>

#include <syslog.h>

#include <atomic>

namespace eFabric {
namespace {

void ToSyslog(std::string const& line) { ::syslog(LOG_DAEMON | LOG_ERR, "%s", line.c_str()); }

std::atomic<ReportSink> s_sink{&ToSyslog};

}  // namespace

void Report(std::string const& line) { s_sink.load()(line); }

ReportSink ExchangeReportSink(ReportSink sink) { return s_sink.exchange(sink ? sink : &ToSyslog); }

}  // namespace eFabric
