#include "Probe.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <string_view>

#include <KORtk/Exception.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/scanning/StreamRequest.h>
#include <velt/streams/TCPStream.h>

namespace rmgrd {

namespace {

using namespace VELT;

constexpr unsigned kMostAnswerBytes = 1024 * 1024;  // of all answers of one probe
constexpr unsigned kWholeInWaits = 2;               // how long a probe may take, in waits

// Whoever drips, or pours, is as bad as who is silent.
class ProbeStream : public TCPStream {
public:
    ProbeStream(sockaddr_in* where, unsigned waitMs)
        : TCPStream(where, static_cast<int>(waitMs), false),
          m_waitMs(waitMs),
          m_until(Steady::now() + kWholeInWaits * std::chrono::milliseconds(waitMs)) {
        set_timeout(waitMs);
    }
    using TCPStream::read;
    int read(char* data, unsigned length, unsigned* received) override {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(m_until - Steady::now()).count();
        *received = 0;
        if (left <= 0) return ETIMEDOUT;
        if (m_taken >= kMostAnswerBytes) return EMSGSIZE;
        set_timeout(std::min(m_waitMs, static_cast<unsigned>(left)));
        int const error = TCPStream::read(data, length, received);
        m_taken += *received;
        return error;
    }

private:
    using Steady = std::chrono::steady_clock;
    unsigned const m_waitMs;
    Steady::time_point const m_until;
    unsigned m_taken = 0;
};

// In two pieces, so that no engine takes this program for it.
constexpr char const* kTestFile[] = {"X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-", "STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"};

std::string Failed(char const* step) { return std::string("no answer to the ") + step; }

// Empty: the answer's header block says OK.
std::string Answered(TCPStream& stream, StreamRequest& answer, char const* step) {
    if (answer.read_headers(&stream) != 0) return Failed(step);
    auto const state = answer.find("State");
    if (state == answer.end() || state->second != "OK") return std::string("refused the ") + step;
    return "";
}

bool Send(TCPStream& stream, std::string const& text) {
    return stream.write(text.data(), static_cast<unsigned>(text.size())) == 0;
}

std::string SetUp(TCPStream& stream, std::string const& policy) {
    std::string const content = std::string(kTestFile[0]) + kTestFile[1];
    std::string const request = "get setup_scan\nprotocol probe\ntime " + std::to_string(std::time(nullptr)) +
                                "\nsize " + std::to_string(content.size()) + "\npolicy " + policy + "\n\n\r\n" +
                                content;
    StreamRequest answer;
    return Send(stream, request) ? Answered(stream, answer, "set-up") : Failed("set-up");
}

bool IsFinding(IKORScanResult const* result) {
    return result && std::strcmp(result->GetScannerClassName(), "KORAVScanner") == 0 && result->InfectedItems() > 0;
}

// The result that decided is not among the others.
bool FoundAnything(SerializedEFabricResult const& verdict) {
    if (IsFinding(verdict.GetMasterScanResult())) return true;
    long position = 0;
    IKORScanResult const* result = verdict.FindFirstScanResult(position);
    for (; result; result = verdict.FindNextScanResult(position))
        if (IsFinding(result)) return true;
    return false;
}

std::string Scan(TCPStream& stream) {
    StreamRequest answer;
    if (!Send(stream, "get scan\n\n")) return Failed("scan");
    std::string const refusal = Answered(stream, answer, "scan");
    if (!refusal.empty()) return refusal;
    bool whole = false;
    std::unique_ptr<SerializedEFabricResult> const verdict(SerializedEFabricResult::deserialize(&stream, &whole));
    if (!verdict || !whole) return "gives no verdict that can be read";
    return FoundAnything(*verdict) ? "" : "does not find the test file";
}

}  // namespace

std::string Probe(ServerFacts const& server, std::string const& policy, unsigned timeoutMs) {
    try {
        sockaddr_in where = server.address;
        ProbeStream stream(&where, timeoutMs);
        std::string const refusal = SetUp(stream, policy);
        return refusal.empty() ? Scan(stream) : refusal;
    } catch (KORtk::Exception const& failure) {
        return "cannot be connected to";
    } catch (std::exception const& failure) {
        return failure.what();
    }
}

}  // namespace rmgrd
