#include <policyloader/engines/SpamdClient.h>

#include <algorithm>
#include <string>

#include <policyloader/engines/EngineFailure.h>

namespace policyloader {
namespace {

constexpr std::size_t kMostReply = 1u << 20;

// All that comes until the server closes.
std::string ReadReply(ServerConnection& connection, Patience& patience) {
    std::string reply;
    char room[4096];
    while (std::size_t const got = connection.receive(room, sizeof room, patience)) {
        reply.append(room, got);
        if (reply.size() > kMostReply) throw EngineFailure(FailureId::ServerAnswer, "a reply without an end");
    }
    return reply;
}

}  // namespace

// The protocol has no place for the envelope; these fields the server looks for at the top of a message.
std::string FieldsOf(Envelope const& envelope) {
    if (!envelope.isKnown) return {};
    std::string fields = "X-Envelope-From: <" + envelope.sender + ">\r\n";
    std::size_t const told = std::min(envelope.recipients.size(), kMostRecipientsTold);
    for (std::size_t i = 0; i < told; ++i) fields += (i ? ",\r\n\t" : "X-Envelope-To: ") + envelope.recipients[i];
    return told ? fields + "\r\n" : fields;
}

// What it says to a message that it did not read to its end counts too: it is a refusal, or rubbish.
SpamJudgement AskSpamd(ServerAddress const& server, SpamQuestion const& question, Patience& patience) {
    ServerConnection connection(server, patience);
    std::string const fields = FieldsOf(question.envelope);
    std::string const length = std::to_string(fields.size() + question.message.size());
    std::string const head = "REPORT SPAMC/1.5\r\nContent-length: " + length + "\r\n\r\n";
    bool const taken = connection.send({head, fields, question.message}, patience);
    if (taken) connection.endSending();
    auto const reply = ReadReply(connection, patience);
    if (reply.empty()) throw EngineFailure(FailureId::ServerAway, "left before it had answered");
    auto answer = SpamAnswer::parseSpamd(reply);
    if (answer.kind == SpamAnswer::Refused) throw EngineFailure(FailureId::ServerRefused, answer.text);
    if (answer.kind == SpamAnswer::Rubbish) throw EngineFailure(FailureId::ServerAnswer, answer.text);
    if (!taken) throw EngineFailure(FailureId::ServerAnswer, "judged what it had not seen to its end");
    return std::move(answer.judgement);
}

}  // namespace policyloader
