// DnsBytes: a DNS message put together record by record, right or wrong as the test wants it.
// Owner: the test. Thread: one. Numbers are in host order. Failure: none; what is put in is what comes out.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace velt_testing {

inline std::string Dns16(unsigned value) { return {static_cast<char>(value >> 8), static_cast<char>(value)}; }
inline std::string Dns32(std::uint32_t value) { return Dns16(value >> 16) + Dns16(value & 0xFFFF); }

// "mx.example.test" in labels; "" is the root.
inline std::string DnsName(std::string_view text) {
    std::string packed;
    while (!text.empty()) {
        std::string_view const label = text.substr(0, text.find('.'));
        packed += static_cast<char>(label.size());
        packed += label;
        text.remove_prefix(label.size() + (label.size() < text.size()));
    }
    return packed + '\0';
}

inline std::string DnsPointer(unsigned offset) { return Dns16(0xC000 | offset); }

class DnsBytes {
public:
    enum Section { question, answer, authority, additional };
    enum Type { type_a = 1, type_cname = 5, type_ptr = 12, type_mx = 15, type_txt = 16 };
    static constexpr unsigned header_size = 12;

    explicit DnsBytes(std::uint16_t id = 0x1234, std::uint16_t flags = 0x8180) : m_id(id), m_flags(flags) {}

    // What stands before must be complete: sections follow one another.
    DnsBytes& Question(std::string const& name, unsigned type = type_mx) {
        ++m_counts[question];
        m_body += name + Dns16(type) + Dns16(1);
        return *this;
    }
    DnsBytes& Record(Section section, std::string const& name, unsigned type, std::string const& data) {
        ++m_counts[section];
        m_body += name + Dns16(type) + Dns16(1) + Dns32(60) + Dns16(static_cast<unsigned>(data.size())) + data;
        return *this;
    }
    DnsBytes& Mx(unsigned preference, std::string const& target, std::string const& owner = DnsPointer(header_size)) {
        return Record(answer, owner, type_mx, Dns16(preference) + target);
    }
    DnsBytes& Address(std::string const& owner, std::uint32_t address, Section section = additional) {
        return Record(section, owner, type_a, Dns32(address));
    }
    DnsBytes& Append(std::string const& bytes) {
        m_body += bytes;
        return *this;
    }
    DnsBytes& Code(unsigned rcode) {
        m_flags = static_cast<std::uint16_t>((m_flags & ~0xFu) | rcode);
        return *this;
    }
    DnsBytes& Count(Section section, unsigned count) {
        m_counts[section] = static_cast<std::uint16_t>(count);
        return *this;
    }
    // Fills the message up to that size with text records at its end; at least 12 bytes are to fill.
    DnsBytes& PadTo(std::size_t size) {
        while (str().size() < size) {
            std::size_t record = std::min<std::size_t>(size - str().size(), 1000);
            std::size_t const rest = size - str().size() - record;
            if (rest > 0 && rest < 12) record -= 12;
            Record(additional, DnsName(""), type_txt, std::string(record - 11, 'x'));
        }
        return *this;
    }

    std::size_t next_offset() const { return header_size + m_body.size(); }  // where the next record starts
    std::string str() const {
        std::string bytes = Dns16(m_id) + Dns16(m_flags);
        for (unsigned count : m_counts) bytes += Dns16(count);
        return bytes + m_body;
    }

private:
    std::uint16_t m_id;
    std::uint16_t m_flags;
    std::uint16_t m_counts[4] = {};
    std::string m_body;
};

}  // namespace velt_testing
