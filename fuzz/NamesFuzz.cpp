// Packed names of DNS messages, at every place, into rooms of every size, against the system's resolver library.
#include <arpa/nameser.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <velt/lookup/Resolver.h>

#include "fuzz/Input.h"
#include "fuzz/NameText.h"

using velt_fuzz::Require;
using Bytes = std::unique_ptr<unsigned char[]>;
using Resolver = VELT::Resolver;

namespace {

// Exactly as large as it is said to be, so that a sanitizer sees the first byte beyond.
Bytes Exact(std::size_t size) { return Bytes(new unsigned char[size]); }

std::size_t LabelBytes(unsigned char const* labels) {
    std::size_t size = 0;
    while (labels[size] != 0) size += labels[size] + 1u;
    return size + 1;
}

class Message {
public:
    Message(std::uint8_t const* data, std::size_t size) : m_bytes(Exact(size)), m_size(size) {
        std::copy(data, data + size, m_bytes.get());
    }

    void Check(std::size_t at, std::size_t room, std::size_t textRoom) const {
        Bytes const labels = Exact(room);
        unsigned char expected[NS_MAXCDNAME];
        errno = 0;
        int const length = Resolver::ns_name_unpack2(begin(), end(), begin() + at, labels.get(), room);
        Require(length >= 0 || (length == -1 && errno == EMSGSIZE), "a failure has its number");
        int const reference = ns_name_unpack(begin(), end(), begin() + at, expected, std::min(room, sizeof expected));
        bool const overlong =
            reference > 0 && velt_fuzz::Walked(begin(), begin() + at) >= m_size;  // counts as a loop already
        Require(length == reference || (length == -1 && overlong), "the same length");
        if (length < 0) return;
        Require(std::memcmp(labels.get(), expected, LabelBytes(expected)) == 0, "the same labels");
        CheckText(labels.get(), textRoom);
        CheckBoth(at, length, textRoom);
    }

    void CheckExpand(std::size_t at) const {
        char name[NS_MAXCDNAME];
        unsigned char const* cursor = begin() + at;
        int const used = Resolver::expand(name, begin(), static_cast<int>(m_size), cursor);
        Require(cursor == begin() + at + std::max(used, 0), "the cursor stands behind the name");
        Require(used < 0 || std::strlen(name) < sizeof name, "a text within its room");
    }

    std::size_t size() const { return m_size; }

private:
    unsigned char const* begin() const { return m_bytes.get(); }
    unsigned char const* end() const { return m_bytes.get() + m_size; }

    static void CheckText(unsigned char const* labels, std::size_t room) {
        std::unique_ptr<char[]> const text(new char[room]);
        std::string const expected = velt_fuzz::NameText(labels);
        int const length = Resolver::ns_name_ntop2(labels, text.get(), room);
        int const whole = static_cast<int>(expected.size() + 1);
        Require(length == (expected.size() < room ? whole : -1), "a text where there is room");
        if (length > 0) Require(expected == text.get(), "the same text");
    }

    void CheckBoth(std::size_t at, int length, std::size_t room) const {
        std::unique_ptr<char[]> const text(new char[room]);
        int const both = Resolver::ns_name_uncompress2(begin(), end(), begin() + at, text.get(), room);
        Require(both == length || both == -1, "both steps answer as the first");
    }

    Bytes m_bytes;
    std::size_t m_size;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size < 3 || size > 300) return 0;
    std::size_t const room = data[0] ? data[0] : 1;  // of the labels
    std::size_t const textRoom = data[1] * 5u + 1;   // of the text, which is up to four times as long
    Message const message(data + 2, size - 2);
    for (std::size_t at = 0; at < message.size(); ++at) {
        message.Check(at, room, textRoom);
        message.Check(at, NS_MAXCDNAME, 1026);
        message.CheckExpand(at);
    }
    return 0;
}
