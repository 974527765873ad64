// FailingNew: while it lives, one allocation of the calling thread by operator new fails, or each from one on. A
// program that uses it is linked with FailingNew.cpp, which replaces operator new. Owner: the test, one at a time for
// each thread. Threads: others are not touched. Failure: none.
#pragma once

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VELT_NEW_IS_TAKEN  // by the sanitizer, whose own operator can be no other's: nothing fails then
#endif
#endif

namespace velt_testing {

struct FailingState {
    bool on = false;
    bool failed = false;
    bool forGood = false;
    unsigned long left = 0;  // that still succeed
    unsigned spared = 0;     // SparedNew that live
};
inline thread_local FailingState t_failing;

class FailingNew {
public:
    enum Extent { Once, FromThenOn };

    explicit FailingNew(unsigned long after, Extent extent = Once) {
        t_failing = {true, false, extent == FromThenOn, after, t_failing.spared};
    }
    ~FailingNew() { t_failing.on = false; }
    FailingNew(FailingNew const&) = delete;
    FailingNew& operator=(FailingNew const&) = delete;
    static bool HasFailed() { return t_failing.failed; }
    static constexpr bool IsPossible() {
#ifdef VELT_NEW_IS_TAKEN
        return false;
#else
        return true;
#endif
    }
};

// What a test's own means allocate while it lives succeeds and does not count.
class SparedNew {
public:
    SparedNew() { ++t_failing.spared; }
    ~SparedNew() { --t_failing.spared; }
    SparedNew(SparedNew const&) = delete;
    SparedNew& operator=(SparedNew const&) = delete;
};

}  // namespace velt_testing
