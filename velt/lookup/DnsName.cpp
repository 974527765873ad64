// Names in DNS messages: out of their packed form, and into text.
#include <resolv.h>

#include <cerrno>
#include <cstring>

#include <velt/lookup/Resolver.h>

namespace VELT {

namespace {

constexpr unsigned kCompressionBits = 0xC0;  // both: a pointer; none: a label; one alone: not a name

int TooLong() {
    errno = EMSGSIZE;
    return -1;
}

bool IsEscaped(unsigned char c) { return c != 0 && std::strchr("\"$.;@\\", c) != nullptr; }
bool IsPrintable(unsigned char c) { return c >= 0x21 && c <= 0x7E; }

// A text that is never longer than its room, the NUL included.
class NameText {
public:
    NameText(char* start, std::size_t size) : m_start(start), m_next(start), m_end(start + size) {}

    bool empty() const { return m_next == m_start; }
    bool Put(char c) {
        if (m_next == m_end) return false;
        *m_next++ = c;
        return true;
    }
    bool PutEscaped(unsigned char c) {
        if (IsEscaped(c)) return Put('\\') && Put(static_cast<char>(c));
        if (IsPrintable(c)) return Put(static_cast<char>(c));
        return Put('\\') && PutDigit(c / 100) && PutDigit(c / 10 % 10) && PutDigit(c % 10);
    }
    bool PutLabel(unsigned char const* label, unsigned length) {
        if (!empty() && !Put('.')) return false;
        for (unsigned i = 0; i < length; ++i)
            if (!PutEscaped(label[i])) return false;
        return true;
    }
    int Finish() {
        if (empty() && !Put('.')) return TooLong();
        return Put('\0') ? static_cast<int>(m_next - m_start) : TooLong();
    }

private:
    bool PutDigit(unsigned digit) { return Put(static_cast<char>('0' + digit)); }

    char* m_start;
    char* m_next;
    char* m_end;
};

// The walk through a packed name. Every byte is looked at only after it is known to lie in the message and, where it is
// copied, to leave room for the terminating zero.
class NameWalk {
public:
    NameWalk(unsigned char const* message, unsigned char const* end, unsigned char const* source)
        : m_message(message), m_end(end), m_source(source), m_next(source) {}

    int Unpack(unsigned char* destination, std::size_t room) {
        if (m_next < m_message || m_next >= m_end || room == 0) return TooLong();
        while (unsigned const length = *m_next++) {
            unsigned const kind = length & kCompressionBits;
            if (kind == 0 ? !CopyLabel(length, destination, room) : !(kind == kCompressionBits && Follow(length)))
                return TooLong();
            if (m_seen >= m_end - m_message) return TooLong();  // a loop
        }
        *destination = 0;
        return static_cast<int>((m_after ? m_after : m_next) - m_source);
    }

private:
    bool CopyLabel(unsigned length, unsigned char*& destination, std::size_t& room) {
        if (room <= length + 1 || m_end - m_next <= static_cast<long>(length)) return false;
        *destination++ = static_cast<unsigned char>(length);
        std::memcpy(destination, m_next, length);
        destination += length;
        room -= length + 1;
        m_next += length;
        m_seen += length + 1;
        return true;
    }

    bool Follow(unsigned first) {
        if (m_next >= m_end) return false;
        long const target = static_cast<long>((first & ~kCompressionBits) * 256 + *m_next++);
        if (!m_after) m_after = m_next;
        if (target >= m_end - m_message) return false;
        m_next = m_message + target;
        m_seen += 2;
        return true;
    }

    unsigned char const* m_message;
    unsigned char const* m_end;
    unsigned char const* m_source;
    unsigned char const* m_next;
    unsigned char const* m_after = nullptr;  // behind the first pointer, where the name ends in its place
    long m_seen = 0;
};

}  // namespace

int Resolver::ns_name_unpack2(unsigned char const* message, unsigned char const* end, unsigned char const* source,
                              unsigned char* destination, std::size_t size) {
    return NameWalk(message, end, source).Unpack(destination, size);
}

int Resolver::ns_name_ntop2(unsigned char const* source, char* destination, std::size_t size) {
    NameText text(destination, size);
    while (unsigned const length = *source++) {
        if (length & kCompressionBits) return TooLong();
        if (!text.PutLabel(source, length)) return TooLong();
        source += length;
    }
    return text.Finish();
}

int Resolver::ns_name_uncompress2(unsigned char const* message, unsigned char const* end, unsigned char const* source,
                                  char* destination, std::size_t size) {
    unsigned char labels[NS_MAXCDNAME];
    int const length = ns_name_unpack2(message, end, source, labels, sizeof labels);
    if (length < 0 || ns_name_ntop2(labels, destination, size) < 0) return -1;
    return length;
}

int Resolver::expand(char* name, unsigned char const* message, int length, unsigned char const*& cursor) {
    int const used = dn_expand(message, message + length, cursor, name, NS_MAXCDNAME);
    if (used > 0) cursor += used;
    return used;
}

std::uint16_t Resolver::getShort(unsigned char const*& cursor) {
    auto const value = static_cast<std::uint16_t>(cursor[0] << 8 | cursor[1]);
    cursor += 2;
    return value;
}

std::uint32_t Resolver::getLong(unsigned char const*& cursor) {
    std::uint32_t const high = getShort(cursor);
    return high << 16 | getShort(cursor);
}

}  // namespace VELT
