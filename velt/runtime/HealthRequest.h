// The reading of a health request, and the whole exchange.
// Owner: none; functions. Threads: any. Units: milliseconds, bytes. Failure: ProxyHealthIOError, whose text says why;
// nobody but ProxyHealth ever sees it.
#pragma once

#include <KORtk/Exception.h>

namespace VELT {

class TCPStream;

struct ProxyHealthIOErrorT {};
using ProxyHealthIOError = KORtk::ExceptionT<ProxyHealthIOErrorT, KORtk::Exception>;

// Puts the path of a GET request into `dest`, cut to size - 1 bytes.
void read_request_info(int socket, char* dest, unsigned size);

// Reads a request from the stream and answers it; what cannot be answered has had nothing written.
void answer_request(TCPStream& stream);

}  // namespace VELT
