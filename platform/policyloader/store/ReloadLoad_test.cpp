// Reloads under full load: every version has its number in each of its values, several times where a value has several
// parts. A reader sees one number in each value, and never an older one than it has seen. 100 reloads, 1,000 with FULL.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <policyloader/store/LoaderWorld.h>

namespace policyloader {
namespace {

constexpr int Readers = 8;

class Versions : public LoaderWorld {
protected:
    struct Names {
        InternedString policy, identity, section, scalar, list, alert, windowed;
    };

    Versions()
        : names{In("content_in"), In("i"), In("s"), In("scalar"), In("list"), In("alert"), In("windowed")},
          clock(Later()) {}

    InternedString In(char const* text) const { return loader.internAttribute(text); }

    // The identity's value, an inherited one, the base policy's; each has the number wherever it has a text.
    static std::string Version(int number) {
        auto const n = std::to_string(number);
        return "<rules><policy name='base'><settings section='s'><list name='list'><item>" + n + "</item><item>" + n +
               "</item><item>" + n + "</item></list></settings></policy><policy name='content_in'>" +
               "<settings section='s'><alert name='alert'><header>" + n + "</header><body>" + n + "</body><footer>" +
               n + "</footer></alert><rule a='" + n + "' b='" + n + "'/></settings>" +
               "<identity name='i' inherits='j'><settings section='s'><set name='scalar'>" + n +
               "</set></settings></identity><identity name='j'><settings section='s'><set name='windowed'>never</set>" +
               "<set name='windowed' when='mon-sun'>" + n + "</set></settings></identity></policy></rules>";
    }

    eFabric::IProductValue const* Read(InternedString name) const {
        return loader.productValue(names.policy, names.identity, names.section, name, clock, nullptr);
    }
    int Number(eFabric::IProductValue const* value) const {
        int number = -1;
        return value && value->getInt(&number) ? number : -1;
    }
    int NumberOfList() const {
        auto const* const list = Read(names.list);
        if (!list || list->size() != 3) return -1;
        int const first = Number(list->at(0));
        return first == Number(list->at(1)) && first == Number(list->at(2)) ? first : -1;
    }
    int NumberOfAlert() const {
        auto const* const value = Read(names.alert);
        eFabric::ProductAlertValue alert{};
        if (!value || !value->getAlert(&alert)) return -1;
        std::wstring const body = alert.body;
        return body == alert.header && body == alert.footer ? std::stoi(body) : -1;
    }
    int NumberOfRule() const {
        auto const rules = loader.view(names.policy, names.identity, clock).rules("s");
        if (rules.size() != 1 || rules[0]->get("a") != rules[0]->get("b")) return -1;
        return std::atoi(std::string(*rules[0]->get("a")).c_str());
    }

    // One reader: asks in turn, and counts what must not be.
    void ReadOn() {
        int last = 0;
        auto const see = [&](int number) {
            if (number < last) ++wrong;
            last = number;
        };
        do {
            see(Number(Read(names.scalar)));
            see(NumberOfList());
            see(NumberOfAlert());
            see(Number(Read(names.windowed)));
            see(NumberOfRule());
            see(loader.identities(names.policy, nullptr)->size() == 2 ? last : -1);
            reads.fetch_add(6, std::memory_order_relaxed);
        } while (!done.load(std::memory_order_relaxed));
    }

    Names const names;
    std::atomic<std::time_t> clock;
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::atomic<unsigned long> reads{0};
};

TEST_F(Versions, AreNeitherTornNorMissingNorOlderUnderEightReaders) {
    int const reloads = std::getenv("FULL") ? 1000 : 100;
    root.Write("rules.xml", Version(0));
    ASSERT_TRUE(Initialise());
    std::vector<std::thread> readers;
    for (int i = 0; i < Readers; ++i) readers.emplace_back([this] { ReadOn(); });
    for (int version = 1; version <= reloads; ++version) {
        Replace("rules.xml", Version(version));
        do {
            clock = Later();  // another reader may hold the look
        } while (Number(Read(names.scalar)) != version);
    }
    done = true;
    for (auto& reader : readers) reader.join();
    std::printf("%d reloads under %d readers: %lu reads\n", reloads, Readers, reads.load());
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(reports.count(), 0);
}

}  // namespace
}  // namespace policyloader
