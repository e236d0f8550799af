#include "BackupKit/Archive.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>

namespace tavrick {
namespace {

// Few rounds keep the suite quick; the round count is carried in the envelope either way.
constexpr std::int64_t rounds = 1000;
// 2026-03-01 12:00:00 UTC.
constexpr double march1 = 1772366400.0;

Mapping binding(const std::string& name, int keyCode) {
    auto json = nlohmann::json::parse(R"({"id": "11111111-1111-4111-8111-1111111111)" +
                                      std::to_string(10 + keyCode) + R"(", "name": ")" + name +
                                      R"(", "isEnabled": true, "trigger": {"hotkey": {"_0": {"keyCode": )" +
                                      std::to_string(keyCode) +
                                      R"(, "modifiers": 12}}}, "action": {"toggleAwake": {}}})");
    return Mapping::fromJSON(json);
}

// The same entry on every call, identity included.
VaultItem entry(const std::string& title) {
    static const UUID id = UUID::random();
    VaultItem item;
    item.id = id;
    item.title = title;
    item.set("number", "4111 1111 1111 1111");
    item.updated = 1700000000;
    return item;
}

Archive everything() {
    Archive::Secrets secrets;
    secrets.vault = {entry("Bank")};
    secrets.apiKeys = {{"anthropic-api-key", "sk-secret"}};
    return ArchiveBuilder::build(march1, "1.2 (45)", "Studio", std::string("bplist00\x01\x02", 10),
                                 std::vector<Mapping>{binding("One", 1), binding("Two", 2)},
                                 std::vector<std::string>{"showPathBar"}, std::string("a note"), secrets,
                                 "file passphrase", rounds);
}

std::string validText() { return ArchiveFile::encode(everything()); }

struct Refusal {
    const char* label;
    std::string input;
    ArchiveError::Case expected;
};

TEST(ArchiveFile, RefusesWhatIsNotABackupBeforeWhatIsDamaged) {
    const std::string valid = validText();
    const std::vector<Refusal> cases = {
        {"not JSON", "hello", ArchiveError::Case::notAnArchive},
        {"empty", "", ArchiveError::Case::notAnArchive},
        {"an array", R"([{"format":"tavrick-backup"}])", ArchiveError::Case::notAnArchive},
        {"another format", R"({"format":"something-else","version":1})", ArchiveError::Case::notAnArchive},
        {"format missing", R"({"version":1})", ArchiveError::Case::notAnArchive},
        {"format not text", R"({"format":1})", ArchiveError::Case::notAnArchive},
        {"truncated", valid.substr(0, valid.size() / 2), ArchiveError::Case::notAnArchive},
        {"newer, nothing else", R"({"format":"tavrick-backup","version":2})", ArchiveError::Case::fromANewerVersion},
        {"newer with a damaged body", R"({"format":"tavrick-backup","version":9,"bindings":7})",
         ArchiveError::Case::fromANewerVersion},
        {"version only", R"({"format":"tavrick-backup","version":1})", ArchiveError::Case::damaged},
        {"version missing",
         R"({"format":"tavrick-backup","createdAt":"2026-03-01T12:00:00Z","app":"1","machine":"m"})",
         ArchiveError::Case::damaged},
        {"version as text",
         R"({"format":"tavrick-backup","version":"1","createdAt":"2026-03-01T12:00:00Z","app":"1","machine":"m"})",
         ArchiveError::Case::damaged},
        {"date as a number",
         R"({"format":"tavrick-backup","version":1,"createdAt":1772366400,"app":"1","machine":"m"})",
         ArchiveError::Case::damaged},
        {"date not a date",
         R"({"format":"tavrick-backup","version":1,"createdAt":"2026-02-30T12:00:00Z","app":"1","machine":"m"})",
         ArchiveError::Case::damaged},
        {"machine missing", R"({"format":"tavrick-backup","version":1,"createdAt":"2026-03-01T12:00:00Z","app":"1"})",
         ArchiveError::Case::damaged},
        {"settings not base64",
         R"({"format":"tavrick-backup","version":1,"createdAt":"2026-03-01T12:00:00Z","app":"1","machine":"m","settings":"@@"})",
         ArchiveError::Case::damaged},
        {"bindings not a list",
         R"({"format":"tavrick-backup","version":1,"createdAt":"2026-03-01T12:00:00Z","app":"1","machine":"m","bindings":{}})",
         ArchiveError::Case::damaged},
        {"a tweak id that is a number",
         R"({"format":"tavrick-backup","version":1,"createdAt":"2026-03-01T12:00:00Z","app":"1","machine":"m","tweaks":["a",2]})",
         ArchiveError::Case::damaged},
        {"note not text",
         R"({"format":"tavrick-backup","version":1,"createdAt":"2026-03-01T12:00:00Z","app":"1","machine":"m","notepad":null})",
         ArchiveError::Case::damaged},
        {"secrets without a payload",
         R"({"format":"tavrick-backup","version":1,"createdAt":"2026-03-01T12:00:00Z","app":"1","machine":"m","secrets":{"salt":"AAAA"}})",
         ArchiveError::Case::damaged},
    };
    for (const auto& c : cases) {
        try {
            ArchiveFile::decode(c.input);
            ADD_FAILURE() << c.label << ": decoded";
        } catch (const ArchiveError& error) {
            EXPECT_EQ(error.kind(), c.expected) << c.label << ": " << error.what();
        }
    }
}

TEST(ArchiveFile, ErrorsSayExactlyWhatHappened) {
    const std::vector<std::pair<ArchiveError, std::string>> cases = {
        {ArchiveError::fromANewerVersion(2),
         "That backup was written by a newer version of Tavrick (format 2). Update and try again."},
        {ArchiveError::notAnArchive(), "That is not a Tavrick backup."},
        {ArchiveError::damaged(), "That backup could not be read. It may be incomplete or damaged."},
        {ArchiveError::wrongPassphrase(), "That passphrase does not open this backup's secrets."},
        {ArchiveError::nothingSelected(), "Nothing was chosen to restore."},
    };
    for (const auto& [error, text] : cases) EXPECT_EQ(error.what(), text);
    try {
        ArchiveFile::decode(R"({"format":"tavrick-backup","version":12})");
        FAIL() << "decoded";
    } catch (const ArchiveError& error) {
        EXPECT_EQ(error.version(), 12);
        EXPECT_STREQ(error.what(), "That backup was written by a newer version of Tavrick (format 12). Update and try again.");
    }
}

TEST(ArchiveFile, WritesReadablePrettySortedJSONAndReadsItBack) {
    const Archive archive = everything();
    const std::string text = ArchiveFile::encode(archive);
    // A person can read it: one key a line, and the keys in order at the top level.
    EXPECT_NE(text.find("\n  \"app\": \"1.2 (45)\",\n"), std::string::npos) << text;
    std::vector<std::size_t> at;
    for (const char* key : {"\"app\"", "\"bindings\"", "\"createdAt\"", "\"format\"", "\"machine\"", "\"notepad\"",
                            "\"secrets\"", "\"settings\"", "\"tweaks\"", "\"version\""}) {
        at.push_back(text.find(std::string("\n  ") + key));
        ASSERT_NE(at.back(), std::string::npos) << key;
    }
    EXPECT_TRUE(std::is_sorted(at.begin(), at.end()));
    EXPECT_NE(text.find("\"createdAt\": \"2026-03-01T12:00:00Z\""), std::string::npos);
    EXPECT_NE(text.find("\"version\": 1"), std::string::npos);
    EXPECT_NE(text.find("\"format\": \"tavrick-backup\""), std::string::npos);
    // The secrets are sealed: none of their text shows.
    for (const char* secret : {"sk-secret", "4111 1111", "Bank", "anthropic-api-key"})
        EXPECT_EQ(text.find(secret), std::string::npos) << secret;

    const Archive read = ArchiveFile::decode(text);
    EXPECT_EQ(read, archive);
    EXPECT_EQ(read.skippedBindings, 0);
}

TEST(ArchiveFile, AbsentSectionsAreNotWrittenAndUnknownKeysAreIgnored) {
    auto archive = ArchiveBuilder::build(march1, "1", "m", std::nullopt, std::nullopt, std::nullopt,
                                         std::string("only a note"), std::nullopt, "", rounds);
    const auto json = nlohmann::json::parse(ArchiveFile::encode(archive));
    std::vector<std::string> keys;
    for (const auto& [key, value] : json.items()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"app", "createdAt", "format", "machine", "notepad", "version"}));

    auto extended = json;
    extended["futureSection"] = {{"anything", 1}};
    const Archive read = ArchiveFile::decode(extended.dump());
    EXPECT_EQ(read.notepad, "only a note");
    EXPECT_EQ(read.contents(), (Archive::Contents{false, 0, 0, true, false}));
}

TEST(ArchiveFile, AnUnreadableBindingIsLeftOutAndCounted) {
    auto json = nlohmann::json::parse(validText());
    json["bindings"] = nlohmann::json::array(
        {binding("First", 3).toJSON(), {{"id", "not-a-uuid"}, {"trigger", {{"laser", {}}}}}, binding("Last", 4).toJSON()});
    const Archive read = ArchiveFile::decode(json.dump());
    ASSERT_EQ(read.bindings->size(), 2u);
    EXPECT_EQ((*read.bindings)[0].name, "First");
    EXPECT_EQ((*read.bindings)[1].name, "Last");
    EXPECT_EQ(read.skippedBindings, 1);
    // The count is the reader's, never the file's.
    EXPECT_EQ(ArchiveFile::encode(read).find("skippedBindings"), std::string::npos);
}

TEST(ArchiveFile, SuggestedNameKeepsLettersDigitsAndDashes) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"Studio's Mac", "Tavrick-2026-03-01-Studios-Mac.json"},
        {"", "Tavrick-2026-03-01.json"},
        {"'''", "Tavrick-2026-03-01.json"},
        {"Anna’s Mac mini (2)", "Tavrick-2026-03-01-Annas-Mac-mini-2.json"},
        {"café-42", "Tavrick-2026-03-01-café-42.json"},
        {" ", "Tavrick-2026-03-01--.json"},
    };
    for (const auto& [machine, expected] : cases) EXPECT_EQ(ArchiveFile::suggestedName(march1, machine), expected) << machine;
}

TEST(ArchiveFile, DatesAreWholeSecondISOTextWithAnOffset) {
    EXPECT_EQ(ArchiveFile::isoDate(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(ArchiveFile::isoDate(march1 + 0.9), "2026-03-01T12:00:00Z");
    const std::vector<std::pair<std::string, std::optional<double>>> cases = {
        {"2026-03-01T12:00:00Z", march1},
        {"2026-03-01T14:00:00+02:00", march1},
        {"2026-03-01T07:30:00-04:30", march1},
        {"2024-02-29T00:00:00Z", 1709164800.0},
        {"2026-03-01T12:00:00", std::nullopt},
        {"2026-03-01 12:00:00Z", std::nullopt},
        {"2026-03-01T12:00:00.5Z", std::nullopt},
        {"2026-13-01T12:00:00Z", std::nullopt},
        {"2025-02-29T00:00:00Z", std::nullopt},
        {"2026-03-01T24:00:00Z", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(ArchiveFile::parseISODate(text), expected) << text;
}

TEST(ArchiveBuilder, NeverProducesAnEmptyBackupOrUnsealedSecrets) {
    auto refused = [](auto build) -> std::optional<ArchiveError::Case> {
        try {
            build();
            return std::nullopt;
        } catch (const ArchiveError& error) {
            return error.kind();
        }
    };
    // Nothing at all; an empty vault with no keys; an empty note.
    EXPECT_EQ(refused([] { ArchiveBuilder::build(march1, "1", "m", {}, {}, {}, {}, {}, "pass", rounds); }),
              ArchiveError::Case::nothingSelected);
    EXPECT_EQ(refused([] { ArchiveBuilder::build(march1, "1", "m", {}, {}, {}, {}, Archive::Secrets{}, "pass", rounds); }),
              ArchiveError::Case::nothingSelected);
    EXPECT_EQ(refused([] { ArchiveBuilder::build(march1, "1", "m", {}, {}, {}, std::string(), {}, "pass", rounds); }),
              ArchiveError::Case::nothingSelected);
    // Something to protect and no passphrase.
    Archive::Secrets keyOnly;
    keyOnly.apiKeys = {{"api-key-xAI", "x"}};
    EXPECT_EQ(refused([&] { ArchiveBuilder::build(march1, "1", "m", {}, {}, {}, {}, keyOnly, "", rounds); }),
              ArchiveError::Case::wrongPassphrase);
    // An empty list of bindings is a section that was chosen; an empty vault with a passphrase
    // leaves no envelope behind.
    auto archive = ArchiveBuilder::build(march1, "1", "m", {}, std::vector<Mapping>{binding("x", 5)}, {}, std::string(),
                                         Archive::Secrets{}, "pass", rounds);
    EXPECT_FALSE(archive.secrets.has_value());
    EXPECT_FALSE(archive.notepad.has_value());
    EXPECT_EQ(archive.format, "tavrick-backup");
    EXPECT_EQ(archive.version, 1);
}

TEST(ArchiveBuilder, OpensSecretsOnlyWithTheirPassphrase) {
    const Archive archive = everything();
    ASSERT_TRUE(archive.secrets.has_value());
    EXPECT_EQ(archive.secrets->iterations, rounds);
    EXPECT_EQ(archive.secrets->salt.size(), VaultCrypto::saltBytes);
    EXPECT_TRUE(ArchiveBuilder::opens(archive, "file passphrase"));
    EXPECT_FALSE(ArchiveBuilder::opens(archive, "file passphrasE"));
    const auto secrets = ArchiveBuilder::secrets(archive, "file passphrase");
    ASSERT_EQ(secrets.vault.size(), 1u);
    EXPECT_EQ(secrets.vault[0], entry("Bank"));
    EXPECT_EQ(secrets.apiKeys.at("anthropic-api-key"), "sk-secret");
    try {
        ArchiveBuilder::secrets(archive, "");
        FAIL() << "opened";
    } catch (const ArchiveError& error) {
        EXPECT_EQ(error.kind(), ArchiveError::Case::wrongPassphrase);
    }
    // Two builds of the same secrets never share a salt.
    EXPECT_NE(everything().secrets->salt, archive.secrets->salt);

    Archive none = archive;
    none.secrets.reset();
    EXPECT_TRUE(ArchiveBuilder::opens(none, "anything"));
    EXPECT_TRUE(ArchiveBuilder::secrets(none, "anything").isEmpty());
}

TEST(ArchiveBuilder, SecretsThatDoNotDecodeAreDamaged) {
    const std::vector<std::pair<const char*, std::string>> contents = {
        {"no apiKeys", R"({"vault":[]})"},
        {"no vault", R"({"apiKeys":{}})"},
        {"a key that is a number", R"({"vault":[],"apiKeys":{"a":1}})"},
        {"an entry that is not one", R"({"vault":[{"title":3}],"apiKeys":{}})"},
        {"not JSON", "vault"},
    };
    Archive archive = everything();
    for (const auto& [label, content] : contents) {
        archive.secrets = VaultCrypto::sealed(VaultCrypto::Bytes(content.begin(), content.end()), "right one", rounds);
        try {
            ArchiveBuilder::secrets(archive, "right one");
            ADD_FAILURE() << label << ": opened";
        } catch (const ArchiveError& error) {
            EXPECT_EQ(error.kind(), ArchiveError::Case::damaged) << label;
        }
    }
    // A payload cut short is damage, not a wrong passphrase.
    archive.secrets = everything().secrets;
    archive.secrets->payload.resize(archive.secrets->payload.size() - 3);
    try {
        ArchiveBuilder::secrets(archive, "file passphrase");
        FAIL() << "opened";
    } catch (const ArchiveError& error) {
        EXPECT_EQ(error.kind(), ArchiveError::Case::damaged);
    }
}

TEST(BackupPlan, OffersWhatTheArchiveHolds) {
    EXPECT_EQ(BackupPlan::offered({true, 0, 0, false, false}), (BackupPlan{true, false, false, false, false}));
    EXPECT_EQ(BackupPlan::offered({false, 1, 0, false, true}), (BackupPlan{false, true, false, false, true}));
    EXPECT_EQ(BackupPlan::offered({false, 0, 3, true, false}), (BackupPlan{false, false, true, true, false}));
    EXPECT_TRUE(BackupPlan::offered({}).isEmpty());
    EXPECT_FALSE((BackupPlan{false, false, false, false, true}).isEmpty());
}

} // namespace
} // namespace tavrick
