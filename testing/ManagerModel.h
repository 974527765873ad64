// ManagerModel: a resource manager of scanner processes for tests, under the system calls of the code that is tested.
// As long as one lives, open, fopen, access and ioctl of this program lead to it where they name its devices or its
// entries in /proc. Everything else reaches the system. A handle is a real descriptor: dup, fork and close are the
// system's own, and the model sees the last close. Owner: the test, one at a time. Threads: any may call; the verbs may
// be used while others call. Failure: fails the test that asks.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <testing/Fd.h>
#include <testing/TempRoot.h>

namespace velt_testing {

class ManagerModel {
public:
    static constexpr int control = -1;  // in the place of a resource's number

    struct Call {
        int device;
        unsigned long request;
        std::string bytes;  // what the argument pointed to, before the answer
        bool hasArgument;
    };
    struct Offer {
        int resource, id, sequence;
        sockaddr_in address;
    };
    struct WaitRecord {
        std::int32_t timeout, id, sequence;
        std::uint32_t address, port;
    };

    ManagerModel();
    ~ManagerModel();
    ManagerModel(ManagerModel const&) = delete;
    ManagerModel& operator=(ManagerModel const&) = delete;

    // What the next waits answer, in this order; behind the last of them each wait times out.
    void ToOffer(Offer offer);
    void ToTimeOut() { ToFail(EAGAIN); }
    void ToFail(int error);

    void SetUp(int resource, bool up);                  // resources are up unless told
    void SetName(int resource, std::string name);       // without its zero; without a name request 7 fails
    void Answer(unsigned long request, int answer);     // of 1, 2, 3 and 6; negative: -1 with this errno
    void RefuseOpens(int error, unsigned after = 0);    // 0: no longer; so many more succeed before
    void SetPresent(bool present);                      // /proc/qxrmgr and /dev/qxrmgrctl
    void WriteSettings(std::string const& text) const;  // the entry; without this there is none

    void Forget();  // what was called, and the handles that nobody has any more

    std::vector<Call> calls() const;
    std::vector<WaitRecord> waits() const;  // as they were asked
    unsigned opens(int device) const;
    unsigned held(int device) const;  // handles of it that somebody still has
    int openFlags() const;            // of the latest
    std::string setupName() const;    // the 32 bytes behind the last setup record

    // For the calls that the model stands under. False: not the model's business.
    static bool TakesOpen(char const* path, int flags, int& result);
    static bool TakesAccess(char const* path, int& result);
    static bool TakesIoctl(int fd, unsigned long request, void* argument, int& result);
    static std::string PathFor(std::string path);  // where a file is in truth

private:
    struct Handle {
        int device;
        Fd end;  // the model's
        unsigned long long inode;
    };
    struct WaitAnswer {
        int error;  // 0: the offer
        Offer offer;
    };
    int Open(int device, int flags);
    int Ask(int device, unsigned long request, void* argument);
    int Wait(WaitRecord& record);
    int Told(unsigned long request);

    TempRoot m_root;
    mutable std::mutex m_lock;  // guards all below
    std::vector<Handle> m_handles;
    std::vector<Call> m_calls;
    std::deque<WaitAnswer> m_answers;
    std::map<int, bool> m_down;
    std::map<int, std::string> m_names;
    std::map<unsigned long, int> m_told;
    std::string m_setupName;
    bool m_present = true;
    int m_refusal = 0;
    unsigned m_refuseAfter = 0;
    int m_openFlags = 0;
};

}  // namespace velt_testing
