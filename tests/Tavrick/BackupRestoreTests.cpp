#include "BackupKit/SettingsSnapshot.h"
#include "CoreKit/ManualScheduler.h"
#include "Tavrick/BackupCommand.h"
#include "Tavrick/BackupFile.h"
#include "Tavrick/BackupRestore.h"
#include "Tavrick/BackupSection.h"

#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>
#include <sys/stat.h>

namespace tavrick {
namespace {

using testing::TempDir;
using testing::readFile;
using testing::writeFile;

constexpr std::int64_t rounds = VaultCrypto::minimumIterations;
constexpr std::int64_t fileRounds = 1000;
const std::string passphrase = "file passphrase";

class NoAuthenticator final : public Authenticator {
public:
    Answer canEvaluatePolicy(AuthenticationPolicy) override { return {false, std::nullopt}; }
    void evaluatePolicy(AuthenticationPolicy, const std::string&,
                        std::function<void(bool, std::optional<AuthenticationError>)> done) override {
        done(false, std::nullopt);
    }
};

// A keychain that refuses some accounts, as a keychain with a damaged item would.
class PickyStore final : public SecretStore {
public:
    InMemorySecretStore inner;
    std::set<std::string> refused;
    Copy copy(const std::string& s, const std::string& a) const override { return inner.copy(s, a); }
    SecretStatus add(const std::string& s, const std::string& a, std::string_view d, SecretAccessibility x) override {
        return refused.count(a) ? SecretStatus::ioFailure : inner.add(s, a, d, x);
    }
    SecretStatus update(const std::string& s, const std::string& a, std::string_view d) override {
        return refused.count(a) ? SecretStatus::ioFailure : inner.update(s, a, d);
    }
    SecretStatus remove(const std::string& s, const std::optional<std::string>& a) override { return inner.remove(s, a); }
};

Mapping binding(const std::string& name, int n) {
    char id[40];
    std::snprintf(id, sizeof id, "22222222-2222-4222-8222-%012d", n);
    return Mapping::fromJSON({{"id", id}, {"name", name}, {"isEnabled", true},
                              {"trigger", {{"hotkey", {{"_0", {{"keyCode", n}, {"modifiers", 12}}}}}}},
                              {"action", {{"toggleAwake", nlohmann::json::object()}}}});
}

VaultItem entry(const std::string& title) {
    VaultItem item;
    item.title = title;
    item.set("password", "hunter2-" + title);
    item.updated = 1700000000;
    return item;
}

struct Fixture {
    TempDir root;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(root / "logs", scheduler);
    InMemoryPreferenceStore defaults{PreferenceValue::Dictionary{{"appearance", "light"},
                                      {"selectionMode", "automatic"},
                                      {"aiBaseURL", "https://mine.example/v1"}}};
    std::unique_ptr<AppSettings> settings = std::make_unique<AppSettings>(defaults, *log);
    std::filesystem::path mappingsFile = root / "support/mappings.json";
    std::unique_ptr<MappingStore> store;
    std::unique_ptr<Notepad> notepad;
    InMemorySecretStore vaultStore;
    NoAuthenticator authenticator;
    std::unique_ptr<Vault> vault;
    PickyStore keys;
    Keychain keychain{keys};
    std::vector<std::vector<std::string>> tweakCalls;
    int reloads = 0;
    std::unique_ptr<BackupTarget> target;

    Fixture() {
        writeFile(mappingsFile, nlohmann::json{{"mappings", {binding("Old", 9).toJSON()}}, {"schemaVersion", 1}}.dump());
        writeFile(root / "support/Notepad.txt", "the old note");
        store = std::make_unique<MappingStore>(mappingsFile, *log, scheduler.clock());
        notepad = std::make_unique<Notepad>(root / "support/Notepad.txt", 0.5, scheduler, *log);
        vault = std::make_unique<Vault>(VaultKeychain(vaultStore, "test.vault"), authenticator, scheduler, rounds);
        vault->create(std::nullopt, [](std::optional<std::string> error) { EXPECT_EQ(error, std::nullopt); });
        scheduler.runUntilIdle();
        target = std::make_unique<BackupTarget>(BackupTarget{
            defaults, *settings, *store, *notepad, *vault, keychain, *log, scheduler, "2.0 (7)",
            [] { return std::string("Test Box"); },
            [](const Tweak& tweak) { return tweak.id == "showPathBar" || tweak.id == "instantDock"; },
            [this](const std::vector<Tweak>& tweaks, std::function<void(int)> done) {
                std::vector<std::string> ids;
                for (const auto& t : tweaks) ids.push_back(t.id);
                tweakCalls.push_back(ids);
                scheduler.after(1.0, [done, n = static_cast<int>(ids.size())] { done(n); });
            },
            [this] { reloads += 1; }});
    }

    BackupRestore::Outcome restore(const Archive& archive, const BackupPlan& plan, const std::string& words = passphrase,
                                   const std::function<void()>& meanwhile = {}) {
        std::optional<BackupRestore::Outcome> outcome;
        BackupRestore::apply(archive, plan, words, *target, [&](BackupRestore::Outcome o) { outcome = std::move(o); });
        if (meanwhile) meanwhile();
        scheduler.runUntilIdle();
        scheduler.advance(2.0);
        EXPECT_TRUE(outcome.has_value()) << "never finished";
        return outcome.value_or(BackupRestore::Outcome{std::string("never finished"), nullptr});
    }

    // What a restore could have touched, for comparing before and after.
    std::string state() {
        std::string out = readFile(mappingsFile) + "|" + readFile(root / "support/Notepad.txt") + "|" +
                          notepad->text().get() + "|" + std::to_string(defaults.writeCount()) + "|" +
                          std::to_string(vault->items.get().size()) + "|" + std::to_string(keys.inner.count()) + "|" +
                          std::to_string(tweakCalls.size()) + "|" + std::to_string(reloads);
        return out;
    }
};

Archive fullArchive(const std::vector<VaultItem>& vaultItems, std::map<std::string, std::string> apiKeys,
                    std::vector<std::string> tweaks = {"showPathBar", "noSuchTweak", "showHiddenFiles"}) {
    Archive::Secrets secrets{vaultItems, std::move(apiKeys)};
    auto archive = ArchiveBuilder::build(
        1772366400, "1.0 (1)", "Elsewhere", SettingsSnapshot::write({{"appearance", "dark"}, {"translateInto", "Welsh"}}),
        std::vector<Mapping>{binding("New one", 1), binding("New two", 2)}, std::move(tweaks),
        std::string("the backed-up note"), secrets, passphrase, fileRounds);
    // One binding from a newer build, which this one cannot read.
    auto json = nlohmann::json::parse(ArchiveFile::encode(archive));
    const nlohmann::json unreadable = {{"id", "33333333-3333-4333-8333-333333333333"},
                                       {"trigger", {{"pinch", {{"_0", 2}}}}},
                                       {"action", {{"teleport", nlohmann::json::object()}}}};
    json["bindings"].insert(json["bindings"].begin() + 1, unreadable);
    return ArchiveFile::decode(json.dump());
}

const BackupPlan everything{true, true, true, true, true};

TEST(BackupRestore, RestoresEachSectionInTurnAndSaysWhatItDid) {
    Fixture f;
    const VaultItem known = entry("Known");
    const VaultItem alsoKnown = entry("Also known");
    f.vault->save(known);
    f.vault->save(alsoKnown);
    f.vault->save(entry("Only here"));
    VaultItem changed = known;
    changed.title = "Known, changed";
    const auto archive = fullArchive({changed, alsoKnown, entry("Brand new")},
                                     {{"anthropic-api-key", "sk-1"}, {"api-key-xAI", "xai-2"}, {"api-key-custom", ""}});
    ASSERT_EQ(archive.skippedBindings, 1);

    const auto outcome = f.restore(archive, everything);
    ASSERT_EQ(outcome.error, nullptr) << outcome.text();
    EXPECT_EQ(outcome.text(),
              "2 settings, 2 bindings (1 left out: this version cannot read it), the note, 1 new and 2 updated vault "
              "entries, 2 AI keys, 2 tweaks");

    // Settings are the snapshot's, not a mix: what it lacks returns to its default, while the
    // server address is neither carried nor removed.
    EXPECT_EQ(f.settings->appearance.get(), AppAppearance::dark);
    EXPECT_EQ(f.settings->translateInto.get(), "Welsh");
    EXPECT_FALSE(f.defaults.object("selectionMode").has_value());
    EXPECT_EQ(f.settings->selectionMode.get(), SelectionMode::off);
    EXPECT_EQ(f.defaults.object("aiBaseURL"), PreferenceValue("https://mine.example/v1"));
    EXPECT_EQ(f.reloads, 1);

    ASSERT_EQ(f.store->mappings().get().size(), 2u);
    EXPECT_EQ(f.store->mappings().get()[1].name, "New two");
    const std::string onDisk = readFile(f.mappingsFile);
    EXPECT_NE(onDisk.find("New two"), std::string::npos);
    EXPECT_EQ(onDisk.find("\"Old\""), std::string::npos);

    EXPECT_EQ(readFile(f.root / "support/Notepad.txt"), "the backed-up note");
    EXPECT_EQ(f.vault->items.get().size(), 4u);
    EXPECT_EQ(f.vault->sorted()[1].title, "Brand new");
    EXPECT_EQ(f.keychain.get("api-key-xAI"), "xai-2");
    EXPECT_FALSE(f.keychain.get("api-key-custom").has_value());
    // The table's order, whatever the file's, and unknown ids passed over.
    EXPECT_EQ(f.tweakCalls, (std::vector<std::vector<std::string>>{{"showHiddenFiles", "showPathBar"}}));

    f.log->flush();
    EXPECT_NE(readFile(f.log->fileURL()).find("restore left out 1 unreadable bindings"), std::string::npos);
}

TEST(BackupRestore, RefusalsChangeNothing) {
    struct Case {
        const char* label;
        BackupPlan plan;
        std::string words;
        bool lockVault;
        bool damageEnvelope;
        std::string text;
    };
    const std::vector<Case> cases = {
        {"locked vault, only secrets", {false, false, false, false, true}, passphrase, true, false,
         "The vault locked while this was open. Unlock it and try again — nothing has been changed."},
        {"locked vault, everything", everything, passphrase, true, false,
         "The vault locked while this was open. Unlock it and try again — nothing has been changed."},
        {"wrong passphrase", everything, "file passphrasE", false, false,
         "That passphrase does not open this backup's secrets."},
        {"empty passphrase", everything, "", false, false, "That passphrase does not open this backup's secrets."},
        {"damaged envelope", everything, passphrase, false, true,
         "That backup could not be read. It may be incomplete or damaged."},
        {"nothing chosen", BackupPlan{}, passphrase, false, false, "Nothing was chosen to restore."},
    };
    for (const auto& c : cases) {
        Fixture f;
        f.vault->save(entry("Mine"));
        ASSERT_TRUE(f.keychain.set("my old key", "anthropic-api-key"));
        auto archive = fullArchive({entry("Theirs")}, {{"anthropic-api-key", "sk-new"}});
        if (c.damageEnvelope) archive.secrets->payload.back() ^= 0x01;
        if (c.lockVault) f.vault->lock();
        const std::string before = f.state();
        const auto outcome = f.restore(archive, c.plan, c.words);
        EXPECT_NE(outcome.error, nullptr) << c.label;
        EXPECT_EQ(outcome.text(), c.text) << c.label;
        EXPECT_EQ(f.state(), before) << c.label;
        EXPECT_EQ(f.keychain.get("anthropic-api-key"), "my old key") << c.label;
        EXPECT_EQ(f.settings->appearance.get(), AppAppearance::light) << c.label;
    }
}

TEST(BackupRestore, ALaterFailureNamesWhatWasAlreadyDone) {
    const std::string lockedText(VaultCrypto::description(VaultCrypto::Failure::locked));
    struct Case {
        const char* label;
        std::function<void(Fixture&, Archive&)> arrange;
        std::function<void(Fixture&)> meanwhile;
        std::string text;
        bool tweaksRan;
    };
    const std::vector<Case> cases = {
        {"settings unreadable", [](Fixture&, Archive& a) { a.settings = "not a property list"; }, nullptr,
         "That backup could not be read. It may be incomplete or damaged.", false},
        {"bindings not written",
         [](Fixture& f, Archive&) {
             std::filesystem::remove(f.mappingsFile);
             std::filesystem::create_directories(f.mappingsFile / "in-the-way");
         },
         nullptr,
         "The bindings could not be written to disk. They are in use now, but the old set will come back at the next "
         "launch. Restored before it stopped: 2 settings.",
         false},
        {"vault locked meanwhile", [](Fixture&, Archive&) {}, [](Fixture& f) { f.vault->lock(); },
         lockedText + " Restored before it stopped: 2 settings, 2 bindings (1 left out: this version cannot read it), "
                      "the note.",
         false},
        {"one key refused",
         [](Fixture& f, Archive&) { f.keys.refused = {"api-key-gemini"}; }, nullptr,
         "The keychain would not store an AI key, and the one that was there is gone. Paste it in again in Settings › "
         "Selection. Restored before it stopped: 2 settings, 2 bindings (1 left out: this version cannot read it), "
         "the note, 1 vault entries, 1 AI key.",
         false},
        {"every key refused",
         [](Fixture& f, Archive&) { f.keys.refused = {"api-key-gemini", "anthropic-api-key"}; }, nullptr,
         "The keychain would not store some AI keys, and the one that was there is gone. Paste it in again in "
         "Settings › Selection. Restored before it stopped: 2 settings, 2 bindings (1 left out: this version cannot "
         "read it), the note, 1 vault entries.",
         false},
    };
    for (const auto& c : cases) {
        Fixture f;
        auto archive = fullArchive({entry("Theirs")}, {{"anthropic-api-key", "sk-1"}, {"api-key-gemini", "g-2"}});
        c.arrange(f, archive);
        const auto outcome = f.restore(archive, everything, passphrase, c.meanwhile ? [&] { c.meanwhile(f); }
                                                                                    : std::function<void()>());
        ASSERT_NE(outcome.error, nullptr) << c.label;
        EXPECT_EQ(outcome.text(), c.text) << c.label;
        EXPECT_EQ(!f.tweakCalls.empty(), c.tweaksRan) << c.label;
        try {
            std::rethrow_exception(outcome.error);
        } catch (const BackupRestore::PartialFailure& failure) {
            if (std::string(c.label) == "one key refused") {
                try {
                    std::rethrow_exception(failure.underlying());
                } catch (const BackupRestore::KeyWriteFailed& keys) {
                    EXPECT_EQ(keys.accounts(), std::vector<std::string>{"api-key-gemini"});
                }
                EXPECT_EQ(f.keychain.get("anthropic-api-key"), "sk-1");
            }
        } catch (...) {
            ADD_FAILURE() << c.label << ": not a partial failure";
        }
    }
}

TEST(BackupRestore, VaultPhrasesCountNewAndUpdatedEntries) {
    struct Case {
        int known;
        int fresh;
        std::string phrase;
    };
    for (const auto& c : std::vector<Case>{{0, 5, "5 vault entries"},
                                           {3, 12, "12 new and 3 updated vault entries"},
                                           {2, 0, "2 vault entries"},
                                           {0, 1, "1 vault entries"}}) {
        Fixture f;
        std::vector<VaultItem> incoming;
        for (int i = 0; i < c.known; ++i) {
            auto item = entry("known " + std::to_string(i));
            f.vault->save(item);
            incoming.push_back(item);
        }
        for (int i = 0; i < c.fresh; ++i) incoming.push_back(entry("new " + std::to_string(i)));
        const auto outcome = f.restore(fullArchive(incoming, {}), BackupPlan{false, false, false, false, true});
        EXPECT_EQ(outcome.text(), c.phrase);
        EXPECT_EQ(f.vault->items.get().size(), static_cast<std::size_t>(c.known + c.fresh));
    }
}

TEST(BackupRestore, NothingChosenThatTheFileHoldsIsNothingToRestore) {
    Fixture f;
    auto onlyNote = ArchiveBuilder::build(1772366400, "1", "m", {}, {}, {}, std::string("note"), {}, "", fileRounds);
    EXPECT_EQ(f.restore(onlyNote, BackupPlan{true, true, true, false, true}).text(), "Nothing to restore.");
    // Tweaks this build does not know are passed over without a word.
    auto unknownTweaks = fullArchive({}, {}, {"fromTheFuture", "alsoUnknown"});
    EXPECT_EQ(f.restore(unknownTweaks, BackupPlan{false, false, true, false, false}).text(), "Nothing to restore.");
    EXPECT_TRUE(f.tweakCalls.empty());
    EXPECT_EQ(f.notepad->text().get(), "the old note");
}

struct ExportCase {
    const char* label;
    enum { none, locked, open } vault;
    int entries;
    int keys;
    std::string label_;
    bool canInclude;
    std::optional<std::string> note;
};

TEST(BackupExportModel, SecretsRowSaysWhatWouldGoIn) {
    const std::string locked = "Open the vault first — its entries cannot be read while it is locked.";
    const std::string nothing = "There is nothing in the vault and no AI key stored.";
    const std::vector<ExportCase> cases = {
        {"open, empty, no keys", ExportCase::open, 0, 0, "Nothing to include", false, nothing},
        {"locked, no keys", ExportCase::locked, 2, 0, "Nothing to include", false, locked},
        {"locked, a key", ExportCase::locked, 2, 1, "1 AI key", true, std::nullopt},
        {"no vault, two keys", ExportCase::none, 0, 2, "2 AI keys", true, std::nullopt},
        {"one entry", ExportCase::open, 1, 0, "1 vault entry", true, std::nullopt},
        {"both", ExportCase::open, 3, 1, "3 vault entries and 1 AI key", true, std::nullopt},
    };
    for (const auto& c : cases) {
        Fixture f;
        if (c.vault == ExportCase::none) {
            f.vault->eraseEverything();
        }
        for (int i = 0; i < c.entries; ++i) f.vault->save(entry(std::to_string(i)));
        if (c.vault == ExportCase::locked) f.vault->lock();
        const char* accounts[] = {"anthropic-api-key", "api-key-openRouter"};
        for (int i = 0; i < c.keys; ++i) f.keychain.set("k" + std::to_string(i), accounts[i]);
        // A stored but empty key, and one under an account no provider uses, do not count.
        f.keychain.set("", "api-key-openAI");
        f.keychain.set("stray", "some-other-account");
        BackupExportModel model(*f.target, fileRounds);
        EXPECT_EQ(model.secretsLabel(), c.label_) << c.label;
        EXPECT_EQ(model.canIncludeSecrets(), c.canInclude) << c.label;
        EXPECT_EQ(model.secretsNote(), c.note) << c.label;
        EXPECT_EQ(model.effectivePlan().secrets, c.canInclude) << c.label;
    }
}

TEST(BackupExportModel, ReadyOnlyWithALongEnoughRepeatedPassphrase) {
    Fixture f;
    f.vault->save(entry("x"));
    BackupExportModel model(*f.target, fileRounds);
    struct Case {
        std::string first, second;
        bool ready;
    };
    for (const auto& c : std::vector<Case>{{"", "", false},
                                           {"1234567", "1234567", false},
                                           {"12345678", "12345678", true},
                                           {"12345678", "12345679", false},
                                           {"ééééééé", "ééééééé", false},
                                           {"éééééééé", "éééééééé", true}}) {
        model.passphrase = c.first;
        model.passphraseRepeat = c.second;
        EXPECT_EQ(model.isReady(), c.ready) << c.first << " / " << c.second;
    }
    // Without secrets no passphrase is asked for; with nothing at all nothing is ready.
    model.secrets = false;
    model.passphrase.clear();
    EXPECT_TRUE(model.isReady());
    model.settings = false;
    f.notepad->setText("");
    model.tweaks = false;
    model.bindings = false;
    EXPECT_FALSE(model.isReady());
    EXPECT_TRUE(model.effectivePlan().isEmpty());
}

TEST(BackupExportModel, LeavesOutEmptySectionsAndSuggestsAName) {
    Fixture f;
    f.scheduler.manualClock().setWall(1772366400);
    ASSERT_TRUE(f.store->replaceAll({}));
    f.notepad->setText("");
    BackupExportModel model(*f.target, fileRounds);
    EXPECT_EQ(model.effectivePlan(), (BackupPlan{true, false, true, false, false}));
    EXPECT_EQ(model.appliedTweaks(), (std::vector<std::string>{"showPathBar", "instantDock"}));
    EXPECT_EQ(model.suggestedName(), "Tavrick-2026-03-01-Test-Box.json");
}

TEST(BackupSheets, ExportThenImportIntoAnotherHome) {
    Fixture from;
    from.scheduler.manualClock().setWall(1772366400);
    from.vault->save(entry("Card"));
    from.keychain.set("sk-travel", "api-key-gemini");
    from.notepad->setText("travelling note");
    from.defaults.set("translateInto", "Basque");
    BackupExportModel exporter(*from.target, fileRounds);
    exporter.passphrase = exporter.passphraseRepeat = passphrase;
    EXPECT_EQ(exporter.captions(),
              (std::vector<std::string>{"4 settings", "1 binding", "2 tweaks", "the note", "1 vault entry and 1 AI key"}));
    const auto file = from.root / "backup.json";
    writeFile(file, "an older file");
    ::chmod(file.c_str(), 0644);
    std::optional<std::optional<std::string>> written;
    exporter.exportTo(file, [&](std::optional<std::string> failure) { written = failure; });
    from.scheduler.runUntilIdle();
    ASSERT_TRUE(written.has_value());
    ASSERT_EQ(*written, std::nullopt);
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(readFile(file).find("sk-travel"), std::string::npos);

    Fixture to;
    BackupImportModel importer(*to.target);
    ASSERT_EQ(importer.open(file), std::nullopt);
    EXPECT_EQ(importer.contents(), (Archive::Contents{true, 1, 2, true, true}));
    EXPECT_EQ(importer.plan, everything);
    EXPECT_EQ(importer.identification(), "Made 2026-03-01T12:00:00Z on Test Box by Tavrick 2.0 (7)");
    EXPECT_EQ(importer.confirmation().back(), "There is no undo.");
    EXPECT_EQ(importer.confirmation().size(), 6u);
    importer.passphrase = passphrase;
    std::optional<BackupRestore::Outcome> outcome;
    importer.restore([&](const BackupRestore::Outcome& o) { outcome = o; });
    to.scheduler.runUntilIdle();
    to.scheduler.advance(2.0);
    ASSERT_TRUE(outcome.has_value());
    EXPECT_EQ(outcome->text(), "4 settings, 1 binding, the note, 1 vault entries, 1 AI key, 2 tweaks");
    EXPECT_EQ(to.keychain.get("api-key-gemini"), "sk-travel");
    EXPECT_EQ(to.settings->translateInto.get(), "Basque");
    EXPECT_EQ(to.notepad->text().get(), "travelling note");
    EXPECT_EQ(to.store->mappings().get(), from.store->mappings().get());
}

TEST(BackupSheets, ExportReportsAVaultThatLockedAndImportReportsUnreadableFiles) {
    Fixture f;
    f.vault->save(entry("x"));
    BackupExportModel exporter(*f.target, fileRounds);
    exporter.passphrase = exporter.passphraseRepeat = passphrase;
    f.vault->lock();
    f.keychain.set("still here", "anthropic-api-key");
    std::optional<std::optional<std::string>> written;
    exporter.exportTo(f.root / "out.json", [&](std::optional<std::string> failure) { written = failure; });
    f.scheduler.runUntilIdle();
    ASSERT_TRUE(written.has_value());
    EXPECT_EQ(*written, "The vault locked while this was open. Unlock it and try again.");
    EXPECT_FALSE(std::filesystem::exists(f.root / "out.json"));

    BackupImportModel importer(*f.target);
    EXPECT_EQ(importer.open(f.root / "missing.json"), "That file could not be read");
    writeFile(f.root / "list.json", "[1,2]");
    EXPECT_EQ(importer.open(f.root / "list.json"), "That is not a Tavrick backup.");
    EXPECT_FALSE(importer.pending().has_value());

    // A file with secrets, read while the vault is locked: the row says why it cannot be chosen.
    auto archive = fullArchive({entry("y")}, {});
    writeFile(f.root / "with-secrets.json", ArchiveFile::encode(archive));
    ASSERT_EQ(importer.open(f.root / "with-secrets.json"), std::nullopt);
    EXPECT_FALSE(importer.plan.secrets);
    EXPECT_FALSE(importer.canChooseSecrets());
    EXPECT_EQ(importer.notes().back(), "Open the vault first — restoring into it needs it unlocked.");
    EXPECT_EQ(importer.skippedNote(), std::nullopt);
}

TEST(BackupFile, TheFileIsTheOwnersAloneBeforeAndAfter) {
    TempDir root;
    const auto archive = ArchiveBuilder::build(1772366400, "1", "m", {}, {}, {}, std::string("n"), {}, "", fileRounds);
    for (mode_t existing : {0u, 0644u, 0666u, 0600u}) {
        const auto file = root / ("b" + std::to_string(existing) + ".json");
        if (existing) {
            writeFile(file, "old");
            ::chmod(file.c_str(), existing);
        }
        ASSERT_EQ(BackupFile::write(archive, file), std::nullopt) << existing;
        struct stat info {};
        ASSERT_EQ(::stat(file.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u) << existing;
        EXPECT_EQ(ArchiveFile::decode(readFile(file)).notepad, "n");
    }
    const auto failure = BackupFile::write(archive, root / "no/such/folder/b.json");
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->rfind("The backup could not be created at ", 0), 0u) << *failure;
}

TEST(BackupCommand, FindsTheFlagAndItsFile) {
    using Kind = BackupCommand::Request::Kind;
    struct Case {
        std::vector<std::string> arguments;
        std::optional<BackupCommand::Request> expected;
        std::size_t problems;
    };
    const std::vector<Case> cases = {
        {{"tavrick"}, std::nullopt, 0},
        {{"tavrick", "--export-backup", "out.json"}, BackupCommand::Request{Kind::exportBackup, "out.json"}, 0},
        {{"tavrick", "--import-backup", "in.json", "--export-backup", "out.json"},
         BackupCommand::Request{Kind::exportBackup, "out.json"}, 0},
        {{"tavrick", "--import-backup"}, std::nullopt, 1},
        {{"tavrick", "--import-backup", ""}, std::nullopt, 1},
        {{"tavrick", "--export-backup", "--import-backup", "in.json"},
         BackupCommand::Request{Kind::importBackup, "in.json"}, 1},
        {{"tavrick", "--export-backup"}, std::nullopt, 1},
    };
    for (const auto& c : cases) {
        std::vector<std::string> problems;
        EXPECT_EQ(BackupCommand::parse(c.arguments, &problems), c.expected) << c.arguments.size();
        EXPECT_EQ(problems.size(), c.problems);
    }
}

} // namespace
} // namespace tavrick
