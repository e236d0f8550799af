#include "CoreKit/MappingStore.h"

#include "CoreKit/Directories.h"
#include "CoreKit/KeyCodes.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/Linux/LinuxBundle.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"
#include "Support/Unprivileged.h"

#include "Support/USLayout.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>


using namespace tavrick;
using tavrick::testing::LogCapture;
using tavrick::testing::readFile;
using tavrick::testing::runUnprivileged;
using tavrick::testing::TempDir;
using tavrick::testing::writeFile;
using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr const char* corruptName = "mappings.json.corrupt-1763251200";

UUID idNumber(int n) {
    char text[37];
    std::snprintf(text, sizeof text, "00000000-0000-4000-8000-%012d", n);
    return *UUID::parse(text);
}

Mapping hotkeyMapping(int n, std::uint16_t keyCode = 0, bool enabled = true) {
    return Mapping{idNumber(n), "m" + std::to_string(n), Trigger::hotkey({keyCode, Modifiers(12)}),
                   ActionSpec::window(WindowCommand::maximize), enabled, std::nullopt};
}

std::vector<std::string> names(const std::vector<Mapping>& mappings) {
    std::vector<std::string> out;
    for (const auto& m : mappings) out.push_back(m.name);
    return out;
}

// Two examples, so seeding is recognisable without depending on the shipped set.
const std::string seedText = R"({"schemaVersion":1,"mappings":[
  {"id":"00000000-0000-4000-8000-000000000901","name":"seed one","isEnabled":true,
   "trigger":{"hotkey":{"_0":{"keyCode":123,"modifiers":12}}},"action":{"window":{"_0":"leftHalf"}}},
  {"id":"00000000-0000-4000-8000-000000000902","name":"seed two","isEnabled":true,
   "trigger":{"gesture":{"_0":{"fingerCount":3,"kind":"swipe","direction":"up"}}},"action":{"window":{"_0":"maximize"}}}
]})";

// A record a later build might write: an action this build does not know, with nested values of
// every kind, including whole and fractional numbers.
const std::string unknownRecord =
    R"({"action":{"teleport":{"to":{"x":49,"y":-2.5,"tags":["a",true,null]}}},"extra":1e3,)"
    R"("id":"00000000-0000-4000-8000-000000000077","isEnabled":true,"name":"from the future",)"
    R"("trigger":{"hotkey":{"_0":{"keyCode":7,"modifiers":1}}}})";

class MappingStoreTest : public ::testing::Test {
protected:
    tavrick::testing::USLayout layout_;

    // Every test starts with the two examples bundled.
    void SetUp() override { installSeed(); }
    std::unique_ptr<MappingStore> open() {
        return std::make_unique<MappingStore>(file, *diagnostics, scheduler.clock(), bundle);
    }
    void installSeed(const std::string& text = seedText) { writeFile(resources / "DefaultMappings.json", text); }
    void writeDocument(const std::vector<std::string>& records, int schema = 1) {
        std::string text = "{\"schemaVersion\":" + std::to_string(schema) + ",\"mappings\":[";
        for (std::size_t i = 0; i < records.size(); ++i) text += (i ? "," : "") + records[i];
        writeFile(file, text + "]}");
    }
    json onDisk() const { return json::parse(readFile(file)); }
    std::vector<std::string> coreLog() const { return logs.messages("core"); }
    std::vector<fs::path> filesIn(const fs::path& directory) const {
        std::vector<fs::path> out;
        for (const auto& entry : fs::directory_iterator(directory)) out.push_back(entry.path().filename());
        std::sort(out.begin(), out.end());
        return out;
    }

    TempDir dir;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> diagnostics = DiagnosticLog::make(dir / "logs", scheduler);
    LogCapture logs{LogLevel::info};
    fs::path support = dir / "support";
    fs::path file = support / "mappings.json";
    fs::path resources = dir / "bundle";
    LinuxBundle bundle{"/nonexistent/tavrick", {resources}};
};

} // namespace

// ---- Load ----

TEST_F(MappingStoreTest, AMissingFileIsSeededAndSavedPrettyPrintedWithSortedKeysAndWholeNumbers) {
    auto store = open();
    EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"seed one", "seed two"}));
    EXPECT_EQ(coreLog(), (std::vector<std::string>{"Seeded 2 example mappings"}));
    EXPECT_EQ(MappingDocument::fromJSON(onDisk()).mappings, store->mappings().get());

    auto text = readFile(file);
    EXPECT_EQ(text.substr(0, 18), "{\n  \"mappings\": [\n");
    EXPECT_NE(text.find("\n  \"schemaVersion\": 1\n}"), std::string::npos) << text;
    EXPECT_NE(text.find("\"keyCode\": 123,\n"), std::string::npos) << text;
    EXPECT_EQ(text.find(".0"), std::string::npos) << "no whole number is written with a fraction";
    std::size_t last = 0;
    for (const char* key : {"\"action\"", "\"id\"", "\"isEnabled\"", "\"name\"", "\"trigger\""}) {
        EXPECT_GT(text.find(key), last) << key << " comes in sorted order";
        last = text.find(key);
    }
    EXPECT_NE(text.find("\"id\": \"00000000-0000-4000-8000-000000000901\""), std::string::npos);
}

TEST_F(MappingStoreTest, SeedProblemsStartEmpty) {
    struct Case {
        std::optional<std::string> resource;
        std::string logPrefix;
    };
    const Case cases[] = {
        {std::nullopt, "No bundled DefaultMappings.json; starting empty"},
        {"not json", "Could not read bundled defaults: parse error"},
        {"", "Could not read bundled defaults: parse error"},
        {R"({"mappings":[]})", "Could not read bundled defaults: No value for key “schemaVersion”."},
        // The seed is strict: one bad record empties the whole set.
        {R"({"schemaVersion":1,"mappings":[)" + unknownRecord + "]}",
         "Could not read bundled defaults: Invalid number of keys found, expected one."},
    };
    for (const auto& c : cases) {
        fs::remove_all(resources);
        if (c.resource) installSeed(*c.resource);
        LogCapture capture;
        EXPECT_TRUE(MappingStore::bundledDefaults(bundle).empty());
        auto lines = capture.messages("core");
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].rfind(c.logPrefix, 0), 0u) << lines[0];
    }
    fs::remove_all(resources);
    LogCapture capture;
    auto store = open();
    EXPECT_EQ(capture.messages("core"), (std::vector<std::string>{"No bundled DefaultMappings.json; starting empty",
                                                                  "Seeded 0 example mappings"}));
    EXPECT_TRUE(store->mappings().get().empty());
    EXPECT_EQ(onDisk()["mappings"], json::array());
}

TEST_F(MappingStoreTest, TheShippedSeedIsReadWholeWithUniqueUpperCaseIdsAndUsableTriggers) {
    LinuxBundle shipped{"/nonexistent/tavrick", {fs::path(TAVRICK_SOURCE_DIR) / "resources"}};
    LogCapture capture;
    auto seed = MappingStore::bundledDefaults(shipped);
    EXPECT_TRUE(capture.messages("core").empty()) << capture.messages("core").front();
    ASSERT_FALSE(seed.empty());
    std::unordered_set<UUID> ids;
    // Ids are stored upper-case, so that a copy edited by the user keeps the same text.
    auto text = readFile(fs::path(TAVRICK_SOURCE_DIR) / "resources" / "DefaultMappings.json");
    for (const auto& mapping : seed) {
        ids.insert(mapping.id);
        EXPECT_NE(text.find(mapping.id.uuidString()), std::string::npos);
        auto* mouse = mapping.trigger.asMouseGesture();
        auto* hotkey = mapping.trigger.asHotkey();
        EXPECT_TRUE(!mouse || mouse->isValid()) << mapping.name;
        EXPECT_TRUE(!hotkey || hotkey->modifiers.isSafeForGlobalHotkey()) << mapping.name;
    }
    EXPECT_EQ(ids.size(), seed.size()) << "example ids are unique";
}

TEST_F(MappingStoreTest, AFileInvalidAsAWholeIsMovedAsideAndReplacedWithTheExamples) {
    const std::string cases[] = {
        "not json at all",
        "",
        "[]",
        R"({"mappings":5,"schemaVersion":1})",
        R"({"mappings":[]})",
        R"({"schemaVersion":"1","mappings":[]})",
        R"({"schemaVersion":1,"mappings":[)" + std::string(10000, '[') + std::string(10000, ']') + "]}",
        "\xff\xfe{}",
    };
    for (const auto& contents : cases) {
        fs::remove_all(support);
        writeFile(file, contents);
        LogCapture capture;
        auto store = open();
        auto lines = capture.messages("core");
        ASSERT_EQ(lines.size(), 1u) << contents.substr(0, 40);
        EXPECT_EQ(lines[0].rfind("Could not read mappings (", 0), 0u) << lines[0];
        EXPECT_NE(lines[0].find(std::string("); moved aside to ") + corruptName), std::string::npos) << lines[0];
        EXPECT_EQ(capture.lines()[0].level, LogLevel::error);
        EXPECT_EQ(readFile(support / corruptName), contents) << "the old file is kept byte for byte";
        EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"seed one", "seed two"}));
        EXPECT_EQ(MappingDocument::fromJSON(onDisk()).mappings, store->mappings().get());
    }
}

TEST_F(MappingStoreTest, APathThatCannotBeReadIsMovedAsideToo) {
    // A folder where the file should be cannot be read as one, whoever runs the test.
    fs::create_directories(file);
    writeFile(file / "inside.txt", "kept");
    LogCapture capture;
    auto store = open();
    auto lines = capture.messages("core");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string("Could not read mappings (could not read “mappings.json”: Is a directory); "
                                    "moved aside to ") + corruptName);
    EXPECT_EQ(readFile(support / corruptName / "inside.txt"), "kept");
    EXPECT_EQ(store->mappings().get().size(), 2u);
    EXPECT_TRUE(fs::is_regular_file(file));
}

TEST_F(MappingStoreTest, AnUnreadableFileIsMovedAside) {
    writeFile(file, R"({"schemaVersion":1,"mappings":[]})");
    fs::permissions(file, fs::perms::none);
    int status = runUnprivileged(dir.path(), [&] {
        LogCapture capture;
        auto store = open();
        if (capture.messages("core").at(0) !=
            std::string("Could not read mappings (could not read “mappings.json”: Permission denied); moved aside to ") +
                corruptName) {
            return 1;
        }
        return store->mappings().get().size() == 2 ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(support / corruptName), R"({"schemaVersion":1,"mappings":[]})");
    EXPECT_EQ(onDisk()["mappings"].size(), 2u);
}

TEST_F(MappingStoreTest, AFileInAFolderThatCannotBeSearchedIsNeitherSeededOverNorMovedAside) {
    writeDocument({hotkeyMapping(1).toJSON().dump()});
    const auto before = readFile(file);
    fs::permissions(support, fs::perms::owner_read | fs::perms::owner_write);
    int status = runUnprivileged(dir.path(), [&] {
        LogCapture capture;
        auto store = open();
        auto lines = capture.messages("core");
        if (lines.empty() || lines[0].rfind("Could not read mappings (could not read “mappings.json”: Permission denied)", 0) != 0) {
            return 1;
        }
        return std::none_of(lines.begin(), lines.end(), [](const std::string& line) {
            return line.rfind("Seeded", 0) == 0;
        }) ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(file), before);
    EXPECT_EQ(filesIn(support), (std::vector<fs::path>{"mappings.json"}));
}

TEST_F(MappingStoreTest, TwoBadFilesInOneSecondKeepBothCopies) {
    writeFile(file, "first");
    open();
    writeFile(file, "second");
    LogCapture capture;
    open();
    EXPECT_EQ(readFile(support / corruptName), "first");
    EXPECT_EQ(readFile(support / (std::string(corruptName) + "-2")), "second");
    EXPECT_NE(capture.messages("core").at(0).find(std::string("moved aside to ") + corruptName + "-2"),
              std::string::npos);

    scheduler.advance(61);
    writeFile(file, "third");
    open();
    EXPECT_EQ(readFile(support / "mappings.json.corrupt-1763251261"), "third");
}

TEST_F(MappingStoreTest, WhenTheMoveFailsTheOldFileStillSurvivesAnUnwritableFolder) {
    writeFile(file, "garbage");
    fs::permissions(support, fs::perms::owner_read | fs::perms::owner_exec);
    int status = runUnprivileged(dir.path(), [&] {
        LogCapture capture;
        auto store = open();
        auto lines = capture.messages("core");
        if (lines.size() != 2 || lines[0].rfind("Could not read mappings (", 0) != 0) return 1;
        if (lines[0].find("could not move it aside either (Permission denied)") == std::string::npos) return 2;
        if (lines[1].rfind("Could not save mappings: ", 0) != 0) return 3;
        return store->mappings().get().size() == 2 ? 0 : 4;  // seeding goes on in memory
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(file), "garbage");
    EXPECT_EQ(filesIn(support), (std::vector<fs::path>{"mappings.json"}));
}

TEST_F(MappingStoreTest, AFileThatCouldNotBeReadIsNotOverwrittenOnceAccessReturns) {
    writeDocument({hotkeyMapping(1).toJSON().dump()});
    const auto before = readFile(file);
    fs::permissions(support, fs::perms::owner_read | fs::perms::owner_write);
    int status = runUnprivileged(dir.path(), [&] {
        LogCapture capture;
        auto store = open();
        fs::permissions(support, fs::perms::owner_all);
        std::vector<Mapping> told;
        store->onChange = [&](const std::vector<Mapping>& mappings) { told = mappings; };
        store->add(hotkeyMapping(2));
        if (told.size() != 3) return 1;  // the engines still hear of the change
        auto lines = capture.messages("core");
        return lines.back() == "Could not save mappings: “mappings.json” could not be read, and writing would "
                               "replace what it holds" ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(file), before);
}

TEST_F(MappingStoreTest, UnknownRecordsAreKeptAndWrittenBackAfterTheReadableOnes) {
    writeDocument({json(hotkeyMapping(1).toJSON()).dump(), unknownRecord, hotkeyMapping(2).toJSON().dump()});
    auto before = readFile(file);
    auto store = open();
    EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"m1", "m2"}));
    ASSERT_EQ(store->unreadable().size(), 1u);
    EXPECT_EQ(coreLog(), (std::vector<std::string>{"Loaded 2 mappings (schema v1)",
                                                   "Kept 1 mappings this build cannot read"}));
    EXPECT_NE(diagnostics->contents().find(
                  "[mappings] kept 1 this build cannot read; they are saved back unchanged\n"),
              std::string::npos)
        << diagnostics->contents();
    EXPECT_EQ(readFile(file), before) << "nothing is written at load";

    store->add(hotkeyMapping(3));
    auto written = onDisk()["mappings"];
    ASSERT_EQ(written.size(), 4u);
    EXPECT_EQ(written[0]["name"], "m1");
    EXPECT_EQ(written[1]["name"], "m2");
    EXPECT_EQ(written[2]["name"], "m3");
    EXPECT_EQ(written[3], json::parse(unknownRecord)) << "the unknown entry is equal as JSON";
    EXPECT_NE(readFile(file).find("\"x\": 49,"), std::string::npos) << "its whole numbers stay whole";
    EXPECT_NE(readFile(file).find("\"extra\": 1000,"), std::string::npos);

    // And again after a reload: the entry keeps travelling.
    auto again = open();
    EXPECT_EQ(again->unreadable(), store->unreadable());
    again->remove({idNumber(1)});
    EXPECT_EQ(onDisk()["mappings"].back(), json::parse(unknownRecord));
}

TEST_F(MappingStoreTest, ElementsOfAnyShapeAreKeptAsUnreadable) {
    // A record with a bad fan preset, one missing a field, and values that are not records at all.
    auto badFans = hotkeyMapping(4).toJSON();
    badFans["action"] = json::parse(R"({"fans":{"_0":"boost75"}})");
    auto missing = hotkeyMapping(5).toJSON();
    missing.erase("isEnabled");
    writeDocument({badFans.dump(), "42", R"("text")", "null", "[1,2]", missing.dump(), hotkeyMapping(6).toJSON().dump()});
    auto store = open();
    EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"m6"}));
    EXPECT_EQ(store->unreadable().size(), 6u);
    EXPECT_EQ(store->unreadable()[1], JSONValue(42));
    store->setEnabled(false, idNumber(6));
    auto written = onDisk()["mappings"];
    ASSERT_EQ(written.size(), 7u);
    EXPECT_EQ(written[0]["isEnabled"], false);
    EXPECT_EQ(written[1], badFans);
    EXPECT_EQ(written[2], 42);
    EXPECT_EQ(written[3], "text");
    EXPECT_EQ(written[4], nullptr);
    EXPECT_EQ(written[5], json::parse("[1,2]"));
    EXPECT_EQ(written[6], missing);
}

TEST_F(MappingStoreTest, AnEmptyListStaysEmptyAndOtherSchemaVersionsAreOnlyReported) {
    writeDocument({}, 7);
    auto before = readFile(file);
    auto store = open();
    EXPECT_TRUE(store->mappings().get().empty());
    EXPECT_EQ(coreLog(), (std::vector<std::string>{"Loaded 0 mappings (schema v7)"}));
    EXPECT_EQ(readFile(file), before);
    EXPECT_TRUE(diagnostics->contents().empty());
    store->add(hotkeyMapping(1));
    EXPECT_EQ(onDisk()["schemaVersion"], 1);
}

// ---- Persist ----

TEST_F(MappingStoreTest, EnginesHearOfAChangeBeforeTheFileIsWritten) {
    auto store = open();
    std::vector<std::vector<std::string>> told;
    std::vector<std::size_t> onDiskWhenTold;
    store->onChange = [&](const std::vector<Mapping>& mappings) {
        told.push_back(names(mappings));
        onDiskWhenTold.push_back(onDisk()["mappings"].size());
    };
    store->add(hotkeyMapping(1));
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0], (std::vector<std::string>{"seed one", "seed two", "m1"}));
    EXPECT_EQ(onDiskWhenTold[0], 2u) << "the file still held the old list";
    EXPECT_EQ(onDisk()["mappings"].size(), 3u);

    fs::remove(file);
    store->onChange = [&](const std::vector<Mapping>& mappings) { told.push_back(names(mappings)); };
    store->publishCurrent();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[1], told[0]);
    EXPECT_FALSE(fs::exists(file)) << "publishing writes nothing";
}

TEST_F(MappingStoreTest, ASaveThatFailsIsLoggedNotedAndKeptInMemory) {
    auto store = open();
    std::size_t told = 0;
    store->onChange = [&](const std::vector<Mapping>&) { ++told; };
    auto good = readFile(file);

    // A folder in the way of the file: the rename fails, whoever runs the test.
    fs::remove(file);
    fs::create_directories(file / "blocker");
    LogCapture capture;
    store->add(hotkeyMapping(1));
    EXPECT_EQ(told, 1u) << "engines are told even when the disk fails";
    EXPECT_EQ(store->mappings().get().size(), 3u);
    EXPECT_EQ(capture.messages("core"),
              (std::vector<std::string>{"Could not save mappings: could not replace “mappings.json”: Is a directory"}));
    EXPECT_NE(diagnostics->contents().find("[mappings] could not save: could not replace “mappings.json”: Is a directory\n"),
              std::string::npos);
    EXPECT_EQ(filesIn(support), (std::vector<fs::path>{"mappings.json"})) << "no temporary file is left behind";
    EXPECT_FALSE(store->replaceAll({hotkeyMapping(9)}));

    // Once the way is clear the next change writes everything.
    fs::remove_all(file);
    store->add(hotkeyMapping(2));
    EXPECT_EQ(names(MappingDocument::fromJSON(onDisk()).mappings), (std::vector<std::string>{"m9", "m2"}));
}

TEST_F(MappingStoreTest, AFolderThatCannotBeMadeFailsTheSave) {
    writeFile(dir / "plain", "a file, not a folder");
    file = dir / "plain" / "sub" / "mappings.json";
    LogCapture capture;
    auto store = open();
    EXPECT_EQ(store->mappings().get().size(), 2u);
    auto lines = capture.messages("core");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].rfind("Could not save mappings: could not create the folder “" + (dir / "plain" / "sub").string() +
                                 "”: ",
                             0),
              0u)
        << lines[1];
    EXPECT_EQ(readFile(dir / "plain"), "a file, not a folder");
}

TEST_F(MappingStoreTest, AnUnwritableFolderKeepsTheLastGoodFile) {
    int status = runUnprivileged(dir.path(), [&] {
        auto store = open();
        fs::permissions(support, fs::perms::owner_read | fs::perms::owner_exec);
        store->add(hotkeyMapping(1));
        if (store->mappings().get().size() != 3) return 1;
        return diagnostics->contents().find(
                   "[mappings] could not save: could not create a temporary file for “mappings.json”") ==
                       std::string::npos
                   ? 2
                   : 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(names(MappingDocument::fromJSON(onDisk()).mappings), (std::vector<std::string>{"seed one", "seed two"}));
}

TEST_F(MappingStoreTest, ReplacingKeepsTheFilesPermissions) {
    auto store = open();
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    store->add(hotkeyMapping(1));
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
}

// ---- Changes ----

TEST_F(MappingStoreTest, AddUpdateAndSetEnabled) {
    writeDocument({});
    auto store = open();
    store->add(hotkeyMapping(1));
    store->add(hotkeyMapping(2));
    auto changed = hotkeyMapping(2);
    changed.name = "renamed";
    changed.action = ActionSpec::showNotepad();
    store->update(changed);
    EXPECT_EQ(store->mappings().get()[1], changed);

    int told = 0;
    store->onChange = [&](const std::vector<Mapping>&) { ++told; };
    store->update(hotkeyMapping(99));
    store->setEnabled(false, idNumber(99));
    EXPECT_EQ(told, 0) << "an unknown id changes nothing";

    store->setEnabled(false, idNumber(1));
    EXPECT_FALSE(store->mappings().get()[0].isEnabled);
    EXPECT_EQ(MappingDocument::fromJSON(onDisk()).mappings, store->mappings().get());
    EXPECT_EQ(told, 1);
}

TEST_F(MappingStoreTest, UndoPutsRemovedMappingsBackWhereTheyWere) {
    writeDocument({});
    auto store = open();
    for (int i = 0; i < 5; ++i) store->add(hotkeyMapping(i));
    std::vector<std::vector<std::string>> removedSeen;
    auto observation = store->lastRemoved().observe([&](const std::vector<Mapping>& m) { removedSeen.push_back(names(m)); });

    store->remove({idNumber(3), idNumber(1), idNumber(42)});
    EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"m0", "m2", "m4"}));
    EXPECT_EQ(names(store->lastRemoved().get()), (std::vector<std::string>{"m1", "m3"})) << "index order";
    EXPECT_EQ(store->removedIndices(), (std::vector<std::size_t>{1, 3}));
    EXPECT_EQ(onDisk()["mappings"].size(), 3u);

    auto restored = store->undoRemove();
    EXPECT_EQ(names(restored), (std::vector<std::string>{"m1", "m3"}));
    EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"m0", "m1", "m2", "m3", "m4"}));
    EXPECT_TRUE(store->lastRemoved().get().empty());
    EXPECT_TRUE(store->removedIndices().empty());
    EXPECT_EQ(onDisk()["mappings"].size(), 5u);
    EXPECT_TRUE(store->undoRemove().empty()) << "one undo step";
    EXPECT_EQ(removedSeen, (std::vector<std::vector<std::string>>{{"m1", "m3"}, {}}));

    // When something else has meanwhile shortened the list, what does not fit goes at the end.
    store->remove({idNumber(4), idNumber(3)});
    store->mappings().set({hotkeyMapping(0)});
    store->undoRemove();
    EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"m0", "m3", "m4"}));
}

TEST_F(MappingStoreTest, RemovingNothingKeepsTheUndoData) {
    writeDocument({});
    auto store = open();
    for (int i = 0; i < 3; ++i) store->add(hotkeyMapping(i));
    store->remove({idNumber(0)});
    int told = 0;
    store->onChange = [&](const std::vector<Mapping>&) { ++told; };
    store->remove({idNumber(0), idNumber(77)});
    store->remove({});
    EXPECT_EQ(told, 0);
    EXPECT_EQ(names(store->lastRemoved().get()), (std::vector<std::string>{"m0"}));
    // A second real delete replaces the undo data.
    store->remove({idNumber(2)});
    EXPECT_EQ(names(store->lastRemoved().get()), (std::vector<std::string>{"m2"}));
    EXPECT_EQ(store->removedIndices(), (std::vector<std::size_t>{1}));
    store->clearRemovedBuffer();
    EXPECT_TRUE(store->undoRemove().empty());
    EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"m1"}));
}

TEST_F(MappingStoreTest, ConflictsAreEnabledMappingsWithAnEqualTriggerInFileOrder) {
    writeDocument({});
    auto store = open();
    auto mouse = [](int n, std::optional<GestureScope> scope) {
        return Mapping{idNumber(n), "m" + std::to_string(n),
                       Trigger::mouseGesture({{GestureDirection::up, GestureDirection::left}}),
                       ActionSpec::toggleAwake(), true, std::move(scope)};
    };
    store->add(hotkeyMapping(1, 40));
    store->add(hotkeyMapping(2, 40, false));
    store->add(hotkeyMapping(3, 41));
    store->add(hotkeyMapping(4, 40));
    store->add(mouse(5, GestureScope::app("com.apple.Safari", "Safari")));
    store->add(mouse(6, std::nullopt));
    store->add(mouse(7, GestureScope::everywhere()));

    auto trigger = Trigger::hotkey({40, Modifiers(12)});
    EXPECT_EQ(names(store->conflicts(trigger)), (std::vector<std::string>{"m1", "m4"}));
    EXPECT_EQ(names(store->conflicts(trigger, idNumber(1))), (std::vector<std::string>{"m4"}));
    EXPECT_TRUE(store->conflicts(Trigger::hotkey({40, Modifiers(8)})).empty());
    EXPECT_EQ(names(store->conflicts(mouse(0, std::nullopt).trigger, idNumber(6))),
              (std::vector<std::string>{"m5", "m7"}))
        << "scopes do not take part";
}

TEST_F(MappingStoreTest, ReplaceAllDropsUnreadableEntriesAndTheUndoData) {
    writeDocument({hotkeyMapping(1).toJSON().dump(), unknownRecord, hotkeyMapping(2).toJSON().dump()});
    auto store = open();
    store->remove({idNumber(1)});
    auto same = store->mappings().get();
    EXPECT_TRUE(store->replaceAll(same));
    EXPECT_TRUE(store->lastRemoved().get().empty());
    EXPECT_TRUE(store->removedIndices().empty());
    EXPECT_TRUE(store->unreadable().empty());
    EXPECT_EQ(onDisk()["mappings"].size(), 1u);
    EXPECT_TRUE(store->undoRemove().empty());
}

TEST_F(MappingStoreTest, RestoreExamplesAddsOnlyMissingOnes) {
    auto store = open();
    auto before = readFile(file);
    int told = 0;
    store->onChange = [&](const std::vector<Mapping>&) { ++told; };
    EXPECT_EQ(store->restoreExamples(), 0);
    EXPECT_EQ(told, 0);
    EXPECT_EQ(readFile(file), before) << "nothing to restore touches nothing";

    // An edited example keeps its id and is not duplicated; a deleted one comes back at the end.
    auto edited = store->mappings().get()[1];
    edited.name = "my swipe";
    store->update(edited);
    store->remove({store->mappings().get()[0].id});
    store->add(hotkeyMapping(1));
    EXPECT_EQ(store->restoreExamples(), 1);
    EXPECT_EQ(names(store->mappings().get()), (std::vector<std::string>{"my swipe", "m1", "seed one"}));
    EXPECT_EQ(names(MappingDocument::fromJSON(onDisk()).mappings), names(store->mappings().get()));
}

TEST_F(MappingStoreTest, ALinkedFileIsSavedWhereItPoints) {
    writeDocument({hotkeyMapping(1).toJSON().dump()});
    fs::create_directories(dir / "dotfiles");
    fs::rename(file, dir / "dotfiles" / "tavrick-mappings.json");
    fs::create_symlink(dir / "dotfiles" / "tavrick-mappings.json", file);
    auto store = open();
    store->add(hotkeyMapping(2));
    EXPECT_TRUE(fs::is_symlink(file));
    EXPECT_EQ(json::parse(readFile(dir / "dotfiles" / "tavrick-mappings.json"))["mappings"].size(), 2u);
}

TEST_F(MappingStoreTest, DefaultPathsFollowTheSupportDirectory) {
    tavrick::testing::installTestPlatform(dir.path());
    EXPECT_EQ(MappingStore::supportDirectory(), dir / "data" / "com.orvell.tavrick");
    EXPECT_EQ(MappingStore::defaultFileURL(), dir / "data" / "com.orvell.tavrick" / "mappings.json");
    // Leave the process as it was: nothing installed, and a bundle that knows nothing.
    Directories::install(nullptr);
    Bundle::setMain(nullptr);
}
