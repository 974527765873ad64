// A connection for the length of a scope. One that an exception or the thread's end interrupts is not used again.
// Thread: the borrower's.
#pragma once

#include <velt/ldap/LDAPServer.h>

namespace VELT {

class BorrowedConnection {
public:
    explicit BorrowedConnection(LDAPServer& server) : m_server(server), m_connection(server.connect(m_error)) {}
    ~BorrowedConnection() {
        if (!m_connection) return;
        m_connection->failed = m_connection->failed || !m_done;
        m_server.release(m_connection);
    }
    BorrowedConnection(BorrowedConnection const&) = delete;
    BorrowedConnection& operator=(BorrowedConnection const&) = delete;

    LDAPConnection* get() const { return m_connection; }  // null: error() tells why
    int error() const { return m_error; }
    int Done(int result) {  // the work came to its end, with whatever result
        m_done = true;
        return result;
    }

private:
    LDAPServer& m_server;
    int m_error = 0;
    LDAPConnection* m_connection;
    bool m_done = false;
};

}  // namespace VELT
