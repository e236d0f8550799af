// "Back Up…" and "Restore…" in the Settings submenu, driven as a face drives them: lines chosen
// and text typed, on virtual time, with real files in a temporary home.
#include "Support/TempDir.h"
#include "Tavrick/BackupSection.h"
#include "Tavrick/MenuHarness.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class BackupMenuTest : public MenuHarness {
protected:
    void prepare(MenuBarContent& menu) override { menu.backupRounds = VaultCrypto::minimumIterations; }
    // The lines of a submenu by id, in order.
    std::vector<std::string> lines(const std::string& id) {
        std::vector<std::string> out;
        if (auto e = find(id)) {
            for (const auto& child : e->children) out.push_back(child.id);
        }
        return out;
    }
    std::string lastToast() { return presenter->lines.empty() ? "<none>" : presenter->lines.back(); }

    // An open, unprotected vault with one entry, a note and a changed setting.
    void furnish() {
        menu();
        std::optional<std::string> created = "pending";
        coordinator->vault().create(std::nullopt, [&](std::optional<std::string> error) { created = error; });
        scheduler.runUntilIdle();
        ASSERT_EQ(created, std::nullopt);
        VaultItem item;
        item.title = "Deploy";
        item.set("password", "pw-deploy");
        coordinator->vault().save(item);
        coordinator->notepad().setText("groceries");
        coordinator->settings().translateInto.set("Welsh");
        scheduler.runUntilIdle();
    }
    std::vector<std::string> vaultTitles() {
        std::vector<std::string> titles;
        for (const auto& item : coordinator->vault().sorted()) titles.push_back(item.title);
        return titles;
    }
};

TEST_F(BackupMenuTest, ExportWritesTheFileAndRestoreBringsEverythingBack) {
    furnish();
    const auto file = root / "out.json";
    EXPECT_EQ(title("settings.backup"), "Back Up…");
    EXPECT_EQ(title("settings.backup.intro"), "Settings, bindings, tweaks, the note and the vault, in one file.");
    EXPECT_EQ(title("settings.backup.secrets"), "1 vault entry");
    EXPECT_TRUE(find("settings.backup.secrets")->isOn);
    EXPECT_TRUE(menu().submit("settings.backup.file", file.string()));
    EXPECT_EQ(find("settings.backup.file")->value, file.string());
    // With the secrets in, nothing is written until the file's passphrase is typed twice alike.
    EXPECT_FALSE(enabled("settings.backup.export"));
    EXPECT_TRUE(find("settings.backup.passphrase")->isSecret);
    EXPECT_TRUE(find("settings.backup.repeat")->isSecret);
    EXPECT_FALSE(menu().submit("settings.backup.passphrase", "seven77"));
    EXPECT_EQ(lastToast(), "warning The passphrase was not taken | It needs at least 8 characters");
    EXPECT_TRUE(menu().submit("settings.backup.passphrase", "eight888"));
    EXPECT_FALSE(menu().submit("settings.backup.repeat", "eight889"));
    EXPECT_EQ(lastToast(), "warning The two passphrases differ | Type the same passphrase in both fields");
    EXPECT_FALSE(enabled("settings.backup.export"));
    EXPECT_TRUE(menu().submit("settings.backup.repeat", "eight888"));
    EXPECT_EQ(title("settings.backup.explanation"), BackupTexts::passphraseExplanation);
    ASSERT_TRUE(enabled("settings.backup.export"));
    EXPECT_EQ(title("settings.backup.export"), "Back Up");
    EXPECT_TRUE(menu().activate("settings.backup.export"));
    scheduler.runUntilIdle();
    ASSERT_TRUE(std::filesystem::exists(file));
    EXPECT_NE(readFile(file).find("\"tavrick-backup\""), std::string::npos);
    EXPECT_EQ(readFile(file).find("pw-deploy"), std::string::npos) << "secrets are sealed in the file";
    EXPECT_EQ(lastToast().rfind("Backup saved | " + file.string() + ": ", 0), 0u) << lastToast();
    EXPECT_NE(lastToast().find(", the note, 1 vault entry"), std::string::npos) << lastToast();
    // The passphrases are gone with the export; the next one asks again.
    EXPECT_EQ(title("settings.backup.passphrase"), BackupTexts::passphraseField);
    EXPECT_EQ(title("settings.backup.export"), "Back Up, Replacing out.json");

    // Everything changes, and the vault locks.
    coordinator->vault().remove(coordinator->vault().sorted().front().id);
    coordinator->notepad().setText("something else");
    coordinator->settings().translateInto.set("Breton");
    coordinator->vault().lock();
    scheduler.runUntilIdle();

    EXPECT_EQ(lines("settings.restore"), std::vector<std::string>{"settings.restore.file"});
    EXPECT_TRUE(menu().submit("settings.restore.file", file.string()));
    EXPECT_EQ(title("settings.restore.identification").rfind("Made ", 0), 0u);
    EXPECT_EQ(title("settings.restore.title"), "Restore from this backup?");
    EXPECT_EQ(title("settings.restore.notepad.note"), "Replaces the note you have now.");
    // Locked, the vault's row cannot be chosen; the file's passphrase is checked before anything.
    EXPECT_FALSE(enabled("settings.restore.secrets"));
    EXPECT_EQ(title("settings.restore.secrets.note"), "Open the vault first — restoring into it needs it unlocked.");
    // The check runs off the main queue; until it answers, nothing is taken.
    EXPECT_TRUE(menu().submit("settings.restore.passphrase", "eight889"));
    EXPECT_EQ(title("settings.restore.passphrase").find("(typed)"), std::string::npos);
    scheduler.runUntilIdle();
    EXPECT_EQ(lastToast(), "warning That passphrase does not open this backup's secrets.");
    EXPECT_TRUE(menu().submit("settings.restore.passphrase", "eight888"));
    scheduler.runUntilIdle();
    EXPECT_NE(title("settings.restore.passphrase").find("(typed)"), std::string::npos);
    EXPECT_TRUE(menu().activate("settings.restore.vault"));
    EXPECT_TRUE(coordinator->vault().isUnlocked.get());
    EXPECT_TRUE(enabled("settings.restore.secrets"));
    EXPECT_TRUE(find("settings.restore.secrets")->isOn) << "opening the vault here asks for its entries";
    EXPECT_EQ(title("settings.restore.secrets.note"), BackupTexts::mergeSentence);
    std::vector<std::string> sentences;
    for (int i = 0; auto e = find("settings.restore.confirm." + std::to_string(i)); ++i) sentences.push_back(e->title);
    EXPECT_EQ(sentences, (std::vector<std::string>{BackupTexts::confirmSettings, BackupTexts::confirmBindings,
                                                   BackupTexts::confirmNotepad,
                                                   BackupTexts::confirmSecrets, BackupTexts::noUndo}));
    EXPECT_TRUE(menu().activate("settings.restore.apply"));
    scheduler.runUntilIdle();

    EXPECT_EQ(coordinator->notepad().text().get(), "groceries");
    EXPECT_EQ(vaultTitles(), std::vector<std::string>{"Deploy"});
    EXPECT_EQ(coordinator->settings().translateInto.get(), "Welsh");
    EXPECT_EQ(lastToast().rfind("Backup restored | ", 0), 0u) << lastToast();
    EXPECT_NE(lastToast().find("the note, 1 vault entries"), std::string::npos) << lastToast();
    EXPECT_EQ(lines("settings.restore"), std::vector<std::string>{"settings.restore.file"}) << "the sheet closes";
    EXPECT_TRUE(noted("[backup] restored from the menu: " + lastToast().substr(18)));
}

TEST_F(BackupMenuTest, WhereTheExportGoesFollowsWhatIsTyped) {
    menu();
    std::filesystem::create_directories(root / "Backups");
    const std::string suggested = coordinator->makeBackupExport()->suggestedName();
    struct Case {
        std::string typed;
        bool taken;
        std::string shown;
    } cases[] = {
        {"~/mine.json", true, (root / "mine.json").string()},
        {"  Backups/b.json ", true, (root / "Backups/b.json").string()},
        {(root / "Backups").string(), true, (root / "Backups" / suggested).string()},
        {"~", true, (root / suggested).string()},
        {"no/such/folder/b.json", false, ""},
        {"", true, (root / suggested).string()},
    };
    std::string before = find("settings.backup.file")->value;
    EXPECT_EQ(before, (root / suggested).string());
    for (const auto& c : cases) {
        presenter->lines.clear();
        EXPECT_EQ(menu().submit("settings.backup.file", c.typed), c.taken) << c.typed;
        const std::string shown = find("settings.backup.file")->value;
        if (c.taken) {
            EXPECT_EQ(shown, c.shown) << c.typed;
            EXPECT_TRUE(presenter->lines.empty()) << c.typed;
        } else {
            EXPECT_EQ(shown, before) << "a refused path keeps the last one: " << c.typed;
            EXPECT_EQ(lastToast(), "warning The backup was not saved there | There is no folder " +
                                       (root / "no/such/folder").string());
        }
        before = shown;
    }
}

TEST_F(BackupMenuTest, WithNothingStoredTheSecretsRowSaysWhyAndThePlainExportNeedsNoPassphrase) {
    menu();
    EXPECT_EQ(title("settings.backup.secrets"), "Nothing to include");
    EXPECT_FALSE(enabled("settings.backup.secrets"));
    EXPECT_EQ(title("settings.backup.secrets.note"), "There is nothing in the vault and no AI key stored.");
    EXPECT_FALSE(find("settings.backup.passphrase"));
    EXPECT_FALSE(find("settings.backup.notepad")) << "an empty note is not offered";
    // Turning every section off leaves nothing to write.
    std::vector<std::string> offered;
    for (const char* id : {"settings.backup.settings", "settings.backup.bindings", "settings.backup.tweaks"}) {
        if (!find(id)) continue;
        offered.push_back(id);
        EXPECT_TRUE(menu().activate(id));
        EXPECT_FALSE(find(id)->isOn);
    }
    ASSERT_FALSE(offered.empty());
    EXPECT_FALSE(enabled("settings.backup.export"));
    EXPECT_FALSE(menu().activate("settings.backup.export"));
    EXPECT_TRUE(menu().activate("settings.backup.settings"));
    EXPECT_TRUE(menu().submit("settings.backup.file", (root / "plain.json").string()));
    EXPECT_TRUE(menu().activate("settings.backup.export"));
    EXPECT_EQ(title("settings.backup.export"), "Backing Up…");
    EXPECT_FALSE(enabled("settings.backup.export")) << "one export at a time";
    scheduler.runUntilIdle();
    EXPECT_TRUE(std::filesystem::exists(root / "plain.json"));
    EXPECT_EQ(title("settings.backup.result").rfind("Written to " + (root / "plain.json").string() + ": ", 0), 0u);
}

TEST_F(BackupMenuTest, ABadFileIsRefusedInItsOwnWordsAndLeavesNoSheet) {
    menu();
    writeFile(root / "other.json", R"({"format":"something-else"})");
    writeFile(root / "newer.json", R"({"format":"tavrick-backup","version":2})");
    writeFile(root / "bare.json", R"({"format":"tavrick-backup","version":1})");
    const std::pair<std::string, std::string> cases[] = {
        {(root / "missing.json").string(), "warning That file could not be read"},
        {(root / "other.json").string(), "warning That is not a Tavrick backup."},
        {(root / "newer.json").string(),
         "warning That backup was written by a newer version of Tavrick (format 2). Update and try again."},
        {(root / "bare.json").string(), "warning That backup could not be read. It may be incomplete or damaged."},
    };
    for (const auto& [path, toast] : cases) {
        EXPECT_FALSE(menu().submit("settings.restore.file", path)) << path;
        EXPECT_EQ(lastToast(), toast);
        EXPECT_EQ(lines("settings.restore"), std::vector<std::string>{"settings.restore.file"}) << path;
    }
}

TEST_F(BackupMenuTest, RestoreWithEverySectionTurnedOffCannotRunAndCancelForgetsTheFile) {
    furnish();
    const auto file = root / "note-only.json";
    EXPECT_TRUE(menu().activate("settings.backup.secrets"));
    EXPECT_FALSE(find("settings.backup.passphrase")) << "no secrets, no passphrase";
    EXPECT_TRUE(menu().submit("settings.backup.file", file.string()));
    EXPECT_TRUE(menu().activate("settings.backup.export"));
    scheduler.runUntilIdle();
    ASSERT_TRUE(std::filesystem::exists(file));

    coordinator->notepad().setText("kept");
    EXPECT_TRUE(menu().submit("settings.restore.file", file.string()));
    EXPECT_FALSE(find("settings.restore.secrets")) << "the file holds no secrets";
    EXPECT_TRUE(enabled("settings.restore.apply"));
    EXPECT_TRUE(menu().activate("settings.restore.settings"));
    EXPECT_TRUE(menu().activate("settings.restore.notepad"));
    for (const char* id : {"settings.restore.bindings", "settings.restore.tweaks"}) {
        if (find(id)) {
            EXPECT_TRUE(menu().activate(id));
        }
    }
    EXPECT_FALSE(enabled("settings.restore.apply"));
    EXPECT_FALSE(menu().activate("settings.restore.apply"));
    EXPECT_EQ(std::vector<std::string>{title("settings.restore.confirm.0")}, std::vector<std::string>{BackupTexts::noUndo});
    EXPECT_TRUE(menu().activate("settings.restore.cancel"));
    scheduler.runUntilIdle();
    EXPECT_EQ(lines("settings.restore"), std::vector<std::string>{"settings.restore.file"});
    EXPECT_EQ(coordinator->notepad().text().get(), "kept");
}

} // namespace

namespace {

TEST_F(BackupMenuTest, ASealedVaultIsOpenedWithItsOwnPassphraseAfterTheFilesOne) {
    menu();
    std::optional<std::string> created = "pending";
    coordinator->vault().create(std::string("vault pass 1"), [&](std::optional<std::string> error) { created = error; });
    scheduler.runUntilIdle();
    ASSERT_EQ(created, std::nullopt);
    VaultItem item;
    item.title = "Mail";
    item.set("password", "pw-mail");
    coordinator->vault().save(item);
    const auto file = root / "sealed.json";
    EXPECT_TRUE(menu().submit("settings.backup.file", file.string()));
    EXPECT_TRUE(menu().submit("settings.backup.passphrase", "file pass 1"));
    EXPECT_TRUE(menu().submit("settings.backup.repeat", "file pass 1"));
    EXPECT_TRUE(menu().activate("settings.backup.export"));
    scheduler.runUntilIdle();
    ASSERT_TRUE(std::filesystem::exists(file));
    coordinator->vault().remove(coordinator->vault().sorted().front().id);
    coordinator->vault().lock();

    EXPECT_TRUE(menu().submit("settings.restore.file", file.string()));
    EXPECT_TRUE(menu().submit("settings.restore.passphrase", "file pass 1"));
    ASSERT_TRUE(find("settings.restore.vault"));
    EXPECT_TRUE(find("settings.restore.vault")->isSecret);
    EXPECT_TRUE(menu().submit("settings.restore.vault", "vault pass 2"));
    scheduler.runUntilIdle();
    EXPECT_FALSE(coordinator->vault().isUnlocked.get());
    EXPECT_EQ(title("settings.restore.vault.failure").rfind("⚠︎ ", 0), 0u);
    EXPECT_FALSE(enabled("settings.restore.secrets"));
    EXPECT_TRUE(menu().submit("settings.restore.vault", "vault pass 1"));
    scheduler.runUntilIdle();
    ASSERT_TRUE(coordinator->vault().isUnlocked.get());
    EXPECT_FALSE(find("settings.restore.vault.failure"));
    EXPECT_TRUE(find("settings.restore.secrets")->isOn);
    EXPECT_TRUE(menu().activate("settings.restore.apply"));
    scheduler.runUntilIdle();
    EXPECT_EQ(vaultTitles(), std::vector<std::string>{"Mail"});
}

} // namespace
