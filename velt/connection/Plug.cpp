#include <velt/connection/Plug.h>

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include <velt/connection/PlugFlow.h>
#include <velt/streams/TCPStream.h>
#include <velt/streams/TCPWatch.h>

namespace VELT {

namespace {

using Steady = std::chrono::steady_clock;

// The two directions and the one wait for both.
class Joint {
public:
    Joint(TCPStream& client, TCPStream& server, int timeoutMs)
        : m_sockets{client.GetSocket(), server.GetSocket()},
          m_up(client, server),
          m_down(server, client),
          m_timeoutMs(timeoutMs) {}

    bool Over() const { return m_up.failed() || m_down.failed() || (Stopping() && !Pending()); }
    bool Wait();
    void Carry();

private:
    static constexpr int kRestMs = 1000;
    static constexpr short kInput = POLLIN | POLLRDHUP;
    static constexpr short kEnd = POLLERR | POLLHUP;

    bool Pending() const { return m_up.pending() || m_down.pending(); }
    bool Stopping() const { return m_up.ended() || m_down.ended(); }
    short Wanted(PlugFlow const& out, PlugFlow const& in) const {
        short const room = out.pending() ? POLLOUT : 0;
        return static_cast<short>(room | (in.pending() || Stopping() ? 0 : kInput));
    }
    void Watch();
    int Poll(int mostMs);
    void Serve(PlugFlow& flow, short from, short to);
    int Patience() const;
    int LeftFor(PlugFlow const& flow) const;

    int m_sockets[2];
    PlugFlow m_up;
    PlugFlow m_down;
    int m_timeoutMs;
    pollfd m_watched[2] = {{-1, 0, POLLIN}, {-1, 0, 0}};  // most clients have spoken when they are plugged
};

// A side that is neither to be read nor written is left out: its end would be told again and again.
void Joint::Watch() {
    short const wanted[2] = {Wanted(m_down, m_up), Wanted(m_up, m_down)};
    for (int i = 0; i < 2; ++i) m_watched[i] = {wanted[i] ? m_sockets[i] : -1, wanted[i], 0};
}

// A user's pipes are few, so those of sides that have become silent are given back.
bool Joint::Wait() {
    Watch();
    int restMs = 0;
    if (!Pending() && (m_up.hasPipe() || m_down.hasPipe())) {
        restMs = std::min(kRestMs, m_timeoutMs);
        int const ready = Poll(restMs);
        if (ready != 0) return ready > 0;
        m_up.ClosePipe();
        m_down.ClosePipe();
    }
    return Poll(m_timeoutMs - restMs) > 0;
}

// The count of sides with news; 0: there was none in this time, or in what is left of that of a side that takes
// nothing.
int Joint::Poll(int mostMs) {
    for (;;) {
        int const patienceMs = std::min(mostMs, Patience());
        if (patienceMs == 0 && Pending()) return 0;
        int const ready = ::poll(m_watched, 2, patienceMs);
        if (ready >= 0 || errno != EINTR) return ready;
    }
}

void Joint::Carry() {
    Serve(m_up, m_watched[0].revents, m_watched[1].revents);
    if (!m_up.failed()) Serve(m_down, m_watched[1].revents, m_watched[0].revents);
}

void Joint::Serve(PlugFlow& flow, short from, short to) {
    if (flow.pending()) {
        if (to & (POLLOUT | kEnd)) flow.Push();
    } else if ((from & (POLLIN | kEnd)) && !Stopping()) {
        flow.Carry(from & POLLRDHUP);
    }
}

// A side that talks on does not keep one alive that takes nothing.
int Joint::Patience() const { return std::min(LeftFor(m_up), LeftFor(m_down)); }

int Joint::LeftFor(PlugFlow const& flow) const {
    if (!flow.pending()) return m_timeoutMs;
    auto const waited =
        std::chrono::duration_cast<std::chrono::milliseconds>(Steady::now() - flow.pendingSince()).count();
    return static_cast<int>(std::clamp<long long>(m_timeoutMs - waited, 0, m_timeoutMs));
}

// What `from` holds, or else what one read brings, whole. False: there is no more, or `to` does not take it.
bool HandOn(TCPStream& from, TCPStream& to) {
    char* data = nullptr;
    bool used = false;
    int const count = from.readdata(data, 0x7FFFFFFF, false, used);
    return count > 0 && to.write(data, static_cast<unsigned>(count)) == 0;
}

bool HandOnBuffered(TCPStream& from, TCPStream& to) {
    char* data = nullptr;
    return from.buffereddata(data) <= 0 || HandOn(from, to);
}

}  // namespace

void Plug::Run() {
    if (!HandOnBuffered(m_client, m_server) || !HandOnBuffered(m_server, m_client)) return;
    m_client.is_plain() && m_server.is_plain() ? RunThroughKernel() : RunThroughBuffers();
}

// The buffers are of no more use: a session that is plugged for hours holds none.
void Plug::RunThroughKernel() {
    m_client.reset_buffered_stream();
    m_server.reset_buffered_stream();
    Joint joint(m_client, m_server, m_timeoutMs);
    do {
        joint.Carry();
    } while (!joint.Over() && joint.Wait());
}

// One side after the other, the client first. Input of which a telnet filter leaves nothing ends it, as the end of the
// stream does.
void Plug::RunThroughBuffers() {
    for (;;) {
        TCPWatch watch;
        watch.Watch(&m_client);
        watch.Watch(&m_server);
        if (watch.Wait(m_timeoutMs) <= 0) return;
        if (watch.HasTriggered(&m_client) && !HandOn(m_client, m_server)) return;
        if (watch.HasTriggered(&m_server) && !HandOn(m_server, m_client)) return;
    }
}

}  // namespace VELT
