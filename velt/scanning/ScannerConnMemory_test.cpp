// What the remote scanner does without memory: every allocation of an item fails once, and from every one on.
#include <fcntl.h>

#include <map>

#include "testing/ScannerStub.h"
#include "velt/scanning/ScannerConnTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class RemoteMemory : public ScannerConnTest {
protected:
    RemoteMemory() {
        events.AllowAll();
        context.properties.NewProperty("SIZE_LIMIT")->SetLong(42);
    }
    void SetUp() override {
        if (!FailingNew::IsPossible()) GTEST_SKIP() << "memory is the sanitizer's";
    }
    void Offer() { manager.ToOffer({kResource, 1, sequence, stub.address()}); }
    ScannerServer& Server() { return *ScannerServer::findserver(sequence, 1, kResource, &stub.address()); }
    void KeepOne() {
        Offer();
        EXPECT_EQ(Scan(), 0);
        DropScanner();
    }
    // With memory for so many allocations. Whatever comes of it, nothing is held afterwards.
    int ScanWithMemoryFor(unsigned long allocations, FailingNew::Extent extent) {
        KeepOne();
        Offer();
        scanner.reset(ScannerConn::get(&context));
        delete std::exchange(output, nullptr);
        int result = 1;
        {
            FailingNew const failing(allocations, extent);
            EXPECT_NO_THROW(result = scanner->scan(0, output, false)) << allocations;
        }
        EXPECT_EQ(result == 0 && output == nullptr, false) << allocations;
        DropScanner();
        EXPECT_FALSE(IsOccupied()) << allocations;
        Server().clear_cache();
        EXPECT_TRUE(Eventually([&] { return stub.open() == 0; })) << allocations << ": a connection is lost";
        manager.Forget();
        return result;
    }
    std::map<int, unsigned> ResultsOf(FailingNew::Extent extent) {
        std::map<int, unsigned> results;
        for (unsigned long allocations = 0; allocations < 1000; ++allocations) {
            ++results[ScanWithMemoryFor(allocations, extent)];
            if (!FailingNew::HasFailed()) break;
        }
        return results;
    }

    ScannerStub stub;
};

}  // namespace

TEST_F(RemoteMemory, ThatFailsOnceIsAStatedFailureOrNone) {
    std::map<int, unsigned> results = ResultsOf(FailingNew::Once);
    EXPECT_GT(results[-1001], 0u) << "of the delivery";
    EXPECT_GT(results[-1], 0u) << "of the scan";
    EXPECT_GT(results[0], 1u) << "a new connection in place of a kept one, and the scan that had enough";
    EXPECT_EQ(results.size(), 3u);
}

TEST_F(RemoteMemory, ThatIsGoneForGoodIsAStatedFailure) {
    std::map<int, unsigned> results = ResultsOf(FailingNew::FromThenOn);
    EXPECT_GT(results[-1000], 0u) << "there is none for a connection";
    EXPECT_GT(results[-1001], 0u);
    EXPECT_GT(results[-1], 0u);
    EXPECT_GE(results[0], 1u);
    EXPECT_EQ(results.size(), 4u);
}

TEST_F(RemoteMemory, ThatIsMissingIsReportedWhereAConnectionBreaksForIt) {
    KeepOne();
    events.Clear();
    for (unsigned long allocations = 0;; ++allocations) {
        if (ScanWithMemoryFor(allocations, FailingNew::Once) != -1001) continue;
        EXPECT_EQ(NumberAt(events.Bag(events::SCANNER_EXCHANGE_FAILED), "velt_error.velt_os_error"), ENOMEM);
        break;
    }
}
