// Slapd: a real directory server (slapd(8)) on loopback with a small tree, in a folder of its own, that notes what it
// is asked. Owner: the fixture. Thread: the test's. Failure: std::runtime_error from the constructor, with the server's
// log.
//
// The tree (testing/slapd): ou=people has ann (departments sales and staff, in the groups sales and all), bob (in all),
// and those added; ou=lists holds entries of the class listUser: mail, allowList, denyList. The administrator is kAdmin
// with "secret".
#pragma once

#include <string>
#include <vector>

namespace velt_testing {

class Slapd {
public:
    static constexpr char kAdmin[] = "cn=admin,dc=example,dc=test";
    static constexpr char kBase[] = "dc=example,dc=test";

    explicit Slapd(std::string const& settings = "");  // further lines of slapd.conf(5), of the database
    ~Slapd();
    Slapd(Slapd const&) = delete;
    Slapd& operator=(Slapd const&) = delete;

    unsigned short port() const { return m_port; }
    std::string host() const { return "127.0.0.1:" + std::to_string(m_port); }  // as ldapserver in ldap.txt has it
    std::string certificates() const { return m_folder + "/ca.pem"; }  // whom a client has to trust for StartTLS

    void Stop();
    void Start();
    void Freeze() const;  // takes connections, as the system does that, and answers nothing
    void Thaw() const;

    std::size_t Noted(std::string const& what) const;  // lines of its log with this text, such as " SRCH base="
    std::size_t Connections() const;                   // that it took
    bool WaitForEnds(std::size_t connections) const;   // until so many have ended; false after a minute
    std::vector<std::string> Lists() const;  // the names of the entries below ou=lists, in the order of the server

private:
    void Prepare(std::string const& settings) const;
    bool Runs();
    std::string Log() const;

    std::string m_folder;
    unsigned short m_port = 0;
    int m_pid = -1;
    std::size_t m_looks = 0;  // connections of Start, which looks whether it serves
};

}  // namespace velt_testing
