// What the tests of scan threads and of the watch share: a world in which a scripted engine scans one message, settings
// that the test writes down, a clock and waits that it moves, and ends of processes that it takes note of. The program
// is linked with what is wrapped in ScanningTest.cpp. Owner: the test. Threads: set up before others start.
#pragma once

#include <QXStats/QXCounter.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "testing/EventCapture.h"
#include "testing/FakePolicyStore.h"
#include "testing/ScriptedFramework.h"
#include "testing/SessionWorld.h"
#include "testing/Waiting.h"
#include "velt/Config.h"
#include "velt/connection/FixedTime.h"
#include "velt/scanning/EFabricScanAgent.h"
#include "velt/scanning/ScanContext.h"
#include "velt/scanning/Scanner.h"
#include "velt/streams/ScannerStream.h"

extern "C" int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, timespec const*);

namespace velt_testing {

// While one lives, every timed wait is answered by the test.
class ScriptedWaits {
public:
    using Answer = std::function<int(pthread_cond_t*, pthread_mutex_t*, timespec const*)>;
    explicit ScriptedWaits(Answer answer) { s_answer = std::move(answer); }
    ~ScriptedWaits() { s_answer = nullptr; }
    ScriptedWaits(ScriptedWaits const&) = delete;
    ScriptedWaits& operator=(ScriptedWaits const&) = delete;

    static inline Answer s_answer;
};

// What is done to end a process, noted in memory that children share. While one lives, an abort that is sent with
// kill(2) reaches nobody, and no word goes to syslog.
class NotedEnd {
public:
    struct Notes {
        int process, signal, priority;
        char text[64];
        unsigned slept, lastAlarm;
        bool syslogHangs;  // said by the test; the last alarm then comes at once
    };
    NotedEnd();
    ~NotedEnd();
    NotedEnd(NotedEnd const&) = delete;
    NotedEnd& operator=(NotedEnd const&) = delete;

    Notes* operator->() { return s_notes; }

    static inline Notes* s_notes = nullptr;  // null: nothing is noted
};

unsigned LastPause();  // of usleep while the time stood still; microseconds

// Bytes, of the calling thread.
inline std::size_t OwnStack() {
    pthread_attr_t attributes;
    std::size_t size = 0;
    ::pthread_getattr_np(::pthread_self(), &attributes);
    ::pthread_attr_getstacksize(&attributes, &size);
    ::pthread_attr_destroy(&attributes);
    return size;
}

inline unsigned long Counter(char const* name) { return QXStats::QXCounter(name).value(); }

class CountingSession : public VELT::Connection {
public:
    bool ScannerCallback() override {
        ++callbacks;
        if (onCallback) onCallback();
        return true;
    }
    using VELT::Connection::m_workerId;

    std::atomic<int> callbacks{0};
    std::function<void()> onCallback;
};

class ScanningTest : public testing::Test {
protected:
    ScanningTest() {
        world.proxy().SetProxyName("gateway");
        VELT::EFabricScanAgent::load(world.root() / "config/product.xml", "gateway", false, "engine.xml");
        VELT::ScanAgent::initialise(&world.proxy().m_config);
        VELT::Config::initialise(&store);
        body.write("one message", 11u);
        Fill(context, session, body);
        script.Forget();
        script.scan = nullptr;
    }
    ~ScanningTest() override {
        delete output;
        script.scan = nullptr;
        script.onPolicy = nullptr;
        VELT::Config::initialise(nullptr);
    }

    // What the engine does in each scan; it finds nothing.
    void AtScan(std::function<void()> work) {
        script.scan = [work = std::move(work)](eFabric::IStreamTransport&,
                                               eFabric::IStreamTransport*) -> IScanResultHandler const* {
            work();
            return nullptr;
        };
    }
    void Set(char const* section, char const* key, FakeValue const& value) { store.Put("base", section, key, value); }
    void SetWatch(unsigned timeout, bool threads) {
        Set("scanning", "FlatSpinTimeout", FakeValue::Unsigned(timeout));
        Set("process", "ForkedModelThreads", FakeValue::Flag(threads));
    }
    void Initialise() { VELT::Scanner::initialise(&world.proxy().m_config); }
    InternedString Intern(char const* text) {
        return VELT::EFabricScanContext::get()->getPolicyLoader()->internAttribute(text);
    }
    void Fill(VELT::ScanContext& item, VELT::Connection& owner, VELT::ScannerStream& content) {
        item.connection = &owner;
        item.data = &content;
        item.policy = Intern("content_in");
        item.identities = {Intern("staff"), Intern("guests")};
    }

    ScriptedFramework& script = ScriptedFramework::get();
    SessionWorld world;
    FakePolicyStore store;
    EventCapture events;
    CountingSession session;
    VELT::ScannerStream body{4096u};
    VELT::ScanContext context;
    VELT::ScanOutput* output = nullptr;
};

}  // namespace velt_testing
