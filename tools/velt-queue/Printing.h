// Mails, and what was done to them, on the standard output: for people, or a line of JSON each. Thread: one.
#pragma once

#include <ctime>
#include <memory>
#include <string>

#include "tools/velt-queue/Mail.h"

namespace velt_queue {

class Printer {
public:
    virtual ~Printer() = default;
    virtual void list(Mail const& mail) = 0;
    virtual void show(Mail const& mail, std::string const& header) = 0;
    virtual void total(unsigned long mails, unsigned long held, unsigned long damaged, std::uint64_t bytes) = 0;
    virtual void done(Mail const& mail, std::string const& what) = 0;  // "released", "would be deleted"
    virtual void failed(std::string const& id, std::string const& why) = 0;

    static std::unique_ptr<Printer> forPeople(std::time_t now, std::string const& relay);
    static std::unique_ptr<Printer> json(std::time_t now, std::string const& relay);
};

std::string SpanOf(std::time_t seconds);  // "3d 4h", "12m", "5s"

}  // namespace velt_queue
