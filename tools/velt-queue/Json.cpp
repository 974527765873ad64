// Mails as JSON.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/velt-queue/Printing.h"

namespace velt_queue {
namespace {

using Json = nlohmann::ordered_json;

Json OrNull(std::string const& text) { return text.empty() ? Json() : Json(text); }
Json OrNull(std::int64_t time) { return time > 0 ? Json(time) : Json(); }

// Headers may be any bytes.
void PrintLine(Json const& json) {
    std::printf("%s\n", json.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

class Lines final : public Printer {
public:
    Lines(std::time_t now, std::string relay) : m_now(now), m_relay(std::move(relay)) {}

    void list(Mail const& mail) override { PrintLine(jsonOf(mail)); }

    void show(Mail const& mail, std::string const& header) override {
        Json json = jsonOf(mail);
        json["header"] = header;
        PrintLine(json);
    }

    void total(unsigned long, unsigned long, unsigned long, std::uint64_t) override {}

    void done(Mail const& mail, std::string const& what) override {
        PrintLine({{"id", mail.id}, {"queue", NameOf(mail.queue)}, {"done", what}, {"problem", nullptr}});
    }

    void failed(std::string const& id, std::string const& why) override {
        PrintLine({{"id", id}, {"queue", nullptr}, {"done", nullptr}, {"problem", why}});
    }

private:
    Json jsonOf(Mail const& mail) const {
        Json json;
        json["id"] = mail.id;
        json["queue"] = NameOf(mail.queue);
        json["file"] = mail.path;
        json["problem"] = OrNull(mail.problem);
        if (!mail.isReadable()) return json;
        addEnvelope(json, mail);
        addStatus(json, mail);
        return json;
    }

    void addEnvelope(Json& json, Mail const& mail) const {
        smtp::RetryEnvelope const& envelope = mail.envelope;
        json["audit_id"] = envelope.auditId;
        json["session"] = OrNull(envelope.conversationId);
        json["client"] = OrNull(envelope.clientAddress);
        json["hello"] = OrNull(envelope.helloName);
        json["taken"] = envelope.taken;
        json["age"] = m_now - envelope.taken;
        json["size"] = mail.size;
        json["sender"] = envelope.sender;
        json["recipients"] = Json::array();
        for (std::size_t i = 0; i < envelope.recipients.size(); ++i) {
            json["recipients"].push_back({{"address", envelope.recipients[i].address},
                                          {"identity", OrNull(envelope.recipients[i].identity)},
                                          {"state", stateOf(mail.status.recipients[i])}});
        }
        json["destination"] = OrNull(DestinationOf(mail, m_relay));
        json["action"] = OrNull(envelope.action);
        json["finding"] = OrNull(envelope.finding);
    }

    void addStatus(Json& json, Mail const& mail) const {
        smtp::RetryStatus const& status = mail.status;
        json["held"] = mail.isHeld();
        json["locked"] = mail.locked;
        json["tries"] = status.tries;
        json["last"] = OrNull(status.last);
        json["due"] = OrNull(status.due);
        json["asked"] = OrNull(status.asked());
        json["released"] = OrNull(status.released);
        json["unsure"] = status.unsure;
        json["reason"] = OrNull(status.reason);
    }

    static char const* stateOf(smtp::RetryStatus::Recipient state) {
        using State = smtp::RetryStatus::Recipient;
        if (state == State::Waiting) return "waits";
        if (state == State::Delivered) return "delivered";
        return state == State::Held ? "held" : "failed";
    }

    std::time_t const m_now;
    std::string const m_relay;
};

}  // namespace

std::unique_ptr<Printer> Printer::json(std::time_t now, std::string const& relay) {
    return std::make_unique<Lines>(now, relay);
}

}  // namespace velt_queue
