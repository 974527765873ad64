#include <velt/lookup/Resolver.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include <testing/DnsBytes.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using Bytes = std::unique_ptr<unsigned char[]>;

// Exactly as large as the text, so that a sanitizer sees the first byte read beyond.
Bytes Exact(std::string const& text) {
    Bytes bytes(new unsigned char[text.size()]);
    std::copy(text.begin(), text.end(), bytes.get());
    return bytes;
}

struct Unpacked {
    int length;
    std::string labels;  // with the terminating zero
};

Unpacked Unpack(std::string const& message, std::size_t at, std::size_t room = 255) {
    Bytes const bytes = Exact(message);
    Bytes const out(new unsigned char[room]);
    errno = 0;
    int const length =
        Resolver::ns_name_unpack2(bytes.get(), bytes.get() + message.size(), bytes.get() + at, out.get(), room);
    if (length < 0) {
        EXPECT_EQ(errno, EMSGSIZE);
        return {length, ""};
    }
    std::size_t size = 0;
    while (out[size] != 0) size += out[size] + 1u;
    return {length, std::string(out.get(), out.get() + size + 1)};
}

std::string Print(std::string const& labels, std::size_t room = 1026) {
    Bytes const bytes = Exact(labels);
    std::unique_ptr<char[]> const out(new char[room]);
    errno = 0;
    int const length = Resolver::ns_name_ntop2(bytes.get(), out.get(), room);
    if (length < 0) {
        EXPECT_EQ(errno, EMSGSIZE);
        return "failed";
    }
    EXPECT_EQ(out[length - 1], '\0');
    return {out.get(), static_cast<std::size_t>(length - 1)};
}

TEST(PackedName, IsItsLabels) {
    std::string const name = DnsName("mx.example.test");
    Unpacked const unpacked = Unpack(name, 0);
    EXPECT_EQ(unpacked.length, static_cast<int>(name.size()));
    EXPECT_EQ(unpacked.labels, name);
    EXPECT_EQ(Unpack(DnsName(""), 0).length, 1);
}

TEST(PackedName, EndsInItsPlaceWithTheFirstPointer) {
    std::string message = DnsName("example.test");
    std::size_t const second = message.size();
    message += "\2mx" + DnsPointer(0);
    std::size_t const third = message.size();
    message += "\1a" + DnsPointer(static_cast<unsigned>(second)) + "behind";
    EXPECT_EQ(Unpack(message, second).length, 5);
    EXPECT_EQ(Unpack(message, second).labels, DnsName("mx.example.test"));
    EXPECT_EQ(Unpack(message, third).length, 4);
    EXPECT_EQ(Unpack(message, third).labels, DnsName("a.mx.example.test"));
}

TEST(PackedName, FailsOutsideTheMessage) {
    std::string const name = DnsName("a");
    Bytes const bytes = Exact(name);
    unsigned char out[255];
    unsigned char const* const end = bytes.get() + name.size();
    EXPECT_EQ(Resolver::ns_name_unpack2(bytes.get(), end, end, out, sizeof out), -1);
    EXPECT_EQ(Resolver::ns_name_unpack2(bytes.get() + 1, end, bytes.get(), out, sizeof out), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST(PackedName, FailsWhereTheMessageIsCut) {
    std::string const name = DnsName("mx.example.test");
    for (std::size_t length = 1; length < name.size(); ++length)
        EXPECT_EQ(Unpack(name.substr(0, length), 0).length, -1) << length;
    EXPECT_EQ(Unpack(DnsName("a") + "\xC0", 3).length, -1) << "half a pointer";
}

TEST(PackedName, FailsWhereThereIsNoRoom) {
    std::string const name = DnsName("mx.example.test");
    for (std::size_t room = 0; room <= name.size() + 1; ++room)
        EXPECT_EQ(Unpack(name, 0, room).length, room < name.size() ? -1 : static_cast<int>(name.size())) << room;
}

TEST(PackedName, FailsForAPointerOutOfTheMessage) {
    for (unsigned target = 4; target < 0x4000; target += 17)
        EXPECT_EQ(Unpack(DnsPointer(target) + "\0"
                                              "x",
                         0)
                      .length,
                  -1)
            << target;
}

TEST(PackedName, FailsForKindsOfLabelsThatThereAreNot) {
    for (unsigned first : {0x40u, 0x41u, 0x7Fu, 0x80u, 0x81u, 0xBFu})
        EXPECT_EQ(Unpack(std::string(1, static_cast<char>(first)) + std::string(200, 'x') + '\0', 0).length, -1)
            << first;
}

// A loop of every length, made of pointers alone and of labels and pointers.
TEST(PackedName, FailsForALoop) {
    EXPECT_EQ(Unpack(DnsPointer(0), 0).length, -1);
    for (unsigned hops = 1; hops < 60; ++hops) {
        std::string pointers;
        for (unsigned i = 0; i < hops; ++i) pointers += DnsPointer((i + 1) % hops * 2);
        EXPECT_EQ(Unpack(pointers, 0).length, -1) << hops;
        std::string labels;
        for (unsigned i = 0; i < hops; ++i) labels += "\1a" + DnsPointer((i + 1) % hops * 4);
        EXPECT_EQ(Unpack(labels, 0).length, -1) << hops;
    }
}

// Label \3, whose bytes are a name of their own when a pointer leads into them: 4, 2 and 2 bytes gone over, no loop.
TEST(PackedName, FailsAsSoonAsItGoesOverAsManyBytesAsTheMessageHas) {
    for (std::size_t behind = 0; behind < 8; ++behind) {
        std::string const message = std::string("\3\1a\0", 4) + DnsPointer(1) + std::string(behind, 'x');
        EXPECT_EQ(Unpack(message, 0).length, message.size() <= 8 ? -1 : 6) << behind;
    }
}

TEST(PackedName, FollowsAChainThatEnds) {
    std::string message = DnsName("end");
    for (unsigned i = 0; i < 50; ++i) {
        std::size_t const last = i == 0 ? 0 : message.size() - 2;
        message += DnsPointer(static_cast<unsigned>(last));
    }
    EXPECT_EQ(Unpack(message, message.size() - 2).labels, DnsName("end"));
}

TEST(NameText, JoinsLabelsWithDots) {
    EXPECT_EQ(Print(DnsName("mx.example.test")), "mx.example.test");
    EXPECT_EQ(Print(DnsName("")), ".");
}

TEST(NameText, EscapesEveryByteAsItMust) {
    for (int c = 0; c < 256; ++c) {
        char const byte = static_cast<char>(c);
        char number[8];
        std::snprintf(number, sizeof number, "\\%03d", c);
        bool const special = c != 0 && std::string("\"$.;@\\").find(byte) != std::string::npos;
        std::string const expected = special                  ? std::string("\\") + byte
                                     : c >= 0x21 && c <= 0x7E ? std::string(1, byte)
                                                              : std::string(number);
        EXPECT_EQ(Print(std::string("\1") + byte + '\0'), expected) << c;
    }
}

TEST(NameText, FailsForPointersAndForRoomThatIsTooSmall) {
    EXPECT_EQ(Print(DnsPointer(0)), "failed");
    EXPECT_EQ(Print(std::string("\x80", 1) + std::string(130, 'x') + '\0'), "failed");
    std::string const labels = std::string("\3a;\1\2bc\0", 8);
    std::string const text = "a\\;\\001.bc";
    for (std::size_t room = 0; room <= text.size() + 2; ++room)
        EXPECT_EQ(Print(labels, room), room > text.size() ? text : "failed") << room;
    EXPECT_EQ(Print(DnsName(""), 1), "failed");
    EXPECT_EQ(Print(DnsName(""), 2), ".");
}

TEST(NameText, OfAPackedNameIsBothSteps) {
    std::string const message = DnsName("example.test") + "\2mx" + DnsPointer(0);
    Bytes const bytes = Exact(message);
    char text[1026];
    EXPECT_EQ(Resolver::ns_name_uncompress2(bytes.get(), bytes.get() + message.size(), bytes.get() + 14, text, 1026),
              5);
    EXPECT_STREQ(text, "mx.example.test");
    EXPECT_EQ(Resolver::ns_name_uncompress2(bytes.get(), bytes.get() + message.size(), bytes.get() + 14, text, 15), -1);
}

TEST(NameText, HoldsTwoHundredFiftyFiveBytesOfLabelsAndNoMore) {
    std::string const label = std::string("\77") + std::string(63, 'a');
    for (int last = 58; last <= 63; ++last) {
        std::string const name =
            label + label + label + static_cast<char>(last) + std::string(static_cast<size_t>(last), 'b') + '\0';
        Bytes const bytes = Exact(name);
        char text[1026];
        int const length =
            Resolver::ns_name_uncompress2(bytes.get(), bytes.get() + name.size(), bytes.get(), text, 1026);
        EXPECT_EQ(length, name.size() <= 255 ? static_cast<int>(name.size()) : -1) << name.size();
    }
}

TEST(Cursor, MovesOverWhatItRead) {
    unsigned char const bytes[] = {0x12, 0x34, 0xFE, 0xDC, 0xBA, 0x98, 2, 'm', 'x', 0, 9};
    unsigned char const* at = bytes;
    EXPECT_EQ(Resolver::getShort(at), 0x1234);
    EXPECT_EQ(Resolver::getLong(at), 0xFEDCBA98u);
    char name[256];
    EXPECT_EQ(Resolver::expand(name, bytes, sizeof bytes, at), 4);
    EXPECT_STREQ(name, "mx");
    EXPECT_EQ(at, bytes + 10);
    EXPECT_EQ(Resolver::expand(name, bytes, sizeof bytes, at), -1);
    EXPECT_EQ(at, bytes + 10);
}

}  // namespace
