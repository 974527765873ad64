// Settings: what <proxy>-logging.xml says (docs/formats/logging-xml.md).
// Value. Failure: ReadSettings throws KORtk::Exception, "file:line:column: reason", unless there is no such file, which
// gives the default: every event, to syslog.
#pragma once

#include <Export.h>
#include <QXlog/Record.h>
#include <QXlog/Registry.h>

#include <cstddef>
#include <string>
#include <vector>

namespace QXlog::detail {

enum class SinkKind { Journal, Syslog, Json, Text };

struct SinkSettings {
    SinkKind kind;
    std::string file;  // of a JSON sink; empty: standard error
    int facility;      // of syslog, as syslog(3) has it
};

struct Settings {
    std::vector<SinkSettings> sinks;  // never empty when read
    SwitchRules switches;
    Limits limits;
    std::size_t queueSize = 8192;  // records that wait for the writer thread
    bool dropWhenFull = false;     // otherwise who reports waits
};

VELTPLATFORM_API Settings ReadSettings(std::string const& file);

}  // namespace QXlog::detail
