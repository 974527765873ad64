#include <policyloader/engines/RspamdClient.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <curl/curl.h>

#include <policyloader/engines/EngineFailure.h>

namespace policyloader {
namespace {

constexpr std::size_t kMostBody = 1u << 20;
constexpr long kMostToConnect = 5000;  // ms

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

// Fields of the request.
class Fields {
public:
    void add(std::string const& field) {
        auto* const longer = curl_slist_append(m_list.get(), field.c_str());
        if (!longer) throw std::bad_alloc();
        static_cast<void>(m_list.release());
        m_list.reset(longer);
    }
    curl_slist* get() const { return m_list.get(); }

private:
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> m_list{nullptr, &curl_slist_free_all};
};

// Without encryption there is nothing else to set up; it is never undone, as threads may still ask.
void StartLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_NOTHING); });
}

std::size_t Take(char* bytes, std::size_t, std::size_t count, void* reply) {
    auto& text = *static_cast<std::string*>(reply);
    if (text.size() + count > kMostBody) return 0;
    text.append(bytes, count);
    return count;
}

template <class Value>
void Set(CURL* handle, CURLoption option, Value value) {
    if (curl_easy_setopt(handle, option, value) != CURLE_OK)
        throw EngineFailure(FailureId::Internal, "the HTTP library lacks an option");
}

void SetServer(CURL* handle, ServerAddress const& server) {
    if (server.isLocal()) Set(handle, CURLOPT_UNIX_SOCKET_PATH, server.text.c_str());
    std::string const host = server.isLocal() ? "localhost" : server.text;
    Set(handle, CURLOPT_URL, ("http://" + host + "/checkv2").c_str());
    Set(handle, CURLOPT_PROXY, "");  // whatever the environment says
    Set(handle, CURLOPT_NOSIGNAL, 1L);
    Set(handle, CURLOPT_TCP_NODELAY, 1L);
    Set(handle, CURLOPT_CONNECTTIMEOUT_MS, kMostToConnect);
}

// An empty value would take the field away.
void AddField(Fields& fields, char const* name, std::string const& value) {
    if (!value.empty()) fields.add(std::string(name) + ": " + value);
}

Fields RequestFields(Envelope const& envelope) {
    Fields fields;
    fields.add("Expect:");  // taken away: it would wait for leave to send
    fields.add("Content-Type: message/rfc822");
    if (envelope.isKnown) AddField(fields, "From", "<" + envelope.sender + ">");
    std::size_t const told = std::min(envelope.recipients.size(), kMostRecipientsTold);
    for (std::size_t i = 0; i < told; ++i) AddField(fields, "Rcpt", envelope.recipients[i]);
    AddField(fields, "IP", envelope.clientAddress);
    AddField(fields, "Helo", envelope.clientName);
    return fields;
}

FailureId FailureOf(CURL* handle, CURLcode code) {
    curl_off_t connected = 0;
    curl_easy_getinfo(handle, CURLINFO_CONNECT_TIME_T, &connected);
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return connected ? FailureId::ServerSlow : FailureId::ServerAway;
        case CURLE_COULDNT_CONNECT:
        case CURLE_GOT_NOTHING:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            return FailureId::ServerAway;
        default:
            return FailureId::ServerAnswer;
    }
}

void Perform(CURL* handle, Patience& patience) {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(patience.left()).count();
    if (left <= 0) throw EngineFailure(FailureId::ServerSlow, "no answer within the time limit");
    Set(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(left));
    auto const begin = std::chrono::steady_clock::now();
    CURLcode const code = curl_easy_perform(handle);
    patience.spend(begin);
    if (code != CURLE_OK) throw EngineFailure(FailureOf(handle, code), curl_easy_strerror(code));
}

SpamJudgement Judgement(CURL* handle, std::string const& reply, std::size_t asked) {
    long status = 0;
    curl_off_t sent = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(handle, CURLINFO_SIZE_UPLOAD_T, &sent);
    if (status != 200) throw EngineFailure(FailureId::ServerRefused, "HTTP status " + std::to_string(status));
    auto answer = SpamAnswer::parseRspamd(reply);
    if (answer.kind == SpamAnswer::Refused) throw EngineFailure(FailureId::ServerRefused, answer.text);
    if (answer.kind == SpamAnswer::Rubbish) throw EngineFailure(FailureId::ServerAnswer, answer.text);
    if (static_cast<std::size_t>(sent) != asked)
        throw EngineFailure(FailureId::ServerAnswer, "judged what it had not seen to its end");
    return std::move(answer.judgement);
}

}  // namespace

SpamJudgement AskRspamd(ServerAddress const& server, SpamQuestion const& question, Patience& patience) {
    StartLibrary();
    Handle const handle(curl_easy_init(), &curl_easy_cleanup);
    if (!handle) throw std::bad_alloc();
    Fields const fields = RequestFields(question.envelope);
    std::string reply;
    SetServer(handle.get(), server);
    Set(handle.get(), CURLOPT_HTTPHEADER, fields.get());
    Set(handle.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(question.message.size()));
    Set(handle.get(), CURLOPT_POSTFIELDS, question.message.data());
    Set(handle.get(), CURLOPT_WRITEFUNCTION, &Take);
    Set(handle.get(), CURLOPT_WRITEDATA, static_cast<void*>(&reply));
    Perform(handle.get(), patience);
    return Judgement(handle.get(), reply, question.message.size());
}

}  // namespace policyloader
