// DaemonSide: the scanner daemon's own conversation on one connection, with the engines of this process. All that it
// says is kept. Owner: the test. Thread: the one that runs it; the rest is read when that has ended. Failure: troubles.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Conversation.h"
#include "testing/Fd.h"
#include "velt/scanning/Scanner.h"
#include "velt/streams/TCPStream.h"

namespace velt_wire {

class DaemonSide : public scannerd::Desk, private VELT::BufferedStream {
public:
    DaemonSide(velt_testing::Fd peer, std::string spool);
    ~DaemonSide() override;

    void Run(bool local);       // to the end of the conversation, and of the connection
    void RunWoken(bool local);  // the same of one that was kept: the client wakes it up first

    scannerd::SessionSettings settings;
    std::vector<std::string> said;  // without the answer to the wakeup; each when it was asked for
    std::vector<std::string> troubles;

private:
    bool Intern(std::string const& name, InternedString& interned) override;
    int Scan(VELT::ScanContext& context, bool fallback, VELT::ScanOutput*& output) override;
    void ItemEnds() override { m_scanner.reset(); }
    void Note(scannerd::Step) override {}
    void Tell(scannerd::Trouble, std::string const& why) override { troubles.push_back(why); }

    int read(char* data, unsigned length, unsigned* received) override { return m_stream.read(data, length, received); }
    int write(char const* data, unsigned length, unsigned* sent) override;
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override;
    int get_file() override { return m_stream.get_file(); }
    VELT::BufferPool* get_pool() override { return m_stream.get_pool(); }

    VELT::TCPStream m_stream;
    std::unique_ptr<VELT::Scanner> m_scanner;
};

}  // namespace velt_wire
