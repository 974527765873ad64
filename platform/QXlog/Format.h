// The forms of a record: a line of text, a line of JSON, the fields of the journal.
// Threads: any. Every form is cut to the limits, and stays well-formed when it is; nothing in it breaks a line.
#pragma once

#include <QXlog/Record.h>

#include <string>
#include <vector>

namespace QXlog::detail {

// "10003:68 session begins: connection.source_ip=192.0.2.1 ..."; values of nested bags under their path.
std::string FormatMessage(Record const& record, Limits const& limits);
// The message behind time, identity and process, with a line's end.
std::string FormatText(Record const& record, Limits const& limits);
// {"time":...,"identity":...,"pid":...,"event":...,"reason":...,"words":...,"values":{...}} with a line's end. A key
// that a bag has twice has the list of its values.
std::string FormatJson(Record const& record, Limits const& limits);
// "FIELD=value" each; values of the bag as VELT_CONNECTION_SOURCE_IP.
std::vector<std::string> FormatJournal(Record const& record, Limits const& limits);
std::string FormatTime(std::chrono::system_clock::time_point time);  // "2024-05-01T12:00:00.123456Z"
constexpr std::size_t kTimeLength = 27;
// The same over what stands at `to`, for a signal handler. Years of four digits.
void WriteTime(char* to, std::chrono::system_clock::time_point time);

}  // namespace QXlog::detail
