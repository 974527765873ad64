// Loop: an epoll set whose entries carry a number of the caller's, and the two ways in which a run is told to end:
// a signal, or the end of standard input. Threads: one.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace velt_load {

class Loop {
public:
    static constexpr std::uint64_t kStandardInput = ~std::uint64_t{0};
    static constexpr std::uint64_t kSignals = kStandardInput - 1;

    Loop();
    ~Loop();
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;

    void Add(int fd, bool toWrite, std::uint64_t number);
    void Change(int fd, bool toWrite, std::uint64_t number);
    void Remove(int fd);
    void WatchStandardInput();
    bool stopped() const { return m_stopped; }  // SIGINT or SIGTERM came
    bool ended() const;                         // that, or standard input is at its end

    // Waits for so many seconds at most; gives how many are ready. Signals and standard input are looked at here.
    std::size_t Wait(double seconds);
    std::uint64_t number(std::size_t i) const { return m_ready[i].data.u64; }

private:
    void DropOwn(std::size_t& count);
    void ReadStandardInput();

    int m_set;
    int m_signals = -1;
    bool m_stopped = false;
    bool m_inputEnded = false;
    std::array<epoll_event, 256> m_ready;
};

void RaiseDescriptorLimit();

}  // namespace velt_load
