#include "CoreKit/Keychain.h"
#include "Platform/Linux/FileSecretStore.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <thread>

using namespace tavrick;
using namespace tavrick::testing;

namespace {
mode_t modeOf(const std::filesystem::path& path) {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info.st_mode & 07777;
}
} // namespace

TEST(FileSecretStore, TheFileIsTheUsersAloneAndHoldsOneRecordPerAccount) {
    TempDir dir;
    FileSecretStore store(dir / "support" / "secrets.json");
    EXPECT_EQ(store.copy("s", "a").status, SecretStatus::itemNotFound);
    EXPECT_FALSE(std::filesystem::exists(store.file()));

    const std::string bytes("\x00\xffkey\n", 6);
    EXPECT_EQ(store.add("s", "a", bytes, SecretAccessibility::whenUnlockedThisDeviceOnly), SecretStatus::success);
    EXPECT_EQ(modeOf(store.file()), 0600u);
    EXPECT_EQ(store.add("s", "a", "other", SecretAccessibility::afterFirstUnlock), SecretStatus::duplicateItem);
    EXPECT_EQ(store.copy("s", "a").data, bytes);

    // Another process (another store on the same file) sees it at once.
    FileSecretStore second(store.file());
    EXPECT_EQ(second.update("s", "a", "changed"), SecretStatus::success);
    EXPECT_EQ(store.copy("s", "a").data, "changed");
    EXPECT_EQ(store.update("s", "missing", "x"), SecretStatus::itemNotFound);

    auto document = nlohmann::json::parse(readFile(store.file()));
    ASSERT_EQ(document["items"].size(), 1u);
    EXPECT_EQ(document["items"][0]["accessible"], "whenUnlockedThisDeviceOnly");
    EXPECT_EQ(document["items"][0]["data"], "Y2hhbmdlZA==");
    // The secret is not in the file as text.
    EXPECT_EQ(readFile(store.file()).find("changed"), std::string::npos);

    // A loosened file is tightened on the next write.
    ::chmod(store.file().c_str(), 0644);
    store.update("s", "a", "y");
    EXPECT_EQ(modeOf(store.file()), 0600u);
}

TEST(FileSecretStore, RemovingByAccountOrWholeServiceKeepsEverythingElse) {
    TempDir dir;
    FileSecretStore store(dir / "secrets.json");
    store.add("vault", "envelope", "e", SecretAccessibility::afterFirstUnlock);
    store.add("vault", "vault-key-shortcut", "k", SecretAccessibility::afterFirstUnlock);
    store.add("com.orvell.tavrick", "anthropic-api-key", "sk", SecretAccessibility::afterFirstUnlock);
    EXPECT_EQ(store.remove("vault", std::string("envelope")), SecretStatus::success);
    EXPECT_EQ(store.remove("vault", std::string("envelope")), SecretStatus::itemNotFound);
    EXPECT_EQ(store.remove("vault", std::nullopt), SecretStatus::success);
    EXPECT_EQ(store.copy("vault", "vault-key-shortcut").status, SecretStatus::itemNotFound);
    EXPECT_EQ(store.copy("com.orvell.tavrick", "anthropic-api-key").data, "sk");
}

TEST(FileSecretStore, RecordsThisBuildDoesNotKnowAreKeptOnWrite) {
    TempDir dir;
    writeFile(dir / "secrets.json",
              R"({"format":1,"items":[{"service":"s","account":"a","data":"eA==","accessible":"afterFirstUnlock",
                  "label":"from a later version"},{"kind":"something new"}]})");
    FileSecretStore store(dir / "secrets.json");
    EXPECT_EQ(store.update("s", "a", "y"), SecretStatus::success);
    auto document = nlohmann::json::parse(readFile(dir / "secrets.json"));
    ASSERT_EQ(document["items"].size(), 2u);
    EXPECT_EQ(document["items"][0]["label"], "from a later version");
    EXPECT_EQ(document["items"][1]["kind"], "something new");
}

TEST(FileSecretStore, AnUnreadableFileIsAnErrorAndIsMovedAsideBeforeAnyWrite) {
    TempDir dir;
    LogCapture logs;
    writeFile(dir / "secrets.json", "not json at all");
    FileSecretStore store(dir / "secrets.json");
    EXPECT_EQ(store.copy("s", "a").status, SecretStatus::decodeFailure);
    EXPECT_EQ(readFile(dir / "secrets.json"), "not json at all");  // reading leaves it alone

    Keychain keychain(store);
    EXPECT_TRUE(keychain.set("sk-new", "account"));
    EXPECT_EQ(keychain.get("account"), "sk-new");
    std::size_t aside = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        if (entry.path().filename().string().rfind("secrets.json.corrupt-", 0) == 0) {
            ++aside;
            EXPECT_EQ(readFile(entry.path()), "not json at all");
        }
    }
    EXPECT_EQ(aside, 1u);

    // A record whose data is not base64 is unreadable, not empty.
    writeFile(dir / "secrets.json", R"({"format":1,"items":[{"service":"s","account":"a","data":"%%%"}]})");
    EXPECT_EQ(store.copy("s", "a").status, SecretStatus::decodeFailure);
}

TEST(FileSecretStore, ConcurrentWritersInOneProcessLoseNothing) {
    TempDir dir;
    FileSecretStore store(dir / "secrets.json");
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 5; ++i) {
                store.add("s", std::to_string(t) + "-" + std::to_string(i), "v", SecretAccessibility::afterFirstUnlock);
            }
        });
    }
    for (auto& w : writers) w.join();
    auto document = nlohmann::json::parse(readFile(dir / "secrets.json"));
    EXPECT_EQ(document["items"].size(), 20u);
}

TEST(FileSecretStore, RecordsListsWhatCanBeCarriedAndReadsOnly) {
    TempDir dir;
    const std::string text =
        R"({"format":1,"items":[{"service":"s","account":"a","data":"eA==","accessible":"whenUnlockedThisDeviceOnly"},)"
        R"({"service":"s","account":"bad base64","data":"e A"},{"service":"s","data":"eA=="},{"kind":"something new"},)"
        R"({"service":"t","account":"b","data":"AAE="}]})";
    writeFile(dir / "secrets.json", text);
    FileSecretStore store(dir / "secrets.json");
    auto records = store.records();
    ASSERT_TRUE(records);
    ASSERT_EQ(records->size(), 2u);
    EXPECT_EQ((*records)[0].service, "s");
    EXPECT_EQ((*records)[0].account, "a");
    EXPECT_EQ((*records)[0].data, "x");
    EXPECT_EQ((*records)[0].accessibility, SecretAccessibility::whenUnlockedThisDeviceOnly);
    EXPECT_EQ((*records)[1].data, std::string("\0\1", 2));
    // Without "accessible" a record is readable after the first unlock.
    EXPECT_EQ((*records)[1].accessibility, SecretAccessibility::afterFirstUnlock);
    EXPECT_EQ(readFile(dir / "secrets.json"), text);

    writeFile(dir / "secrets.json", "[1, 2]");
    EXPECT_FALSE(store.records());
    EXPECT_EQ(readFile(dir / "secrets.json"), "[1, 2]");
    FileSecretStore none(dir / "none.json");
    ASSERT_TRUE(none.records());
    EXPECT_TRUE(none.records()->empty());
}
