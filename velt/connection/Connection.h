// Connection: one client session. A host subclasses it and speaks its protocol in Start().
// Owner: whoever runs it deletes it: the pool, or the accepting thread that runs it in line. Hosts make it with new.
// Threads: one at a time: the accepting thread until it is queued, then one connection thread.
// Units: waits in milliseconds, budgets in milliseconds, ids are texts of UUID. Failure: connecting throws
// ConnectionFailure or LoopbackConnection; sending returns 0, an errno value, or -1. ConnectionFailure has no
// std::exception base: a host that catches std::exception does not see it.
#pragma once

#include <netinet/in.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <KORnet/Addr.h>
#include <velt/Config.h>
#include <velt/Export.h>
#include <velt/connection/TCPConnection.h>

class IKORPropertyBag;

namespace KORlog {
class InfoBag;
}
namespace QXStats {
class QXCounter;
}
namespace QXlog {
class Event;
}

namespace VELT {

class ConnThread;
class ConnThreadPool;
class ScannerStream;
class TCPServiceLoop;

// What a host may hang on a session; the session deletes it.
class VELT_API HostObject {
public:
    virtual ~HostObject() = default;
};

class VELT_API Connection {
public:
    enum RESOLVE_LOOKUP_T : int { RESOLVE_ADDRESS = 0, RESOLVE_MX = 1 };

    Connection();
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    // The hooks, in slot order. Start is the one that a host must write.
    virtual ~Connection();

    // Runs the session once: a health request is answered here; otherwise ids, direction and policy are fixed and
    // Start is called. A source that neither network list knows ends here without a word.
    virtual void Run();

    virtual void Start();  // base: nothing

    // Adds the session's facts to a report; called only for an event that is on. May look up host names.
    virtual void LogConnectionAttributes(KORlog::InfoBag& bag) const;

    virtual bool MailStreamCallback(long now);   // once per second of a long send; false stops it. Base: true
    virtual bool ScannerCallback();              // now and then during a scan. Base: true
    virtual char const* ConnectionType() const;  // "Transparent" or "Proxy"; a literal

    virtual void getConnectionAttributes(IKORPropertyBag* bag);  // fills the bag for the scan engines. Base: nothing

    // Called at start-up, before the sockets are bound and before any thread exists, once per mode on an object that is
    // thrown away afterwards: sets up the class, and may still add bindings. Base: nothing.
    virtual void InitialiseConnectionClass(bool transparent, Config& config);

    virtual Config& GetConfig();
    virtual void SetConfig(Config& other);  // copies every field; the slots then belong to this session's Config

    // Fixes the facts of the session, on the accepting thread. Takes the stream over.
    virtual void SetConnection(Config* config, TCPStream* stream, bool transparent, sockaddr_in& peer,
                               sockaddr_in& destination, sockaddr_in& local);

    virtual bool Active(char const* name);  // base: false

    void generateId();  // a new audit id, for each message
    void initialIds();  // a new audit id, and a new id of the session
    std::string& getId() { return m_id; }
    void setId(std::string& id) { m_id = id; }
    TCPConnection& getSourceConnection() { return m_source; }
    TCPConnection const& getSourceConnection() const { return m_source; }
    TCPConnection& getServerConnection() { return m_server; }
    TCPConnection const& getServerConnection() const { return m_server; }

    // True for a client at exactly 127.0.0.1, whatever its port, while health monitoring is on. No client there can
    // then run a real session.
    bool IsHealthCheck() const;
    bool Permitted() const { return true; }
    bool IsInBound() const;  // true: the session comes from outside

    bool SetupInsideOutside();  // the direction again, after the source's facts changed; false: neither list knows it
    bool ResolveIPAddress(TCPConnection& end);  // a reverse look-up into its host name; false: there is none

    // Writes a spooled message line by line in the dot-stuffed form of RFC 5321, without the final ".". -1: no output;
    // 0: sent, or stopped by MailStreamCallback, or the message gives no more lines, also where its file cannot be
    // read; otherwise the errno value of the write.
    int SendMailStream(ScannerStream* mail, TCPStream* out);

    // Splits at white space; always 0.
    int TokenizeUsrCmd(char const* text, std::vector<std::string>& tokens);

    static void Initialise();  // makes the message counters; once, at start-up

    // A look-up: RESOLVE_ADDRESS appends the host's addresses, and takes no limit; RESOLVE_MX those of at most
    // maxExchangers exchangers, at most maxAddresses, best first. 0, or a code of Resolver; -1 for another type.
    int Resolve(char const* name, RESOLVE_LOOKUP_T type, std::vector<KORnet::IPAddr>& out, unsigned first,
                unsigned maxAddresses);

    // Connects the server end. True: connected. False: nothing to connect to, and no failure to report. The failure of
    // the last address is thrown; LoopbackConnection only if every address led back to this proxy.
    bool Connect(char const* host, unsigned short port, unsigned timeoutMs, bool checkLoopback);
    bool Connect(std::vector<KORnet::IPAddr>& addresses, unsigned short port, unsigned timeoutMs, bool checkLoopback);

    // Walks from index `next`, which names the address after the last one tried, so that a caller can go on behind an
    // address that it rejected. budgetMs 0: no limit over all; otherwise checked in whole seconds, between attempts.
    bool Connect(std::vector<KORnet::TCPAddr> const& addresses, unsigned& next, unsigned timeoutMs, bool checkLoopback,
                 unsigned budgetMs);

    // Connects the server end of a transparent session to where its client meant to go, with the client's address as
    // the one that the server sees. Throws as the others do, and FWException<io> where that address cannot be had.
    bool ConnectAsClient(unsigned timeoutMs);

    // Connects the server end of a transparent session as ConnectAsClient does, and carries bytes both ways, unseen and
    // unchanged, until either side stops or both are silent for the process's timeout. Both streams are gone then. What
    // cannot be connected closes the client: nothing is reported, and the caller cannot tell.
    void TransparentPlug();

    // Moved by hosts, not by the library: messages, and those from inside (0) and from outside (1).
    static QXStats::QXCounter* s_pNoMessages;
    static QXStats::QXCounter* s_pPolicyMessages[2];

protected:
    std::string m_id;              // renewed per message by the host
    std::string m_conversationId;  // of the session
    sockaddr_in m_deviceAddress;   // the peer as the interception device gave it; for hosts
    int m_workerId;                // process id of the worker that runs the session
    bool m_transparent;
    std::time_t m_startTime;
    TCPConnection m_source;
    TCPConnection m_server;
    std::unique_ptr<HostObject> m_hostObject;
    std::unique_ptr<HostObject> m_hostObject2;
    Config* m_parentConfig;  // the process's
    Config m_config;         // the session's own

private:
    friend class ConnThread;
    friend class ConnThreadPool;
    friend class ScannerWatch;
    friend class TCPServiceLoop;

    class Walk;
    bool ConnectUnseen();
    void LogAttributes(QXlog::Event const& event, std::string const& text = {}) const;
};

}  // namespace VELT
