// What became of each line of ldap.txt and bwserver.txt.
#include <velt/ldap/DirectoryTest.h>
#include <velt/ldap/ServerFile.h>

namespace {

using VELT::CheckedLine;
using VELT::CheckServerFile;
using VELT::LineFate;
using VELT::ServerFileKind;
using Fates = std::vector<LineFate>;

class ServerFileTest : public DirectoryTest {
protected:
    std::vector<CheckedLine> Lines(std::string const& text, ServerFileKind kind = ServerFileKind::Directory) {
        m_root.Write("/config/qxxmlconf/x.txt", text);
        auto const checked = CheckServerFile(m_root / "/config/qxxmlconf/x.txt", kind);
        EXPECT_TRUE(checked.readable);
        return checked.lines;
    }
    Fates FatesOf(std::string const& text, ServerFileKind kind = ServerFileKind::Directory) {
        Fates fates;
        for (CheckedLine const& one : Lines(text, kind)) fates.push_back(one.fate);
        return fates;
    }
};

TEST_F(ServerFileTest, TellsOfEachLineWhatBecameOfIt) {
    EXPECT_EQ(
        FatesOf("base x\n\n# c\nserver\nbase x\nbase\nBase x\nbwobjectclass top\nbwobjectclass a:b\n"),
        (Fates{LineFate::BeforeServer, LineFate::Skipped, LineFate::Skipped, LineFate::OpensServer, LineFate::Taken,
               LineFate::WithoutBlank, LineFate::UnknownKey, LineFate::Refused, LineFate::Taken}));
}

TEST_F(ServerFileTest, HasAReasonForEachLineThatIsDroppedAndForNoOther) {
    for (LineFate const fate : {LineFate::Skipped, LineFate::OpensServer, LineFate::GoesOn, LineFate::Taken})
        EXPECT_EQ(VELT::WhyDropped(fate), nullptr);
    for (LineFate const fate :
         {LineFate::BeforeServer, LineFate::WithoutBlank, LineFate::UnknownKey, LineFate::Refused, LineFate::SameHost})
        EXPECT_NE(VELT::WhyDropped(fate), nullptr);
}

TEST_F(ServerFileTest, MarksAllThatGoesWithAServerOfTheSameHost) {
    auto const lines =
        Lines("server\nldapserver a\nserver\nldapserver b\nserver\n# c\nldapserver a\nx y\nserver\nldapserver a:1\n");
    Fates fates;
    for (CheckedLine const& one : lines) fates.push_back(one.fate);
    EXPECT_EQ(fates, (Fates{LineFate::OpensServer, LineFate::Taken, LineFate::OpensServer, LineFate::Taken,
                            LineFate::SameHost, LineFate::Skipped, LineFate::SameHost, LineFate::UnknownKey,
                            LineFate::SameHost, LineFate::SameHost}));
    EXPECT_EQ(lines[4].instead, 1u);
    EXPECT_EQ(lines[9].instead, 1u);
}

TEST_F(ServerFileTest, FurtherServersOfTheListsFileGoOn) {
    EXPECT_EQ(FatesOf("base x\nserver\nserver2\nbase x\n", ServerFileKind::Lists),
              (Fates{LineFate::BeforeServer, LineFate::OpensServer, LineFate::GoesOn, LineFate::Taken}));
}

TEST_F(ServerFileTest, CountsLinesWhateverStandsInThem) {
    auto const lines = Lines(std::string("server\nbase a\0b\n\nbase x", 22));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].text, "base a");
    EXPECT_EQ(lines[2].number, 3u);
    EXPECT_EQ(lines[3].number, 4u);
    EXPECT_EQ(lines[3].fate, LineFate::Taken);
}

TEST_F(ServerFileTest, PiecesOfALongLineHaveItsNumber) {
    for (std::size_t const length : {8190, 8191, 8192, 16382, 16383}) {
        auto const lines = Lines("server\n#" + std::string(length - 1, 'x') + "\nbase y\n");
        std::size_t const pieces = length / 8191 + 1;
        ASSERT_EQ(lines.size(), pieces + 2) << length;
        for (std::size_t i = 1; i <= pieces; ++i) {
            EXPECT_EQ(lines[i].number, 2u) << length;
            EXPECT_EQ(lines[i].rest, i > 1) << length;
        }
        EXPECT_EQ(lines.back().number, 3u) << length;
        EXPECT_FALSE(lines.back().rest) << length;
    }
}

TEST_F(ServerFileTest, FileThatCannotBeReadHasNoLines) {
    auto const checked = CheckServerFile(m_root / "/nowhere", ServerFileKind::Lists);
    EXPECT_FALSE(checked.readable);
    EXPECT_TRUE(checked.lines.empty());
}

TEST_F(ServerFileTest, LooksWithoutAChangeOfTheProcess) {
    Lines("server\nldapserver a\n");
    Lines("server\nldapserver a\n", ServerFileKind::Lists);
    EXPECT_EQ(Hosts(), Texts{});
    EXPECT_EQ(VELT::LDAPPrim::getBWServer(), nullptr);
}

}  // namespace
