// Where a page is added to.
#include <gtest/gtest.h>

#include <policyloader/engines/HtmlPlaces.h>

using namespace policyloader;

namespace {

// The page with marks in both places, the same for pieces of any size.
std::string Marked(std::string const& page) {
    std::string first;
    for (std::size_t piece = 1; piece <= page.size(); ++piece) {
        HtmlPlaces places;
        for (std::size_t at = 0; at < page.size(); at += piece) places.feed(page.substr(at, piece));
        std::string marked = page;
        marked.insert(places.bottom(), "[B]");
        marked.insert(places.top(), "[T]");
        if (first.empty()) first = marked;
        EXPECT_EQ(marked, first) << piece;
    }
    return first;
}

}  // namespace

TEST(HtmlPages, AreAddedToWithinTheirBody) {
    EXPECT_EQ(Marked("<!DOCTYPE html><html><head><title>x</title></head><body bgcolor=\"a>b\">text</body></html>"),
              "<!DOCTYPE html><html><head><title>x</title></head><body bgcolor=\"a>b\">[T]text[B]</body></html>");
    EXPECT_EQ(Marked("<HTML><BODY\n>text</BODY \n></HTML>\n"), "<HTML><BODY\n>[T]text[B]</BODY \n></HTML>\n");
}

TEST(HtmlPages, WithoutABodyAreAddedToWhereItWouldBe) {
    EXPECT_EQ(Marked("<p>text</p>"), "[T]<p>text</p>[B]");
    EXPECT_EQ(Marked("<html>text</html>"), "<html>[T]text[B]</html>");
    EXPECT_EQ(Marked("<html><head></head>text"), "<html><head></head>[T]text[B]");
    EXPECT_EQ(Marked("<!doctype html><p>x"), "<!doctype html>[T]<p>x[B]");
    EXPECT_EQ(Marked("1 < 2"), "[T]1 < 2[B]");
}

TEST(HtmlPages, HaveTheLastEndOfTheirBody) {
    EXPECT_EQ(Marked("<body>a</body> b <body>c</body>\n"), "<body>[T]a</body> b <body>c[B]</body>\n");
}

TEST(HtmlPages, HaveNoTagsInCommentsAndScripts) {
    EXPECT_EQ(Marked("<!-- <body> --><body>x<!-- </body> -->y</body>"),
              "<!-- <body> --><body>[T]x<!-- </body> -->y[B]</body>");
    EXPECT_EQ(Marked("<script>var a = '<body></body>';</script><body>x</body><style></body></style>"),
              "<script>var a = '<body></body>';</script><body>[T]x[B]</body><style></body></style>");
    EXPECT_EQ(Marked("<!--[if mso]><body><![endif]--><body>x</body>"),
              "<!--[if mso]><body><![endif]--><body>[T]x[B]</body>");
    EXPECT_EQ(Marked("<!--><body>x</body>"), "<!--><body>[T]x[B]</body>");
    EXPECT_EQ(Marked("<body><a title=\"</body>\">x</a></body>"), "<body>[T]<a title=\"</body>\">x</a>[B]</body>");
}

TEST(HtmlPages, ThatEndWithinSomethingUnseenAreAddedToInFrontOfIt) {
    EXPECT_EQ(Marked("<body>x<!-- rest"), "<body>[T]x[B]<!-- rest");
    EXPECT_EQ(Marked("<body>x<a href=\"rest"), "<body>[T]x[B]<a href=\"rest");
    EXPECT_EQ(Marked("<body>x<script>rest</scrip>"), "<body>[T]x[B]<script>rest</scrip>");
    EXPECT_EQ(Marked("<body>x<"), "<body>[T]x[B]<");
}
