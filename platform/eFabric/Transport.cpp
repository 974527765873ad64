#include <eFabric/Transport.h>

#include <algorithm>
#include <vector>

namespace eFabric {
namespace {

constexpr unsigned long BlockBytes = 64 * 1024;

unsigned long UnitBytes(IStreamTransport& transport) {
    return transport.GetRecommendedBase() == Base_Wide ? sizeof(wchar_t) : 1;
}

// Gives the bytes that `to` took: fewer than `bytes` when it failed, or when the rest is no whole unit of it.
unsigned long WriteAll(IStreamTransport& to, unsigned char const* data, unsigned long bytes) {
    unsigned long const unit = UnitBytes(to);
    unsigned long done = 0;
    while (bytes - done >= unit) {
        unsigned long const written = to.write(data + done, (bytes - done) / unit);
        if (written == 0) break;
        done += std::min(written * unit, bytes - done);
    }
    return done;
}

}  // namespace

unsigned long IStreamTransport::CopyData(IStreamTransport& to, unsigned long limit) {
    unsigned long const unit = UnitBytes(*this);
    std::vector<unsigned char> block(BlockBytes);
    unsigned long copied = 0;
    while (copied < limit) {
        unsigned long const got = read(block.data(), std::min(limit - copied, BlockBytes / unit));
        unsigned long const written = WriteAll(to, block.data(), got * unit) / unit;
        copied += written;
        if (got == 0 || written < got) break;
    }
    return copied;
}

}  // namespace eFabric
