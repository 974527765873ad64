// TelnetEscapeHandler: what a host does about the telnet commands in the input of a control connection, such as FTP's.
// TCPStream::set_escape_handler takes them out of a stream's input and calls these, in the order of their arrival.
// Owner: the host, for as long as the stream may call it. Thread: the one that reads the stream, inside the read; an
// operation may write to the stream and may take the handler off, but does not read. Units: option and command are the
// byte that came, 0 to 255. Failure: an exception leaves through the read.
#pragma once

#include <velt/Export.h>

namespace VELT {

class VELT_API TelnetEscapeHandler {
public:
    virtual void on_will(int option) = 0;
    virtual void on_wont(int option) = 0;
    virtual void on_do(int option) = 0;
    virtual void on_dont(int option) = 0;
    virtual void on_interrupt() = 0;           // IAC IP
    virtual void on_data_mark() = 0;           // IAC DM, and the DM that ends an interrupt
    virtual void on_command(int command) = 0;  // IAC with any other command

    virtual ~TelnetEscapeHandler();  // behind the operations, whose places in the table are fixed
};

}  // namespace VELT
