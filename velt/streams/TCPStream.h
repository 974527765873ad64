// TCPStream: one socket, and timed input and output on it. Every wait is one poll on one descriptor.
// It owns its descriptor, which closes with the stream; there is no close before that.
// Owner: one session at a time, ownership passes with the stream. Thread: the owner's; there is no lock. The class-wide
// values are set at start-up, before a thread uses a stream. Units: milliseconds; ports in host order.
// Failure: connecting and set-up throw ConnectionFailure, LoopbackConnection or FWException<io>; reading and writing
// never throw but answer 0 or an errno value, 110 for a wait that ran out, or -1 where their comment says so.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

#include <velt/Export.h>
#include <velt/streams/BufferedStream.h>
#include <velt/streams/SourceNat.h>

namespace KORnet {
class IPAddr;
}

namespace VELT {

class Config;
class TCPConnection;

class VELT_API TCPStream : public BufferedStream, public SourceNat {
public:
    TCPStream();                 // no socket yet: CreateSocket or SetSocket follows
    explicit TCPStream(int fd);  // owns it from now on and leaves its flags alone
    // Connecting. A text that is no dotted quad stands for 0.0.0.0.
    TCPStream(std::string& address, unsigned short port, int timeout_ms, bool check_loopback);
    // Records in `connection` what it connected to; the host name there is emptied.
    TCPStream(KORnet::IPAddr const& address, unsigned short port, TCPConnection& connection, int timeout_ms,
              bool check_loopback);
    TCPStream(sockaddr_in* remote, int timeout_ms, bool check_loopback);
    TCPStream(std::string& path, int timeout_ms);  // a local socket
    ~TCPStream() override;

    // Set-up.
    void CreateSocket(int domain);
    void SetSocket(int fd) { socket = fd; }
    int GetSocket() const { return socket; }
    void Bind(sockaddr const* address, unsigned length);
    void Listen(int backlog);
    TCPStream* Accept(sockaddr* address, unsigned* length);  // waits; the caller owns the new stream
    // On failure the socket stays open only where connect itself failed at once.
    void Connect(sockaddr_in const* address, int timeout_ms, bool check_loopback);
    static bool IsLoopback(sockaddr_in const* address);
    void GetSockName(sockaddr* address, unsigned* length);
    void GetPeerName(sockaddr* address, unsigned* length);
    int SetLinger(int onoff, int seconds);  // 0 or an errno value
    int GetConnectionInfo(sockaddr_in& peer, sockaddr_in& local, sockaddr_in& destination, bool& flag);  // 0 or -1

    unsigned set_timeout(unsigned ms);  // of each wait of this stream; answers the old one
    static void set_default_timeout(unsigned ms);
    static void set_pool(BufferPool* pool);
    static void initialise(Config* config);  // makes the counters

    // Input. A count of 0 with the answer 0 is the end of the stream.
    int RecvDataFlagged(char* buffer, unsigned length, int flags, unsigned* received);
    int read(char* buffer, unsigned length, unsigned* received) override;
    int read(char* buffer, unsigned length);  // all of it; -1 where the stream ends before

    // Output. An empty SendDataFlagged answers -1, an empty two-argument write 0.
    int SendDataFlagged(char const* buffer, unsigned length, int flags, unsigned* sent);
    int write(char const* buffer, unsigned length, unsigned* sent) override;
    int write(char const* buffer, unsigned length);
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override;
    int SendData(unsigned count, char const** buffers, unsigned* lengths, unsigned* sent);
    int PutLine(char const* text, bool crlf);
    int PutLine(std::string const& text, bool crlf);
    // One send that never waits: the count of bytes that went. A length that no send takes comes back as it is.
    int SendDataNonBlocked(char const* buffer, unsigned length);

    int get_file() override;
    void flush() override;  // drops all input that is there already
    BufferPool* get_pool() override;

    virtual int SendData(char const* buffer, unsigned length, unsigned* sent);
    virtual bool IsStillConnected();  // a look that takes no time and no byte

private:
    void CloseSocket();
    void ConnectTo(sockaddr const* address, unsigned length, int timeout_ms, bool counted);
    [[noreturn]] void ConnectTimedOut(bool counted);

    static std::uint32_t s_timeout;
    static BufferPool* s_pool;

    std::uint32_t timeout;
    int socket = -1;
};

}  // namespace VELT
