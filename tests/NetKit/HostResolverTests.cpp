#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/ManualScheduler.h"
#include "NetKit/HostResolver.h"
#include "Platform/Linux/LinuxHostLookup.h"
#include "Support/Eventually.h"

#include <gtest/gtest.h>

#include <mutex>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// Lookups wait in `parked` until the test lets them run, as a slow or hanging resolver would.
struct ResolverTest : ::testing::Test {
    ManualScheduler scheduler;
    std::vector<Task> parked;
    std::vector<std::string> asked;
    std::map<std::string, std::string> names{{"8.8.8.8", "dns.google."}, {"1.1.1.1", "one.one.one.one"}};
    std::set<std::string> servers{"9.9.9.9"};
    std::vector<std::pair<std::string, std::string>> resolved;
    std::shared_ptr<HostResolver> resolver;

    void SetUp() override {
        HostLookup lookup;
        lookup.reverseLookup = [this](const std::string& address) -> std::optional<std::string> {
            asked.push_back(address);
            auto it = names.find(address);
            if (it == names.end()) return std::nullopt;
            std::string name = it->second;
            if (!name.empty() && name.back() == '.') name.pop_back();
            return name;
        };
        lookup.dnsServers = [this] { return servers; };
        lookup.detach = [this](Task task) { parked.push_back(std::move(task)); };
        resolver = HostResolver::make(lookup, scheduler, [this](const std::string& address, const std::string& name) {
            resolved.emplace_back(address, name);
        });
    }
    // Lets the parked lookups finish, in order, and the resolver take their answers.
    void finishParked() {
        for (; !parked.empty(); scheduler.runUntilIdle()) {
            auto task = std::move(parked.front());
            parked.erase(parked.begin());
            task();
        }
    }
};

std::string address(int n) {
    return "203.0.113." + std::to_string(n);
}

} // namespace

TEST_F(ResolverTest, NoMoreThanFourLookupsRunAtOnceAndTheyAreServedInOrder) {
    std::vector<std::string> ten;
    for (int i = 0; i < 10; ++i) ten.push_back(address(i));
    resolver->resolve(ten);
    scheduler.runUntilIdle();
    EXPECT_EQ(parked.size(), 4u);
    EXPECT_EQ(resolver->runningCount(), 4);
    EXPECT_EQ(resolver->waitingCount(), 6u);
    // One finishing lets exactly one more start.
    auto first = std::move(parked.front());
    parked.erase(parked.begin());
    first();
    scheduler.runUntilIdle();
    EXPECT_EQ(parked.size(), 4u);
    EXPECT_EQ(resolver->runningCount(), 4);
    finishParked();
    EXPECT_EQ(resolver->runningCount(), 0);
    EXPECT_EQ(resolver->waitingCount(), 0u);
    EXPECT_EQ(asked, ten);
}

TEST_F(ResolverTest, AnAddressQueuedTwiceIsLookedUpOnceAndAnsweredOnce) {
    resolver->resolve({"8.8.8.8", "8.8.8.8"});
    resolver->resolve({"8.8.8.8"});
    scheduler.runUntilIdle();
    finishParked();
    EXPECT_EQ(asked, (std::vector<std::string>{"8.8.8.8"}));
    EXPECT_EQ(resolved, (std::vector<std::pair<std::string, std::string>>{{"8.8.8.8", "dns.google"}}));
    EXPECT_EQ(resolver->label("8.8.8.8"), "dns.google");
    // Cached now: no second lookup.
    resolver->resolve({"8.8.8.8"});
    scheduler.runUntilIdle();
    EXPECT_TRUE(parked.empty());
}

TEST_F(ResolverTest, PrivateEmptyAndDNSServerAddressesAreNeverAsked) {
    resolver->resolve({"", "10.0.0.1", "192.168.1.1", "::1", "fe80::1", "9.9.9.9"});
    scheduler.runUntilIdle();
    EXPECT_TRUE(parked.empty());
    // The server is remembered as nameless, so it is not even considered again.
    EXPECT_EQ(resolver->cacheCount(), 1u);
    EXPECT_EQ(resolver->label("9.9.9.9"), "9.9.9.9");
}

TEST_F(ResolverTest, AFailedLookupIsNotRetriedBeforeTenMinutes) {
    resolver->resolve({address(1)});
    scheduler.runUntilIdle();
    finishParked();
    EXPECT_TRUE(resolved.empty());
    scheduler.advance(599);
    resolver->resolve({address(1)});
    scheduler.runUntilIdle();
    EXPECT_TRUE(parked.empty());
    scheduler.advance(1);
    resolver->resolve({address(1)});
    scheduler.runUntilIdle();
    EXPECT_EQ(parked.size(), 1u);
}

TEST_F(ResolverTest, HangingLookupsHoldFourSlotsAndTheQueueStopsAtItsLimit) {
    // A sweep of ten thousand addresses while nothing answers: the queue grows by address, not by thread.
    std::vector<std::string> sweep;
    for (int i = 0; i < 10000; ++i) sweep.push_back("100.1." + std::to_string(i / 256) + "." + std::to_string(i % 256));
    resolver->resolve(sweep);
    scheduler.runUntilIdle();
    EXPECT_EQ(parked.size(), 4u);
    // The queue took 4,096 of them, and four have since left it for the lookups.
    EXPECT_EQ(resolver->waitingCount(), 4092u);
}

TEST_F(ResolverTest, AnAnswerArrivingAfterTheResolverIsGoneIsDropped) {
    resolver->resolve({"8.8.8.8"});
    scheduler.runUntilIdle();
    resolver.reset();
    finishParked();
    EXPECT_TRUE(resolved.empty());
}

TEST(LinuxHostLookup, TheSystemResolverNamesLoopbackAndRefusesGarbage) {
    // Real lookups only for addresses every machine can name from its hosts file.
    auto v4 = LinuxHostLookup::reverseLookup("127.0.0.1");
    ASSERT_TRUE(v4);
    EXPECT_FALSE(v4->empty());
    EXPECT_NE(v4->back(), '.');
    auto v6 = LinuxHostLookup::reverseLookup("::1");
    EXPECT_TRUE(!v6 || v6->back() != '.') << *v6;
    EXPECT_FALSE(LinuxHostLookup::reverseLookup("not an address"));
    EXPECT_FALSE(LinuxHostLookup::reverseLookup("1.2.3.4.5"));
}

TEST(LinuxHostLookup, NameserversComeFromResolvConf) {
    EXPECT_EQ(LinuxHostLookup::nameservers("# comment\nnameserver 10.0.0.53\nsearch lan\nnameserver fe80::1%eth0\n"
                                           "nameserver bogus\nnameserver\noptions ndots:1\n"),
              (std::set<std::string>{"10.0.0.53", "fe80::1"}));
    EXPECT_TRUE(LinuxHostLookup::nameservers("").empty());
}

TEST(HostResolverThreads, ARealLookupReportsFromItsOwnThread) {
    // The one test on real threads: the default detach and the real serial queue.
    DispatchScheduler& scheduler = DispatchScheduler::shared();
    std::mutex mutex;
    std::vector<std::string> seen;
    HostLookup lookup;
    lookup.reverseLookup = [](const std::string& address) -> std::optional<std::string> {
        return address == "198.51.100.7" ? std::optional<std::string>("seven.example") : std::nullopt;
    };
    auto resolver = HostResolver::make(lookup, scheduler, [&](const std::string& address, const std::string& name) {
        std::lock_guard lock(mutex);
        seen.push_back(address + "=" + name);
    });
    resolver->resolve({"198.51.100.7", "198.51.100.8"});
    ASSERT_TRUE(eventually([&] {
        std::lock_guard lock(mutex);
        return !seen.empty();
    }));
    EXPECT_TRUE(eventually([&] { return resolver->runningCount() == 0; }));
    std::lock_guard lock(mutex);
    EXPECT_EQ(seen, (std::vector<std::string>{"198.51.100.7=seven.example"}));
}
