// The keychain on a real Secret Service: gnome-keyring-daemon, unlocked, on a private session
// bus, with secret-tool reading and writing beside the program.
#include "Platform/DBus/SecretServiceStore.h"

#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/BusNames.h"
#include "Platform/DBus/DesktopBus.h"
#include "PlatformDBus/Buses.h"
#include "Support/Eventually.h"
#include "Support/TempDir.h"
#include "VaultKit/VaultKeychain.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class SecretServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
        if (::access("/usr/bin/gnome-keyring-daemon", X_OK) != 0 || ::access("/usr/bin/secret-tool", X_OK) != 0) {
            GTEST_SKIP() << "gnome-keyring-daemon or secret-tool is not installed";
        }
        std::filesystem::create_directories(home / "run");
        ::chmod((home / "run").c_str(), 0700);
        environment = {{"PATH", "/usr/bin:/bin"},
                       {"HOME", home.path().string()},
                       {"XDG_DATA_HOME", (home / "data").string()},
                       {"XDG_CONFIG_HOME", (home / "config").string()},
                       {"XDG_RUNTIME_DIR", (home / "run").string()},
                       {"DBUS_SESSION_BUS_ADDRESS", bus.address()}};
        connection = &loop.adopt(sdbus::createSessionBusConnectionWithAddress(bus.address()));
        startKeyring();
        store = std::make_unique<SecretServiceStore>(loop, *connection, notes.sink());
    }
    void TearDown() override {
        store.reset();
        if (keyring) {
            keyring->signal(SIGTERM);
            keyring->wait(5);
        }
    }
    void startKeyring() {
        // The password comes from a file rather than a pipe, so the child is the daemon itself.
        writeFile(home / "password", "test-password");
        keyring = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/bin/sh", "-c",
                                     "exec gnome-keyring-daemon --foreground --unlock --components=secrets < \"$0\"",
                                     (home / "password").string()},
            environment);
        ASSERT_TRUE(eventually([&] {
            bool owned = false;
            loop.sync([&] { owned = BusNames::hasOwner(*connection, SecretServiceStore::service); });
            return owned;
        }, 20)) << keyring->output();
    }
    ProcessResult secretTool(std::vector<std::string> arguments, const std::string& input = {}) {
        if (input.empty()) {
            arguments.insert(arguments.begin(), "/usr/bin/secret-tool");
            return runProcess(arguments, environment, 20);
        }
        std::string command = "printf '%s' '" + input + "' | exec /usr/bin/secret-tool";
        for (const auto& argument : arguments) command += " '" + argument + "'";
        return runProcess({"/bin/sh", "-c", command}, environment, 20);
    }
    void lockEverything() {
        loop.sync([&] {
            auto service = sdbus::createProxy(*connection, "org.freedesktop.secrets", "/org/freedesktop/secrets");
            sdbus::ObjectPath collection;
            service->callMethod("ReadAlias").onInterface("org.freedesktop.Secret.Service").withArguments(std::string("default"))
                .storeResultsTo(collection);
            std::vector<sdbus::ObjectPath> locked;
            sdbus::ObjectPath prompt;
            service->callMethod("Lock").onInterface("org.freedesktop.Secret.Service")
                .withArguments(std::vector<sdbus::ObjectPath>{collection}).storeResultsTo(locked, prompt);
        });
    }

    PrivateBus bus;
    TempDir home;
    Notes notes;
    BusLoop loop;
    std::map<std::string, std::string> environment;
    sdbus::IConnection* connection = nullptr;
    std::unique_ptr<ChildProcess> keyring;
    std::unique_ptr<SecretServiceStore> store;
};

} // namespace

TEST_F(SecretServiceTest, AVaultKeyStoredHereIsReadBackBySecretTool) {
    const std::string envelope = R"({"version":1,"protection":"passphrase","salt":"c2FsdA=="})";
    ASSERT_EQ(store->add("com.orvell.tavrick.vault", "envelope", envelope, SecretAccessibility::afterFirstUnlock),
              SecretStatus::success);
    auto read = secretTool({"lookup", "service", "com.orvell.tavrick.vault", "account", "envelope"});
    EXPECT_EQ(read.status, 0) << read.output;
    EXPECT_EQ(read.output, envelope);
    // The record carries the accessibility it was stored with.
    auto search = secretTool({"search", "service", "com.orvell.tavrick.vault"});
    EXPECT_NE(search.output.find("attribute.accessible = afterFirstUnlock"), std::string::npos) << search.output;
    EXPECT_NE(search.output.find("attribute.account = envelope"), std::string::npos) << search.output;

    // And what secret-tool stores is read here.
    auto stored = secretTool({"store", "--label=shortcut", "service", "com.orvell.tavrick.vault", "account", "vault-key-shortcut"},
                             "correct horse");
    ASSERT_EQ(stored.status, 0) << stored.output;
    auto copy = store->copy("com.orvell.tavrick.vault", "vault-key-shortcut");
    EXPECT_EQ(copy.status, SecretStatus::success);
    EXPECT_EQ(copy.data, "correct horse");
}

TEST_F(SecretServiceTest, TheStoreKeepsItsContract) {
    const std::string service = "com.orvell.tavrick";
    struct Step {
        const char* name;
        std::function<SecretStatus()> action;
        SecretStatus expected;
    };
    const std::vector<Step> steps{
        {"read before anything is stored", [&] { return store->copy(service, "anthropic-api-key").status; }, SecretStatus::itemNotFound},
        {"update of nothing", [&] { return store->update(service, "anthropic-api-key", "x"); }, SecretStatus::itemNotFound},
        {"remove of nothing", [&] { return store->remove(service, std::string("anthropic-api-key")); }, SecretStatus::itemNotFound},
        {"add", [&] { return store->add(service, "anthropic-api-key", "sk-ant-1", SecretAccessibility::afterFirstUnlock); },
         SecretStatus::success},
        {"add again", [&] { return store->add(service, "anthropic-api-key", "sk-ant-2", SecretAccessibility::afterFirstUnlock); },
         SecretStatus::duplicateItem},
        {"a second account", [&] { return store->add(service, "openai-api-key", "sk-2", SecretAccessibility::afterFirstUnlock); },
         SecretStatus::success},
        {"the same account of another service",
         [&] { return store->add("com.orvell.tavrick.vault", "anthropic-api-key", "v", SecretAccessibility::whenUnlockedThisDeviceOnly); },
         SecretStatus::success},
        {"update", [&] { return store->update(service, "anthropic-api-key", std::string("sk-ant-3\0bytes", 14)); }, SecretStatus::success},
    };
    for (const auto& step : steps) EXPECT_EQ(step.action(), step.expected) << step.name;
    auto copy = store->copy(service, "anthropic-api-key");
    EXPECT_EQ(copy.status, SecretStatus::success);
    EXPECT_EQ(copy.data, std::string("sk-ant-3\0bytes", 14));
    EXPECT_EQ(store->copy("com.orvell.tavrick.vault", "anthropic-api-key").data, "v");

    // Removing every item of a service leaves the other service's alone.
    EXPECT_EQ(store->remove(service, std::nullopt), SecretStatus::success);
    EXPECT_EQ(store->copy(service, "anthropic-api-key").status, SecretStatus::itemNotFound);
    EXPECT_EQ(store->copy(service, "openai-api-key").status, SecretStatus::itemNotFound);
    EXPECT_EQ(store->copy("com.orvell.tavrick.vault", "anthropic-api-key").status, SecretStatus::success);
    EXPECT_EQ(store->remove(service, std::nullopt), SecretStatus::itemNotFound);
}

TEST_F(SecretServiceTest, ALockedKeyringRefusesWithoutChangingAnything) {
    ASSERT_EQ(store->add("com.orvell.tavrick.vault", "envelope", "sealed", SecretAccessibility::afterFirstUnlock), SecretStatus::success);
    lockEverything();
    EXPECT_EQ(store->copy("com.orvell.tavrick.vault", "envelope").status, SecretStatus::interactionNotAllowed);
    EXPECT_EQ(store->update("com.orvell.tavrick.vault", "envelope", "other"), SecretStatus::interactionNotAllowed);
    EXPECT_EQ(store->remove("com.orvell.tavrick.vault", std::nullopt), SecretStatus::interactionNotAllowed);
    EXPECT_EQ(store->add("com.orvell.tavrick.vault", "new", "x", SecretAccessibility::afterFirstUnlock),
              SecretStatus::interactionNotAllowed);
    // The vault reads it as the locked keychain it is.
    VaultKeychain keychain(*store, VaultKeychain::defaultService);
    const auto presence = keychain.presence();
    EXPECT_EQ(presence.kind, VaultKeychain::Presence::Kind::unreadable);
    EXPECT_EQ(presence.message, "The keychain is locked. Unlock the Mac and try again.");
}

TEST_F(SecretServiceTest, AServiceThatEndsGivesAFailureNotACrash) {
    ASSERT_EQ(store->add("com.orvell.tavrick", "k", "v", SecretAccessibility::afterFirstUnlock), SecretStatus::success);
    keyring->signal(SIGTERM);
    keyring->wait(5);
    keyring.reset();
    const auto copy = store->copy("com.orvell.tavrick", "k");
    EXPECT_EQ(copy.status, SecretStatus::ioFailure);
    EXPECT_FALSE(copy.data);
    EXPECT_TRUE(notes.contains("the Secret Service failed to read an item: org.freedesktop.DBus.Error."));
}

TEST(SecretServiceChoice, NoSecretServiceMeansTheFileStore) {
    PrivateBus bus;
    if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
    ScopedEnvironment session("DBUS_SESSION_BUS_ADDRESS", bus.address());
    Notes notes;
    auto desktop = DesktopBus::open(notes.sink());
    EXPECT_EQ(desktop->secretService(), nullptr);
}

TEST_F(SecretServiceTest, RecordsFromTheFileStoreMoveOverOnceAndTheFileStaysAsItWas) {
    const auto file = home / "secrets.json";
    FileSecretStore fileStore(file);
    ASSERT_EQ(fileStore.add("com.orvell.tavrick.vault", "envelope", "sealed-envelope", SecretAccessibility::afterFirstUnlock),
              SecretStatus::success);
    ASSERT_EQ(fileStore.add("com.orvell.tavrick.vault", "vault-key-shortcut", "pass", SecretAccessibility::whenUnlockedThisDeviceOnly),
              SecretStatus::success);
    ASSERT_EQ(fileStore.add("com.orvell.tavrick", "anthropic-api-key", "already here", SecretAccessibility::afterFirstUnlock),
              SecretStatus::success);
    // One record is already in the keyring, with other bytes: it is not overwritten.
    ASSERT_EQ(store->add("com.orvell.tavrick", "anthropic-api-key", "newer", SecretAccessibility::afterFirstUnlock),
              SecretStatus::success);
    const auto before = readFile(file);

    EXPECT_EQ(store->importFrom(fileStore), 2u);
    EXPECT_EQ(store->copy("com.orvell.tavrick.vault", "envelope").data, "sealed-envelope");
    EXPECT_EQ(store->copy("com.orvell.tavrick.vault", "vault-key-shortcut").data, "pass");
    EXPECT_EQ(store->copy("com.orvell.tavrick", "anthropic-api-key").data, "newer");
    auto search = secretTool({"search", "service", "com.orvell.tavrick.vault", "account", "vault-key-shortcut"});
    EXPECT_NE(search.output.find("attribute.accessible = whenUnlockedThisDeviceOnly"), std::string::npos) << search.output;
    EXPECT_EQ(readFile(file), before);
    // A second launch adds nothing.
    EXPECT_EQ(store->importFrom(fileStore), 0u);

    // A file that cannot be read gives nothing and stays where it is.
    writeFile(home / "broken.json", "{not json");
    FileSecretStore broken(home / "broken.json");
    EXPECT_EQ(store->importFrom(broken), std::nullopt);
    EXPECT_EQ(readFile(home / "broken.json"), "{not json");
    // No file at all: nothing to carry.
    FileSecretStore absent(home / "absent.json");
    EXPECT_EQ(store->importFrom(absent), 0u);
}
