// ProxyHealth: answers a local monitor that asks over HTTP, on the proxy's own ports and from 127.0.0.1, whether the
// proxy is well and which ports it could open.
// Owner: statics. Threads: ports are registered at start-up, before anything is accepted, and only read afterwards.
// Units: m_starttime in seconds since 1970, 0 means that monitoring is off. Failure: a bad request gets no answer.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <ctime>
#include <deque>
#include <string>

#include <velt/Export.h>

namespace VELT {

class TCPStream;

class VELT_API ProxyHealth {
public:
    class ProxyPort {
    public:
        explicit ProxyPort(unsigned short number) : port(number), ok(false) {}
        void set_ok() { ok = true; }
        void set_notok() { ok = false; }

        unsigned short port;
        bool ok;
    };

    static void init(std::string const& name);  // a host that wants its ports listed calls it before ProxyStart
    static bool is_active();
    static void disable();
    static boost::shared_ptr<ProxyPort> listener(unsigned short port);
    static void handle_request(TCPStream* stream);
    static void proxy_status(TCPStream* stream);

    static std::atomic<std::time_t> m_starttime;
    static std::string& m_proxyname;
    static std::deque<boost::shared_ptr<ProxyPort>>& m_portlist;  // in the order of first registration
};

}  // namespace VELT
