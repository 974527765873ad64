// What a host's session may tell the engines of the item's road, as properties of "ES_SCANRESSUBSTITUTIONS". Each may
// be absent. A text for people may use them as marks, such as %SENDER%. Constants; nothing fails.
#pragma once

namespace eFabric::session {

inline constexpr char kSender[] = "SENDER";                 // envelope sender; empty: the null sender
inline constexpr char kRecipients[] = "RECIPIENTS";         // envelope recipients, one element each
inline constexpr char kClientAddress[] = "CLIENT_ADDRESS";  // of the other side
inline constexpr char kClientName[] = "CLIENT_NAME";        // what it calls itself

}  // namespace eFabric::session
