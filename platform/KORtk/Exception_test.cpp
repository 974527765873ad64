#include <KORtk/Exception.h>

#include <gtest/gtest.h>

#include <cstring>
#include <exception>
#include <type_traits>

namespace {

struct Tag {};
using Rooted = KORtk::ExceptionT<Tag, KORtk::Exception>;
using Range = KORtk::StdExceptionT<std::out_of_range, Rooted>;

TEST(Exceptions, CarryTwoTextsAndAPlace) {
    KORtk::Exception const failure(KORtk::Location{"f.cpp", 3, "g"}, "text", "second");
    EXPECT_STREQ(failure.what(), "text");
    EXPECT_EQ(failure.text(), "text");
    EXPECT_EQ(failure.second(), "second");
    EXPECT_STREQ(failure.where().file, "f.cpp");
    EXPECT_EQ(failure.where().line, 3);
    EXPECT_STREQ(failure.where().function, "g");
}

TEST(Exceptions, HaveNoStandardBase) { EXPECT_FALSE((std::is_base_of_v<std::exception, KORtk::Exception>)); }

TEST(Exceptions, WithAStandardBaseAreCaughtAsEither) {
    EXPECT_THROW(throw Range(KORtk::Here(), "x"), std::out_of_range);
    EXPECT_THROW(throw Range(KORtk::Here(), "x"), std::exception);
    EXPECT_THROW(throw Range(KORtk::Here(), "x"), KORtk::Exception);
    EXPECT_THROW(throw Range(KORtk::Here(), "x"), Rooted);
}

TEST(Exceptions, SayTheSameThroughEitherBase) {
    Range const failure(KORtk::Here(), "the text");
    EXPECT_STREQ(static_cast<std::exception const&>(failure).what(), "the text");
    EXPECT_STREQ(static_cast<KORtk::Exception const&>(failure).what(), "the text");
}

TEST(Exceptions, KnowTheCallersPlace) {
    KORtk::Location const here = KORtk::Here();
    EXPECT_EQ(here.line, __LINE__ - 1);
    EXPECT_NE(std::strstr(here.file, "Exception_test.cpp"), nullptr);
    EXPECT_NE(std::strstr(here.function, "TestBody"), nullptr);
}

}  // namespace
