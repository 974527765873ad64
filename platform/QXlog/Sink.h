// Sink: where records end: journal, syslog, a file of JSON lines, standard error.
// Owner: the log. Threads: one at a time, under the log's lock. Failure: MakeSink throws KORtk::Exception when the sink
// cannot be opened; Write answers false when the record could not be written.
#pragma once

#include <QXlog/Prepared.h>
#include <QXlog/Record.h>
#include <QXlog/Settings.h>

#include <memory>
#include <string>

namespace QXlog::detail {

class Sink {
public:
    virtual ~Sink() = default;
    Sink(Sink const&) = delete;
    Sink& operator=(Sink const&) = delete;

    virtual bool Write(Record const& record) = 0;

    virtual PreparedBytes Prepare(Record const& record) = 0;
    virtual bool Emit(PreparedBytes const& prepared) = 0;  // from a signal handler, also while a Write is interrupted

protected:
    Sink() = default;
};

std::unique_ptr<Sink> MakeSink(SinkSettings const& settings, Limits const& limits, std::string const& identity);

}  // namespace QXlog::detail
