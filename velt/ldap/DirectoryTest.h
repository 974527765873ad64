// DirectoryTest: the fixture of tests that read ldap.txt and bwserver.txt, without servers from an earlier test.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

#include <testing/TempRoot.h>
#include <velt/ldap/LDAPPrim.h>

class DirectoryTest : public ::testing::Test {
protected:
    using Texts = std::vector<std::string>;

    DirectoryTest() {
        ::setenv("LDAPNOINIT", "1", 1);  // ldap.conf(5) of the machine has no say
        Forget();
    }
    ~DirectoryTest() override { Forget(); }

    void Read(std::string const& servers, std::string const& lists = "", bool cached = true,
              unsigned short limit = 10) {
        if (!servers.empty()) m_root.Write("/config/qxxmlconf/ldap.txt", servers);
        if (!lists.empty()) m_root.Write("/config/qxxmlconf/bwserver.txt", lists);
        VELT::LDAPPrim::initialise(cached, limit);
    }
    static void Forget() {
        for (auto* const servers : {&VELT::LDAPPrim::s_ldap_servers, &VELT::LDAPPrim::s_dropped_servers}) {
            for (VELT::LDAPServer* const one : *servers) delete one;
            servers->clear();
        }
        delete VELT::LDAPPrim::s_bw_server;
        VELT::LDAPPrim::s_bw_server = nullptr;
    }
    static std::vector<VELT::LDAPServer*> Servers() {
        std::vector<VELT::LDAPServer*> servers;
        VELT::LDAPPrim::getLDAPServers(servers);
        return servers;
    }
    static Texts Hosts() {
        Texts hosts;
        for (VELT::LDAPServer* const one : Servers()) hosts.push_back(one->getServer());
        return hosts;
    }

    velt_testing::TempRoot m_root;
};
