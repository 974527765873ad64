// The settings of section "smtp", and the snapshot of them with which a session works.
// Owner: the session. Thread: the session's. Units: in the names; times are read in seconds and kept in milliseconds.
// Failure: a setting that is absent or unusable is its default, one out of its bounds is brought into them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <velt/Config.h>
#include <velt/config_details/commdef.h>

#include "BackOff.h"

namespace VELTCFG::smtp {

using VELT::config_attribute::SettingText;
namespace cfg = VELT::config_attribute;

struct attrname_RelayHost {
    static constexpr SettingText text{"smtp", "RelayHost", "",
                                      "Name or address of the server that takes all mail. Empty: each domain's mail "
                                      "exchangers do, and clients from outside may send to AcceptDomains only."};
};
struct defaults_RelayHost {
    static constexpr char const* value = "";
};
using RelayHost = cfg::unbounded<attrname_RelayHost, VELT::CharBuf, defaults_RelayHost>;

struct attrname_RelayPort {
    static constexpr SettingText text{"smtp", "RelayPort", "port", "Port of the relay host and of mail exchangers."};
};
using RelayPort = cfg::bounded<attrname_RelayPort, unsigned short, cfg::integral_bounds<unsigned short, 25, 1, 65535>>;

struct attrname_GreetingName {
    static constexpr SettingText text{"smtp", "GreetingName", "",
                                      "What the gateway calls itself to clients, to servers and in Received: lines. "
                                      "Empty: the full name of the machine."};
};
struct defaults_GreetingName {
    static constexpr char const* value = "";
};
using GreetingName = cfg::unbounded<attrname_GreetingName, VELT::CharBuf, defaults_GreetingName>;

struct attrname_TransparentSource {
    static constexpr SettingText text{"smtp", "TransparentSource", "",
                                      "Whose address the server sees of an intercepted session: \"client\", or "
                                      "\"gateway\"."};
};
struct defaults_TransparentSource {
    static constexpr char const* value = "client";
};
using TransparentSource = cfg::unbounded<attrname_TransparentSource, VELT::CharBuf, defaults_TransparentSource>;

struct listname_AcceptDomains {
    static constexpr SettingText text{"smtp", "AcceptDomains", "patterns",
                                      "Recipient domains that clients from outside may send to; wildcards * and ?. "
                                      "Without any: all, if there is a RelayHost to judge them, otherwise none."};
};
using AcceptDomains = cfg::list<listname_AcceptDomains, VELT::CharBuf>;

struct attrname_DifferentIdentity {
    static constexpr SettingText text{"smtp", "DifferentIdentity", "",
                                      "What a recipient gets whose identity is not that of the first one: \"split\" "
                                      "scans and delivers per identity; \"defer\" answers 452, so that the client "
                                      "sends to it in a transaction of its own."};
};
struct defaults_DifferentIdentity {
    static constexpr char const* value = "split";
};
using DifferentIdentity = cfg::unbounded<attrname_DifferentIdentity, VELT::CharBuf, defaults_DifferentIdentity>;

struct attrname_RefusedText {
    static constexpr SettingText text{"smtp", "RefusedText", "",
                                      "Begin of the answer to a message that policy refuses; the finding follows."};
};
struct defaults_RefusedText {
    static constexpr char const* value = "message refused";
};
using RefusedText = cfg::unbounded<attrname_RefusedText, VELT::CharBuf, defaults_RefusedText>;

struct attrname_UncheckedText {
    static constexpr SettingText text{"smtp", "UncheckedText", "",
                                      "Answer to a message that could not be scanned; the client tries again."};
};
struct defaults_UncheckedText {
    static constexpr char const* value = "message could not be checked, try again later";
};
using UncheckedText = cfg::unbounded<attrname_UncheckedText, VELT::CharBuf, defaults_UncheckedText>;

struct attrname_MaxCommandLine {
    static constexpr SettingText text{"smtp", "MaxCommandLine", "bytes",
                                      "Longest command, with its line end. NetMem bounds it too."};
};
using MaxCommandLine =
    cfg::bounded<attrname_MaxCommandLine, unsigned, cfg::integral_bounds<unsigned, 2048, 512, 65535>>;

struct attrname_MaxTextLine {
    static constexpr SettingText text{"smtp", "MaxTextLine", "bytes",
                                      "Longest line of a message, with its line end. 0: no limit."};
};
using MaxTextLine = cfg::bounded<attrname_MaxTextLine, unsigned, cfg::integral_bounds<unsigned, 1000, 0, 4294967295>>;

struct attrname_MaxHeaderSize {
    static constexpr SettingText text{"smtp", "MaxHeaderSize", "KiB", "Largest header of a message. 0: no limit."};
};
using MaxHeaderSize = cfg::bounded<attrname_MaxHeaderSize, unsigned, cfg::integral_bounds<unsigned, 256, 0, 65535>>;

struct attrname_MaxMessageSize {
    static constexpr SettingText text{"smtp", "MaxMessageSize", "KiB", "Largest message; offered to clients as SIZE."};
};
using MaxMessageSize =
    cfg::bounded<attrname_MaxMessageSize, unsigned, cfg::integral_bounds<unsigned, 51200, 1, 4000000>>;

struct attrname_MaxRecipients {
    static constexpr SettingText text{"smtp", "MaxRecipients", "recipients",
                                      "Recipients of one message; the client sends to further ones afterwards."};
};
using MaxRecipients = cfg::bounded<attrname_MaxRecipients, unsigned, cfg::integral_bounds<unsigned, 1000, 1, 65535>>;

struct attrname_MaxErrors {
    static constexpr SettingText text{"smtp", "MaxErrors", "errors", "Errors of one session before it is ended."};
};
using MaxErrors = cfg::bounded<attrname_MaxErrors, unsigned, cfg::integral_bounds<unsigned, 20, 1, 65535>>;

struct attrname_MaxIdleCommands {
    static constexpr SettingText text{"smtp", "MaxIdleCommands", "commands",
                                      "Commands that move no mail, between two messages, before the session is ended."};
};
using MaxIdleCommands = cfg::bounded<attrname_MaxIdleCommands, unsigned, cfg::integral_bounds<unsigned, 100, 1, 65535>>;

struct attrname_MaxHops {
    static constexpr SettingText text{"smtp", "MaxHops", "lines",
                                      "Received: lines at which a message counts as going in circles."};
};
using MaxHops = cfg::bounded<attrname_MaxHops, unsigned, cfg::integral_bounds<unsigned, 100, 1, 65535>>;

struct attrname_CommandTimeout {
    static constexpr SettingText text{"smtp", "CommandTimeout", "seconds", "Longest wait for a client's next command."};
};
using CommandTimeout = cfg::bounded<attrname_CommandTimeout, unsigned, cfg::integral_bounds<unsigned, 300, 1, 3600>>;

struct attrname_DataTimeout {
    static constexpr SettingText text{"smtp", "DataTimeout", "seconds",
                                      "Longest wait for the next bytes of a client's message."};
};
using DataTimeout = cfg::bounded<attrname_DataTimeout, unsigned, cfg::integral_bounds<unsigned, 300, 1, 3600>>;

struct attrname_MinDataRate {
    static constexpr SettingText text{"smtp", "MinDataRate", "bytes per second",
                                      "A message that comes, or leaves, more slowly than this for as long as its "
                                      "timeout counts as stalled. 0: no limit."};
};
using MinDataRate = cfg::bounded<attrname_MinDataRate, unsigned, cfg::integral_bounds<unsigned, 500, 0, 1000000>>;

struct attrname_UpstreamGreetingTimeout {
    static constexpr SettingText text{"smtp", "UpstreamGreetingTimeout", "seconds",
                                      "Longest wait for the next server's greeting."};
};
using UpstreamGreetingTimeout =
    cfg::bounded<attrname_UpstreamGreetingTimeout, unsigned, cfg::integral_bounds<unsigned, 300, 1, 3600>>;

struct attrname_UpstreamCommandTimeout {
    static constexpr SettingText text{"smtp", "UpstreamCommandTimeout", "seconds",
                                      "Longest wait for the next server's answer to EHLO, MAIL and RCPT."};
};
using UpstreamCommandTimeout =
    cfg::bounded<attrname_UpstreamCommandTimeout, unsigned, cfg::integral_bounds<unsigned, 300, 1, 3600>>;

struct attrname_UpstreamDataTimeout {
    static constexpr SettingText text{"smtp", "UpstreamDataTimeout", "seconds",
                                      "Longest wait for the next server's answer to DATA."};
};
using UpstreamDataTimeout =
    cfg::bounded<attrname_UpstreamDataTimeout, unsigned, cfg::integral_bounds<unsigned, 120, 1, 3600>>;

struct attrname_UpstreamBlockTimeout {
    static constexpr SettingText text{"smtp", "UpstreamBlockTimeout", "seconds",
                                      "Longest wait for the next server to take more of a message."};
};
using UpstreamBlockTimeout =
    cfg::bounded<attrname_UpstreamBlockTimeout, unsigned, cfg::integral_bounds<unsigned, 180, 1, 3600>>;

struct attrname_UpstreamFinalTimeout {
    static constexpr SettingText text{"smtp", "UpstreamFinalTimeout", "seconds",
                                      "Longest wait for the next server's answer to a whole message."};
};
using UpstreamFinalTimeout =
    cfg::bounded<attrname_UpstreamFinalTimeout, unsigned, cfg::integral_bounds<unsigned, 600, 1, 3600>>;

struct attrname_StoreAndForward {
    static constexpr SettingText text{"smtp", "StoreAndForward", "",
                                      "A message that the next server cannot take now is written to the deferred "
                                      "directory, and its client is told that it is taken. A retryer has to run that "
                                      "delivers it. Off: the client keeps it and tries again."};
};
using StoreAndForward = cfg::bounded<attrname_StoreAndForward, bool, cfg::bool_bounds<false>>;

struct attrname_KeepAfter {
    static constexpr SettingText text{"smtp", "KeepAfter", "seconds",
                                      "With StoreAndForward: a message whose delivery takes so long is kept for the "
                                      "recipients that were not reached by then, and its client answered."};
};
using KeepAfter = cfg::bounded<attrname_KeepAfter, unsigned, cfg::integral_bounds<unsigned, 120, 1, 3600>>;

struct attrname_RetryPause {
    static constexpr SettingText text{"smtp", "RetryPause", "seconds",
                                      "How long a retryer leaves a destination alone, or a message that was put off, "
                                      "after the first failure; twice as long after each further one. A message rests "
                                      "for RetryInterval at least."};
};
using RetryPause = cfg::bounded<attrname_RetryPause, unsigned, cfg::integral_bounds<unsigned, 300, 1, 86400>>;

struct attrname_RetryPauseLimit {
    static constexpr SettingText text{"smtp", "RetryPauseLimit", "seconds", "The longest of these pauses."};
};
using RetryPauseLimit =
    cfg::bounded<attrname_RetryPauseLimit, unsigned, cfg::integral_bounds<unsigned, 4000, 1, 86400>>;

struct attrname_RetryPatience {
    static constexpr SettingText text{"smtp", "RetryPatience", "seconds",
                                      "How long a retryer's try of a destination that is not known to answer may take "
                                      "until the message goes out; twice as long after each failure in a row."};
};
using RetryPatience = cfg::bounded<attrname_RetryPatience, unsigned, cfg::integral_bounds<unsigned, 45, 1, 3600>>;

struct attrname_GiveUpAfter {
    static constexpr SettingText text{"smtp", "GiveUpAfter", "seconds",
                                      "A message that waited for so long is tried once more, given up, and its sender "
                                      "told."};
};
using GiveUpAfter = cfg::bounded<attrname_GiveUpAfter, unsigned, cfg::integral_bounds<unsigned, 432000, 1, 4294967>>;

using Settings = cfg::setting_list<RelayHost, RelayPort, GreetingName, AcceptDomains, DifferentIdentity, RefusedText,
                                   UncheckedText, MaxCommandLine, MaxTextLine, MaxHeaderSize, MaxMessageSize,
                                   MaxRecipients, MaxErrors, MaxIdleCommands, MaxHops, CommandTimeout, DataTimeout,
                                   MinDataRate, UpstreamGreetingTimeout, UpstreamCommandTimeout, UpstreamDataTimeout,
                                   UpstreamBlockTimeout, UpstreamFinalTimeout, TransparentSource, StoreAndForward,
                                   KeepAfter, RetryPause, RetryPauseLimit, RetryPatience, GiveUpAfter>;

}  // namespace VELTCFG::smtp

namespace VELT {
class TCPConnection;
}

namespace smtp {

struct UpstreamTimeouts {
    unsigned greetingMs = 300000;
    unsigned commandMs = 300000;
    unsigned dataMs = 120000;
    unsigned blockMs = 180000;
    unsigned finalMs = 600000;
    unsigned minRate = 500;  // bytes per second
};

// What is kept when it cannot be delivered, and for how long.
struct KeepSettings {
    bool enabled = false;
    std::string directory;   // "/" at its end
    std::string quarantine;  // the directory of mail that policy says to keep; the same
    std::chrono::seconds after{120};
    PauseLimits pause;
    std::chrono::seconds patience{45};  // with the first try of a destination, until the message goes out
    std::int64_t giveUpSeconds = 432000;
    std::int64_t lookSeconds = 310;  // between two looks of a retryer that is not held up

    // What is beyond this between two looks does not count towards the age of a mail.
    std::int64_t longestGap() const { return giveUpSeconds / 10 + 2 * lookSeconds; }
};

KeepSettings ReadKeepSettings(VELT::Config& config);

struct SessionSettings {
    explicit SessionSettings(VELT::Config& config);

    // The session was intercepted on its way to this server: no other one is its relay.
    void RelayTo(VELT::TCPConnection const& server);

    std::string relayHost;
    unsigned short relayPort;
    bool keptServer = false;  // these two are of one message that waits
    bool transparent = false;
    bool showsClient;  // to the server of a transparent session
    std::string greetingName;
    std::vector<std::string> acceptDomains;
    bool deferDifferentIdentity;
    std::string refusedText;
    std::string uncheckedText;
    std::size_t maxCommandLine;
    std::size_t maxTextLine;
    std::size_t maxHeaderBytes;
    std::uint64_t maxMessageBytes;
    std::size_t maxRecipients;
    unsigned maxErrors;
    unsigned maxIdleCommands;
    std::size_t maxHops;
    unsigned commandTimeoutMs;
    unsigned minDataRate;
    unsigned dataTimeoutMs;
    UpstreamTimeouts upstream;
    KeepSettings keep;
};

}  // namespace smtp
