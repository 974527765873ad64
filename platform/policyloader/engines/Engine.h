// Engine: one scan engine of one scan thread. A scan shows it the object as it came in, every header block, and the
// decoded content of every part, all in pieces; at the end it reports at most one result.
// Owner: the scan thread; nothing here is shared between threads.
// Failure: every operation may throw EngineFailure or std::bad_alloc; the engine is then out of this scan, and an
// error result stands in its place.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <policyloader/engines/Component.h>
#include <policyloader/engines/EntityHead.h>
#include <policyloader/engines/ScanPlan.h>

namespace policyloader {

class ResultSet;

enum class EngineType : unsigned long {
    AntiVirus = 1,
    Content = 2,
    MailFilter = 3,
    Format = 4,
    AntiSpam = 5,
    Info = 6
};

inline constexpr char kAntiVirusName[] = "KORAVScanner";
inline constexpr char kContentName[] = "KORContentScanner";
inline constexpr char kSpamName[] = "SpamScanner";
inline constexpr char kMailFilterName[] = "KORMailFilter";
inline constexpr char kFormatName[] = "KORFormatScanner";
inline constexpr char kInfoName[] = "KORInfoScanner";

// Why no engine can see what an archive holds.
enum class Unreadable { Encrypted, Broken };

// What one engine does with one content.
class ComponentScan {
public:
    virtual ~ComponentScan() = default;
    virtual void data(std::string_view piece) = 0;
    virtual void end() = 0;
};

class Engine {
public:
    virtual ~Engine() = default;
    virtual char const* name() const = 0;
    virtual EngineType type() const = 0;

    // A new object; what the last one left is forgotten. False: the plan has no work for it. The plan outlives the
    // scan.
    virtual bool begin(ScanPlan const& plan) = 0;
    virtual std::unique_ptr<ComponentScan> object(Component&) { return nullptr; }    // as it came in, or salvaged
    virtual void head(EntityHead const&, Component&) {}                              // of each message and part
    virtual std::unique_ptr<ComponentScan> open(EntityHead const&, Component&) = 0;  // its content; null: no interest
    virtual void unreadable(Component&, Unreadable, std::string const&) {}           // an archive, or some of it
    virtual void report(ResultSet& results) = 0;
};

}  // namespace policyloader
