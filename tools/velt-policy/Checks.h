// The checks of a loaded configuration, each of one matter. They find what a gateway passes over in silence.
// Thread: the World's. Failure: what cannot be read is a finding.
#pragma once

#include <string>
#include <vector>

#include "tools/velt-policy/Findings.h"
#include "tools/velt-policy/World.h"

namespace velt_policy {

// The store: settings that nobody reads, values that are not taken as they are written, rules that do not compile.
// Sections of `own` belong to hosts of the administrator's.
void CheckSettings(World const& world, std::vector<std::string> const& own, Findings& findings);

// identities.xml against the store and ldap.txt: identities without their other half, conditions that never hold.
void CheckIdentities(World const& world, Findings& findings);

// inside.txt, outside.txt, ldap.txt, bwserver.txt: lines that are dropped, or mean other than they say.
void CheckNetworkLists(Findings& findings);
void CheckServerFiles(Findings& findings);

// *-logging.xml; of one proxy only where one is named.
void CheckLogging(World const& world, Findings& findings);

// Files of the configuration that this proxy does not read.
std::vector<std::string> UnreadFiles(Choice const& choice);

inline Spot SpotOf(policyloader::Place const& place) { return {place.file, place.line, place.column}; }
inline Spot SpotOf(RulePlace const& place) { return {place.file, place.line, place.column}; }
inline std::string Quoted(std::string const& text) { return '"' + text + '"'; }

}  // namespace velt_policy
