// TCPStream: one socket, and timed input and output on it. Every wait is one poll on one descriptor.
// It owns its descriptor, which closes with the stream; there is no close before that.
// Owner: one session at a time, ownership passes with the stream. Thread: the owner's; there is no lock. The class-wide
// values are set at start-up, before a thread uses a stream. Units: milliseconds; ports in host order.
// Failure: connecting and set-up throw ConnectionFailure, LoopbackConnection or FWException<io>; reading and writing
// never throw but answer 0 or an errno value, 110 for a wait that ran out, or -1 where their comment says so. Only the
// output of a replay throws, TCPTestFailure.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

#include <velt/Export.h>
#include <velt/streams/BufferedStream.h>
#include <velt/streams/CaptureRecord.h>
#include <velt/streams/SourceNat.h>

namespace KORnet {
class IPAddr;
}

namespace VELT {

class Config;
class TCPConnection;
class TelnetEscapeHandler;

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
    // The server sees `nat_source`. A null `local` is any address.
    TCPStream(sockaddr_in* remote, sockaddr_in* nat_source, sockaddr_in* local, int timeout_ms, bool check_loopback);
    TCPStream(std::string& path, int timeout_ms);  // a local socket
    ~TCPStream() override;

    // Set-up.
    void CreateSocket(int domain);
    void SetSocket(int fd) { socket = fd; }
    int GetSocket() const { return socket; }
    void Bind(sockaddr const* address, unsigned length);
    void Listen(int backlog);
    TCPStream* Accept(sockaddr* address, unsigned* length);  // waits; the caller owns the new stream
    // The new stream also gets a copy of this one's handle of the interception, or none if that fails.
    TCPStream* AcceptRedir(sockaddr* address, unsigned* length);
    // On failure the socket stays open only where connect itself failed at once.
    void Connect(sockaddr_in const* address, int timeout_ms, bool check_loopback);
    static bool IsLoopback(sockaddr_in const* address);
    void GetSockName(sockaddr* address, unsigned* length);
    void GetPeerName(sockaddr* address, unsigned* length);
    int SetLinger(int onoff, int seconds);  // 0 or an errno value
    // The operations of SourceNat on this stream's socket.
    int SetTransparency(TCPStream* other);
    int SetSourceAddr(sockaddr_in* local, sockaddr_in* remote, sockaddr_in* source);
    int SetFTPRule(sockaddr_in* first, sockaddr_in* second, bool flag);
    int GetConnectionInfo(sockaddr_in& peer, sockaddr_in& local, sockaddr_in& destination, bool& flag);

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
    // A line in one system call. 0 also where the wait for it failed and it did not go: SendData tells what went.
    int PutLine(char const* text, bool crlf);
    int PutLine(std::string const& text, bool crlf);
    // One send that never waits: the count of bytes that went. A length that no send takes comes back as it is.
    int SendDataNonBlocked(char const* buffer, unsigned length);

    int get_file() override;
    void flush() override;  // drops all input that is there already
    BufferPool* get_pool() override;

    virtual int SendData(char const* buffer, unsigned length, unsigned* sent);
    virtual bool IsStillConnected();  // a look that takes no time and no byte

    // Telnet: takes the commands out of the input from now on and calls the handler, which is not owned; null ends
    // that. A receive of commands alone comes back as 0 bytes, as the end of the stream does. An escaped 255 is one
    // byte; of IAC IP DM in one buffer the IAC stays as data.
    void set_escape_handler(TelnetEscapeHandler* handler);
    void handle_telnet(char* data, unsigned& length);  // in place; `length` shrinks

    // Capture, for developers (docs/formats/capture.md). The directory is made, open to all; an empty one means that
    // nothing is captured. `name` becomes part of the path as it stands: never take it from the network.
    static void set_debug_dir(std::string const& path);
    void debug(std::string const& name, char const* part);  // into "DIRECTORY/name-part.qxd", anew; or not, unreported
    void write_debug(int type, char const* data, int length);  // one record; a length below 0 is a header alone
    // Replay: the stream reads from the file in place of the socket, and what it writes is compared; for good. The file
    // is emptied first, and a whole header starts no record: the data comes behind the last header that was read.
    void use_debug_file(char const* path);
    int compare_write(char const* data, unsigned length);  // 0, or -1 where the file has input or nothing next
    // Neither capture nor replay nor telnet stands between the socket and those who use the stream.
    bool is_plain() const { return debug_fd < 0 && !replay && !escape_handler; }

private:
    void CloseSocket();
    void ConnectTo(sockaddr const* address, unsigned length, int timeout_ms, bool counted);
    [[noreturn]] void ConnectTimedOut(bool counted);
    int Receive(char* data, unsigned length, int flags, unsigned* received);

    // Each answers how many bytes, the last of which is this one, are no data.
    unsigned TelnetByte(unsigned char byte, bool first);
    unsigned TelnetCommand(unsigned char byte, bool first);
    unsigned TelnetOption(unsigned char byte);
    unsigned TelnetMark(unsigned removed);

    void CloseCapture();
    int ReplayInput(char* data, unsigned length, unsigned* received);
    bool ExpectsOutput();

    static std::uint32_t s_timeout;
    static BufferPool* s_pool;
    static std::string s_debugdir;

    std::uint32_t replay_in_left = 0;   // of the record being replayed, bytes not yet read
    std::uint32_t replay_out_left = 0;  // of the record being replayed, bytes not yet compared
    int debug_fd = -1;                  // the capture that is written, or with `replay` read
    bool replay = false;
    TelnetEscapeHandler* escape_handler = nullptr;
    std::uint32_t telnet_state = 0;
    std::uint32_t telnet_command = 0;
    std::uint32_t timeout;
    int socket = -1;
    CaptureRecord replay_record;  // the last header that was read
};

}  // namespace VELT
