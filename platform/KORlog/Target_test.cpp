#include <KORlog/Target.h>
#include <QXlog/Event.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

class Scripted : public KORlog::Target {
public:
    std::string useableSeverities() const override { return severities; }
    void write(KORlog::sev::Severity severity, KORtk::Location const& where, QXlog::Event const& event,
               std::string const& text, KORlog::InfoBag const& bag) override {
        ++written;
        file = where.file;
        fileAddress = where.file;
        seen = event.asString() + text + std::to_string(bag.size()) + std::to_string(severity.bits);
        if (throws) throw std::runtime_error("sink");
    }
    std::string severities = "info";
    std::string seen, file;
    char const* fileAddress = nullptr;
    int written = 0;
    bool throws = false;
};

using AnEvent = QXlog::EventT<990100, QXlog::ReasonT<1>>;

void Send(Scripted& target, char const* file = "f.cpp") {
    target.sendlog(KORlog::sev::no_sev, {file, 1, "g"}, AnEvent::value, "t", KORlog::Key{"k"}(1));
}

TEST(Targets, GetNothingWithoutAUseableSeverity) {
    Scripted target;
    target.severities.clear();
    Send(target);
    EXPECT_EQ(target.written, 0);
}

TEST(Targets, GetEverythingThatWasSent) {
    Scripted target;
    Send(target);
    EXPECT_EQ(target.seen, "990100:1t10");
}

TEST(Targets, GetACopyOfThePlace) {
    Scripted target;
    char const file[] = "f.cpp";
    Send(target, file);
    EXPECT_EQ(target.file, file);
    EXPECT_NE(target.fileAddress, file);
}

TEST(Targets, ThatThrowDoNotDisturbTheCaller) {
    Scripted target;
    target.throws = true;
    EXPECT_NO_THROW(Send(target));
    EXPECT_EQ(target.written, 1);
}

}  // namespace
