#include "NetCore/SeenStore.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tavrick;

namespace {
const AppKey curl{"/usr/bin/curl", "curl"};
std::string host(int n) {
    return "10.0." + std::to_string(n / 256) + "." + std::to_string(n % 256) + ".example";
}
} // namespace

TEST(SeenStore, DigestIsTheFirstEightBytesOfSHA256BigEndian) {
    // printf 'example.com' | sha256sum → a379a6f6eeafb9a5…
    EXPECT_EQ(SeenStore::digest("example.com"), 0xa379a6f6eeafb9a5ULL);
    // No case folding.
    EXPECT_EQ(SeenStore::digest("Example.com"), 0x29c56d94ab162f3eULL);
}

TEST(SeenStore, RecordingTheSameHostTwiceMovesLastSeenBothTimes) {
    SeenStore store;
    EXPECT_FALSE(store.knowsApp(curl));
    EXPECT_TRUE(store.record("1.2.3.4", curl, 100));
    EXPECT_TRUE(store.knowsApp(curl));
    EXPECT_EQ(store.record(curl.executablePath)->lastSeen, 100);
    EXPECT_FALSE(store.record("1.2.3.4", curl, 200));
    EXPECT_EQ(store.record(curl.executablePath)->lastSeen, 200);
    EXPECT_EQ(store.hostCount(curl), 1u);
    EXPECT_TRUE(store.knows("1.2.3.4", curl));
    EXPECT_FALSE(store.knows("1.2.3.5", curl));
    EXPECT_FALSE(store.knows("1.2.3.4", AppKey{"/usr/bin/wget", ""}));
}

TEST(SeenStore, PastFourThousandNinetySixHostsTheOldestGoInOrderAcrossCompaction) {
    SeenStore store;
    for (int i = 0; i < 4096 + 2500; ++i) store.record(host(i), curl, i);
    auto hosts = store.record(curl.executablePath)->hosts();
    ASSERT_EQ(hosts.size(), 4096u);
    for (int i = 0; i < 4096; i += 455) EXPECT_EQ(hosts[static_cast<std::size_t>(i)], SeenStore::digest(host(2500 + i)));
    EXPECT_EQ(hosts.back(), SeenStore::digest(host(4096 + 2499)));
    EXPECT_TRUE(store.knows(host(2500), curl));
    // The dropped host reads as new again and pushes out the next oldest.
    EXPECT_TRUE(store.record(host(2499), curl, 9000));
    EXPECT_FALSE(store.knows(host(2500), curl));
    EXPECT_EQ(store.hostCount(curl), 4096u);
}

TEST(SeenStore, TheHundredTwentyNinthAppEvictsTheLeastRecentlySeenAndForgetRemovesOne) {
    SeenStore store;
    for (int i = 0; i < 128; ++i) store.record("h", AppKey{"/app/" + std::to_string(i), ""}, 1000 + i);
    // App 0 becomes recent again; app 1 is now the stalest.
    store.record("h", AppKey{"/app/0", ""}, 5000);
    store.record("h", AppKey{"/app/new", ""}, 6000);
    EXPECT_EQ(store.appCount(), 128u);
    EXPECT_TRUE(store.knowsApp(AppKey{"/app/0", ""}));
    EXPECT_FALSE(store.knowsApp(AppKey{"/app/1", ""}));
    EXPECT_TRUE(store.knowsApp(AppKey{"/app/new", ""}));
    store.forget(AppKey{"/app/new", ""});
    EXPECT_FALSE(store.knowsApp(AppKey{"/app/new", ""}));
    EXPECT_EQ(store.appCount(), 127u);
}

TEST(SeenStore, JSONRoundTripsWithIntegralDigests) {
    SeenStore store;
    store.record("example.com", curl, 1700000000.5);
    store.record("b", curl, 1700000001);
    auto json = store.toJSON();
    EXPECT_EQ(json.dump(), R"({"apps":{"/usr/bin/curl":{"hosts":[11779629879860902309,)" +
                               std::to_string(SeenStore::digest("b")) + R"(],"lastSeen":1700000001}},"version":1})");
    EXPECT_EQ(SeenStore::fromText(json.dump()), store);
}

TEST(SeenStore, DecodingRejectsEveryMissingOrMistypedKey) {
    const char* bad[] = {
        R"({"apps":{}})",
        R"({"version":1})",
        R"({"version":"1","apps":{}})",
        R"({"version":1.5,"apps":{}})",
        R"({"version":1,"apps":[]})",
        R"({"version":1,"apps":{"/x":{"hosts":[1]}}})",
        R"({"version":1,"apps":{"/x":{"lastSeen":1}}})",
        R"({"version":1,"apps":{"/x":{"hosts":[-1],"lastSeen":1}}})",
        R"({"version":1,"apps":{"/x":{"hosts":["1"],"lastSeen":1}}})",
        R"({"version":1,"apps":{"/x":{"hosts":[1],"lastSeen":"now"}}})",
        R"([])",
    };
    for (const char* text : bad) {
        EXPECT_ANY_THROW(SeenStore::fromText(text)) << text;
    }
    auto ok = SeenStore::fromText(R"({"version":1,"apps":{"/x":{"hosts":[1,2],"lastSeen":3}}})");
    EXPECT_EQ(ok.hostCount(AppKey{"/x", ""}), 2u);
}

TEST(SeenStore, AFileBeyondTheBoundsIsCutToThemOnLoad) {
    nlohmann::json hosts = nlohmann::json::array();
    for (std::uint64_t i = 1; i <= 4100; ++i) hosts.push_back(i);
    hosts.push_back(4100);  // a repeat counts once
    nlohmann::json apps = nlohmann::json::object();
    apps["/big"] = {{"hosts", hosts}, {"lastSeen", 5000}, {"note", {1, 2}}};
    for (int i = 0; i < 130; ++i) apps["/app/" + std::to_string(i)] = {{"hosts", {7}}, {"lastSeen", i}};
    auto store = SeenStore::fromText(nlohmann::json{{"version", 1}, {"apps", apps}, {"later", {{"x", 1}}}}.dump());
    EXPECT_EQ(store.appCount(), 128u);
    // The three stalest small apps went; the busy one stayed, with its newest 4096 digests.
    EXPECT_FALSE(store.knowsApp(AppKey{"/app/2", ""}));
    EXPECT_TRUE(store.knowsApp(AppKey{"/app/3", ""}));
    auto big = store.record("/big")->hosts();
    ASSERT_EQ(big.size(), 4096u);
    EXPECT_EQ(big.front(), 5u);
    EXPECT_EQ(big.back(), 4100u);
}

TEST(SeenStore, DigestsZeroAndOneShareASlotAndCountOnce) {
    // The index marks free slots with 0, so a digest of 0 is kept as 1; the two (one chance in
    // 2^63 for a real host) are taken for the same host.
    auto store = SeenStore::fromText(R"({"version":1,"apps":{"/x":{"hosts":[0,1,2],"lastSeen":1}}})");
    auto hosts = store.record("/x")->hosts();
    EXPECT_EQ(hosts, (std::vector<std::uint64_t>{0, 2}));
}
