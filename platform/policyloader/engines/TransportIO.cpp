#include <policyloader/engines/TransportIO.h>

#include <algorithm>

#include <policyloader/engines/EngineFailure.h>

namespace policyloader {

void ReadRange(eFabric::IStreamTransport& in, std::uint64_t from, std::uint64_t to, ReadBuffer& buffer,
               std::function<void(std::string_view)> const& take) {
    buffer.bytes.resize(kBlockBytes);
    if (from < to && !in.seek(from)) throw EngineFailure(FailureId::Read, "the object cannot be read again");
    while (from < to) {
        auto const want = static_cast<std::size_t>(std::min<std::uint64_t>(kBlockBytes, to - from));
        std::size_t const got = in.read(reinterpret_cast<unsigned char*>(buffer.bytes.data()), want);
        if (got == 0 || got > want) throw EngineFailure(FailureId::Read, "the object ends early");
        take(std::string_view(buffer.bytes.data(), got));
        from += got;
    }
}

void WriteAll(eFabric::IStreamTransport& out, std::string_view text) {
    if (text.empty()) return;
    if (out.write(reinterpret_cast<unsigned char const*>(text.data()), text.size()) != text.size())
        throw EngineFailure(FailureId::Write, "the new object cannot be written");
}

void CopyObject(eFabric::IStreamTransport& in, eFabric::IStreamTransport& out, ReadBuffer& buffer) {
    out.SetRecommendedBase(eFabric::Base_Byte);
    ReadRange(in, 0, in.size(), buffer, [&](std::string_view block) { WriteAll(out, block); });
}

}  // namespace policyloader
