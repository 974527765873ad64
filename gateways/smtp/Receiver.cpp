#include "Receiver.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <velt/streams/TCPStream.h>

#include "Patience.h"

namespace smtp {
namespace {

constexpr std::uint64_t kHighBits = 0x8080808080808080u;

bool Write(VELT::ScannerStream& spool, char const* data, std::size_t length) {
    return length == 0 || spool.write(data, static_cast<unsigned>(length)) == static_cast<long>(length);
}

ReceiveResult::End EndOf(int count) {
    return count < 0 && errno == ETIMEDOUT ? ReceiveResult::End::TimedOut : ReceiveResult::End::Closed;
}

}  // namespace

bool HasEightBit(char const* data, std::size_t length) {
    std::uint64_t bits = 0;
    for (; length >= sizeof bits; data += sizeof bits, length -= sizeof bits) {
        std::uint64_t word;
        std::memcpy(&word, data, sizeof word);
        bits |= word;
    }
    for (; length; ++data, --length) bits |= static_cast<unsigned char>(*data);
    return (bits & kHighBits) != 0;
}

ReceiveResult Receive(VELT::TCPStream& stream, DataDecoder::Limits limits, std::string_view front, unsigned minRate,
                      Message& message) {
    ReceiveResult result;
    DataDecoder decoder(limits);
    result.spoolFailed = !Write(*message.spool, front.data(), front.size());
    auto const keep = [&](char const* data, std::size_t length) {
        message.eightBit = message.eightBit || HasEightBit(data, length);
        if (!result.spoolFailed) result.spoolFailed = !Write(*message.spool, data, length);
    };
    Patience patience(stream);
    while (!decoder.done()) {
        char* data = nullptr;
        bool done = false;
        errno = 0;
        if (!patience.More()) {
            result.end = ReceiveResult::End::TimedOut;
            break;
        }
        int const count = stream.readdata(data, INT_MAX, true, done);
        if (count <= 0) {
            result.end = EndOf(count);
            break;
        }
        std::size_t const taken = decoder.Feed(data, static_cast<std::size_t>(count), keep);
        if (decoder.fault() == DataDecoder::Fault::None) patience.Earn(taken, minRate);
        if (taken < static_cast<std::size_t>(count)) stream.rewind(data + taken);
    }
    message.size = decoder.size();
    message.leadingDots = decoder.hasLeadingDots();
    result.fault = decoder.fault();
    result.receivedHeaders = decoder.receivedHeaders();
    return result;
}

}  // namespace smtp
