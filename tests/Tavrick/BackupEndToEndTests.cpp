// A backup written by one run of the program and restored into another home, as a user does it
// from a terminal, with the passphrases on standard input.
#include "CoreKit/Keychain.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/Linux/FileSecretStore.h"
#include "Platform/Linux/JSONPreferenceStore.h"
#include "VaultKit/Vault.h"

#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

const std::string binary = TAVRICK_BINARY;

class NoAuthenticator final : public Authenticator {
public:
    Answer canEvaluatePolicy(AuthenticationPolicy) override { return {false, std::nullopt}; }
    void evaluatePolicy(AuthenticationPolicy, const std::string&,
                        std::function<void(bool, std::optional<AuthenticationError>)> done) override {
        done(false, std::nullopt);
    }
};

struct Home {
    TempDir root;
    std::map<std::string, std::string> environment = isolatedEnvironment(root.path());
    std::filesystem::path support() const { return root / "data/com.orvell.tavrick"; }
    std::filesystem::path domain(const std::string& name) const { return root / "config" / name / "defaults.json"; }

    void writeMappings(const std::vector<std::pair<std::string, int>>& named) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& [name, key] : named) {
            char id[40];
            std::snprintf(id, sizeof id, "44444444-4444-4444-8444-%012d", key);
            list.push_back({{"id", id}, {"name", name}, {"isEnabled", true},
                            {"trigger", {{"hotkey", {{"_0", {{"keyCode", key}, {"modifiers", 12}}}}}}},
                            {"action", {{"toggleAwake", nlohmann::json::object()}}}});
        }
        writeFile(support() / "mappings.json", nlohmann::json{{"mappings", list}, {"schemaVersion", 1}}.dump(2));
    }
    void set(const std::string& domainName, const std::string& key, PreferenceValue value) {
        JSONPreferenceStore store(domain(domainName));
        ASSERT_TRUE(store.set(key, std::move(value)));
    }
    // Creates the vault (sealed when given a passphrase) with entries, on virtual time.
    void makeVault(const std::optional<std::string>& passphrase, const std::vector<std::string>& titles) {
        FileSecretStore store(support() / "secrets.json");
        ManualScheduler scheduler;
        NoAuthenticator authenticator;
        Vault vault(VaultKeychain(store, VaultKeychain::defaultService), authenticator, scheduler,
                    VaultCrypto::minimumIterations);
        vault.create(passphrase, [](std::optional<std::string> error) { ASSERT_EQ(error, std::nullopt); });
        scheduler.runUntilIdle();
        for (const auto& title : titles) {
            VaultItem item;
            item.title = title;
            item.set("password", "pw-" + title);
            vault.save(item);
        }
    }
    std::vector<std::string> vaultTitles(const std::optional<std::string>& passphrase) {
        FileSecretStore store(support() / "secrets.json");
        ManualScheduler scheduler;
        NoAuthenticator authenticator;
        Vault vault(VaultKeychain(store, VaultKeychain::defaultService), authenticator, scheduler);
        if (passphrase) {
            vault.unlock(*passphrase, [](std::optional<std::string> error) { EXPECT_EQ(error, std::nullopt); });
            scheduler.runUntilIdle();
        } else {
            vault.open();
        }
        std::vector<std::string> titles;
        for (const auto& item : vault.sorted()) titles.push_back(item.title);
        return titles;
    }
    std::optional<std::string> key(const std::string& account) {
        FileSecretStore store(support() / "secrets.json");
        return Keychain(store).get(account);
    }
    // Everything a restore may touch, to compare before and after a refusal.
    std::string files() {
        std::string out;
        for (const auto& path : {support() / "mappings.json", support() / "Notepad.txt", support() / "secrets.json",
                                 domain("com.orvell.tavrick"), domain("com.apple.finder")}) {
            out += path.string() + "=" + (std::filesystem::exists(path) ? readFile(path) : "(none)") + "\n";
        }
        return out;
    }
    ProcessResult run(const std::string& input, const std::string& flag, const std::filesystem::path& file) {
        return runProcess({"/bin/sh", "-c", "printf '" + input + "' | \"$0\" \"$1\" \"$2\"", binary, flag, file.string()},
                          environment, 90);
    }
};

TEST(BackupEndToEnd, WrittenInOneHomeRestoredIntoAnotherOnlyWithBothPassphrases) {
    Home a;
    a.writeMappings({{"Awake from A", 1}, {"Second from A", 2}});
    writeFile(a.support() / "Notepad.txt", "the note from A\nsecond line");
    a.set("com.orvell.tavrick", "appearance", "dark");
    a.set("com.orvell.tavrick", "aiBaseURL", "https://a.example/v1");
    a.set("com.apple.finder", "ShowPathbar", true);
    a.makeVault(std::nullopt, {"Bank", "Mail"});
    {
        FileSecretStore store(a.support() / "secrets.json");
        ASSERT_TRUE(Keychain(store).set("sk-from-a", "anthropic-api-key"));
    }

    const auto backup = a.root / "Tavrick-backup.json";
    auto exported = a.run("file passphrase\\nfile passphrase\\n", "--export-backup", backup);
    ASSERT_EQ(exported.status, 0) << exported.output;
    EXPECT_NE(exported.output.find("Backup written to " + backup.string()), std::string::npos) << exported.output;
    struct stat info {};
    ASSERT_EQ(::stat(backup.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    const std::string text = readFile(backup);
    EXPECT_NE(text.find("\"format\": \"tavrick-backup\""), std::string::npos);
    EXPECT_NE(text.find("Awake from A"), std::string::npos);
    for (const char* secret : {"sk-from-a", "pw-Bank", "https://a.example"}) EXPECT_EQ(text.find(secret), std::string::npos) << secret;

    Home b;
    b.writeMappings({{"Only in B", 7}});
    writeFile(b.support() / "Notepad.txt", "B's own note");
    b.set("com.orvell.tavrick", "appearance", "light");
    b.set("com.orvell.tavrick", "aiBaseURL", "https://b.example/v1");
    b.makeVault("vault of B!", {"B entry"});
    // A home this build has run in: its settings have had their one-time migration.
    b.set("com.orvell.tavrick", "selectionActionsGeneration", std::int64_t{1});
    const std::string untouched = b.files();

    auto wrongFile = b.run("not the passphrase\\nvault of B!\\n", "--import-backup", backup);
    EXPECT_EQ(wrongFile.status, 1) << wrongFile.output;
    EXPECT_NE(wrongFile.output.find("That passphrase does not open this backup's secrets."), std::string::npos)
        << wrongFile.output;
    EXPECT_EQ(b.files(), untouched);

    auto lockedVault = b.run("file passphrase\\nnot the vault one\\n", "--import-backup", backup);
    EXPECT_EQ(lockedVault.status, 1) << lockedVault.output;
    EXPECT_NE(lockedVault.output.find(
                  "The vault locked while this was open. Unlock it and try again — nothing has been changed."),
              std::string::npos)
        << lockedVault.output;
    EXPECT_EQ(b.files(), untouched);

    auto restored = b.run("file passphrase\\nvault of B!\\n", "--import-backup", backup);
    ASSERT_EQ(restored.status, 0) << restored.output;
    for (const char* phrase : {"2 bindings", "the note", "2 vault entries", "1 AI key", "1 tweak"})
        EXPECT_NE(restored.output.find(phrase), std::string::npos) << phrase << "\n" << restored.output;

    const std::string mappings = readFile(b.support() / "mappings.json");
    EXPECT_NE(mappings.find("Second from A"), std::string::npos);
    EXPECT_EQ(mappings.find("Only in B"), std::string::npos);
    EXPECT_EQ(readFile(b.support() / "Notepad.txt"), "the note from A\nsecond line");
    JSONPreferenceStore settings(b.domain("com.orvell.tavrick"));
    EXPECT_EQ(settings.string("appearance"), "dark");
    EXPECT_EQ(settings.string("aiBaseURL"), "https://b.example/v1");
    EXPECT_EQ(JSONPreferenceStore(b.domain("com.apple.finder")).boolean("ShowPathbar"), true);
    EXPECT_EQ(b.key("anthropic-api-key"), "sk-from-a");
    EXPECT_EQ(b.vaultTitles("vault of B!"), (std::vector<std::string>{"B entry", "Bank", "Mail"}));
}

TEST(BackupEndToEnd, BadFilesAreRefusedInTheirOwnWords) {
    Home b;
    b.writeMappings({{"Only in B", 7}});
    b.set("com.orvell.tavrick", "selectionActionsGeneration", std::int64_t{1});
    const std::string untouched = b.files();
    struct Case {
        const char* name;
        std::string content;
        std::string words;
    };
    const std::vector<Case> cases = {
        {"notes.json", "not json at all", "That is not a Tavrick backup."},
        {"other.json", R"({"format":"something-else","version":1})", "That is not a Tavrick backup."},
        {"newer.json", R"({"format":"tavrick-backup","version":3})",
         "That backup was written by a newer version of Tavrick (format 3). Update and try again."},
        {"damaged.json", R"({"format":"tavrick-backup","version":1})",
         "That backup could not be read. It may be incomplete or damaged."},
        {"plist.json",
         R"({"format":"tavrick-backup","version":1,"createdAt":"2026-03-01T12:00:00Z","app":"1","machine":"m","settings":"aGVsbG8="})",
         "That backup could not be read. It may be incomplete or damaged."},
    };
    for (const auto& c : cases) {
        writeFile(b.root / c.name, c.content);
        auto result = b.run("", "--import-backup", b.root / c.name);
        EXPECT_EQ(result.status, 1) << c.name << "\n" << result.output;
        EXPECT_NE(result.output.find(c.words), std::string::npos) << c.name << "\n" << result.output;
        EXPECT_EQ(b.files(), untouched) << c.name;
    }
    auto missing = b.run("", "--import-backup", b.root / "missing.json");
    EXPECT_NE(missing.output.find("That file could not be read"), std::string::npos) << missing.output;
}

} // namespace
