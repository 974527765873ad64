// Where mail goes, asked of a name server on loopback.
#include "Exchangers.h"

#include <gtest/gtest.h>

#include <memory>

#include <testing/FakeNameServer.h>
#include <velt/lookup/Resolver.h>

namespace smtp {
namespace {

using velt_testing::DnsBytes;
using velt_testing::DnsName;
using velt_testing::FakeNameServer;

constexpr unsigned kAddress = 0xC0000201;  // 192.0.2.1

class Exchangers : public ::testing::Test {
protected:
    ~Exchangers() override { VELT::Resolver::s_excludedhosts.clear(); }
    Reply Find(FakeNameServer::Answer answer, std::string const& domain = "example.test") {
        m_server = std::make_unique<FakeNameServer>(std::move(answer));
        VELT::Resolver::start();
        m_server->Use();
        m_found.clear();
        return FindExchangers(domain, m_found);
    }
    std::string Found() const {
        std::string out;
        for (KORnet::IPAddr const& one : m_found) out += one.str() + ' ';
        return out;
    }

    std::unique_ptr<FakeNameServer> m_server;
    std::vector<KORnet::IPAddr> m_found;
};

TEST_F(Exchangers, ComeInTheirOrder) {
    Reply const reply = Find([](auto const& query, DnsBytes& answer) {
        EXPECT_EQ(query.name, "example.test");
        answer.Mx(20, DnsName("b.test")).Mx(10, DnsName("a.test"));
        answer.Address(DnsName("b.test"), kAddress + 1).Address(DnsName("a.test"), kAddress);
        return true;
    });
    EXPECT_EQ(reply.code, 250);
    EXPECT_EQ(Found(), "192.0.2.1 192.0.2.2 ");
}

TEST_F(Exchangers, OfADomainThatTakesNoMailAreNone) {
    Reply const reply = Find([](auto const&, DnsBytes& answer) {
        answer.Mx(0, DnsName(""));
        return true;
    });
    EXPECT_EQ(reply.code, 556);
    EXPECT_EQ(reply.status, "5.1.10");
}

TEST_F(Exchangers, OfADomainWithoutAnyAreItsOwnAddress) {
    Reply const reply = Find([](auto const& query, DnsBytes& answer) {
        if (query.type == DnsBytes::type_a)
            answer.Address(velt_testing::DnsPointer(DnsBytes::header_size), kAddress, DnsBytes::answer);
        return true;
    });
    EXPECT_EQ(reply.code, 250);
    EXPECT_EQ(Found(), "192.0.2.1 ");
}

TEST_F(Exchangers, OfAnAliasWithoutAnyAreItsAddress) {
    Reply const reply = Find([](auto const& query, DnsBytes& answer) {
        auto const owner = velt_testing::DnsPointer(DnsBytes::header_size);
        answer.Record(DnsBytes::answer, owner, DnsBytes::type_cname, DnsName("host.test"));
        if (query.type == DnsBytes::type_a) answer.Address(DnsName("host.test"), kAddress, DnsBytes::answer);
        return true;
    });
    EXPECT_EQ(reply.code, 250);
    EXPECT_EQ(Found(), "192.0.2.1 ");
}

TEST_F(Exchangers, ThatAreThisMachineAloneAreACircle) {
    VELT::Resolver::s_excludedhosts = {"me.test"};
    Reply const reply = Find([](auto const&, DnsBytes& answer) {
        answer.Mx(10, DnsName("me.test")).Mx(20, DnsName("b.test")).Address(DnsName("b.test"), kAddress);
        return true;
    });
    EXPECT_EQ(reply.code, 554);
    EXPECT_EQ(reply.status, "5.4.6");
    EXPECT_EQ(Found(), "");
}

TEST_F(Exchangers, WhoseAddressesAreNotToBeHadNowAreAskedForAgain) {
    Reply const reply = Find([](auto const& query, DnsBytes& answer) {
        if (query.type == DnsBytes::type_mx) answer.Mx(10, DnsName("a.test"));
        if (query.type != DnsBytes::type_mx) answer.Code(2);
        return true;
    });
    EXPECT_EQ(reply.group(), 4);
}

TEST_F(Exchangers, OfADomainThatIsUnknownAreRefusedAndOfOneThatCannotBeAskedDeferred) {
    EXPECT_EQ(Find([](auto const&, DnsBytes& answer) { return answer.Code(3), true; }).code, 550);
    EXPECT_EQ(Find([](auto const&, DnsBytes& answer) { return answer.Code(2), true; }).code, 451);
}

TEST_F(Exchangers, OfAnAddressAreTheAddress) {
    auto const silent = [](auto const&, DnsBytes&) { return false; };
    EXPECT_EQ(Find(silent, "[192.0.2.9]").code, 250);
    EXPECT_EQ(Found(), "192.0.2.9 ");
    EXPECT_EQ(Find(silent, "[IPv6:::1]").code, 550);
}

}  // namespace
}  // namespace smtp
