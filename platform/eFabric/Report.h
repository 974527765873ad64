// Report: one line to syslog (daemon, error) about a configuration file. For what goes wrong before and beneath the
// event log. Any thread. Nothing fails.
#pragma once

#include <string>

#include <Export.h>

namespace eFabric {

using ReportSink = void (*)(std::string const& line);

VELTPLATFORM_API void Report(std::string const& line);
VELTPLATFORM_API ReportSink ExchangeReportSink(ReportSink sink);  // null: syslog; gives the old one. For tests.

}  // namespace eFabric
