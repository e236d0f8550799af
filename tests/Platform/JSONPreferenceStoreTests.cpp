#include "Platform/Linux/JSONPreferenceStore.h"

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/ManualScheduler.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"
#include "Support/Unprivileged.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <thread>

namespace tavrick {
namespace {

namespace fs = std::filesystem;
using tavrick::testing::LogCapture;
using tavrick::testing::readFile;
using tavrick::testing::runUnprivileged;
using tavrick::testing::TempDir;
using tavrick::testing::writeFile;
using Array = PreferenceValue::Array;
using Dictionary = PreferenceValue::Dictionary;

std::vector<std::string> namesIn(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

ino_t inodeOf(const fs::path& path) {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info.st_ino;
}

class JSONPreferenceStoreTest : public ::testing::Test {
protected:
    fs::path file() const { return directory.path() / "com.example.domain" / "defaults.json"; }

    TempDir directory;
};

TEST_F(JSONPreferenceStoreTest, AMissingFileIsAnEmptyDomainAndReadingCreatesNothing) {
    JSONPreferenceStore store(file());
    EXPECT_FALSE(store.object("anything"));
    EXPECT_TRUE(store.allKeys().empty());
    EXPECT_TRUE(store.remove("anything"));
    EXPECT_FALSE(fs::exists(file().parent_path()));
}

TEST_F(JSONPreferenceStoreTest, EveryKindRoundTripsAndStaysDistinct) {
    PreferenceValue::Data everyByte;
    for (int i = 0; i < 256; ++i) everyByte.push_back(static_cast<std::uint8_t>(i));
    Dictionary values{
        {"true", true},
        {"false", false},
        {"one", 1},
        {"oneReal", 1.0},
        {"YES", "YES"},
        {"yesData", PreferenceValue::data("YES")},
        {"emptyText", ""},
        {"emptyData", PreferenceValue::Data{}},
        {"oneByte", PreferenceValue::data("a")},
        {"twoBytes", PreferenceValue::data("ab")},
        {"everyByte", everyByte},
        {"max", std::numeric_limits<std::int64_t>::max()},
        {"min", std::numeric_limits<std::int64_t>::min()},
        {"tenth", 0.1},
        {"negativeZero", -0.0},
        {"huge", 1e300},
        {"tiny", 5e-324},
        {"unicode", "Größe → ⌘ “quoted” \n\t\\"},
        {"array", Array{1, 1.0, "1", true, Array{}, Dictionary{}}},
        {"nested", Dictionary{{"inner", Dictionary{{"deep", Array{PreferenceValue::data(std::string_view("\x00\xff", 2))}}}}}},
        {"looksLikeData", Dictionary{{"$data", "aGk="}}},
        {"looksLikeDictionary", Dictionary{{"$dictionary", Dictionary{{"a", 1}}}}},
        {"dataAndMore", Dictionary{{"$data", "aGk="}, {"other", 2}}},
    };
    {
        JSONPreferenceStore writer(file());
        for (const auto& [key, value] : values) EXPECT_TRUE(writer.set(key, value)) << key;
    }
    JSONPreferenceStore reader(file());
    EXPECT_EQ(reader.allKeys().size(), values.size());
    for (const auto& [key, value] : values) {
        auto read = reader.object(key);
        ASSERT_TRUE(read) << key;
        EXPECT_EQ(read->kind(), value.kind()) << key;
        EXPECT_EQ(*read, value) << key;
    }
    EXPECT_TRUE(std::signbit(*reader.object("negativeZero")->asReal()));
}

TEST_F(JSONPreferenceStoreTest, TheFileIsPrettySortedAndTyped) {
    JSONPreferenceStore store(file());
    store.set("zebra", "YES");
    store.set("apple", 1);
    store.set("mango", 1.0);
    store.set("kiwi", true);
    store.set("banana", PreferenceValue::data("hi"));
    EXPECT_EQ(readFile(file()), R"({
  "apple": 1,
  "banana": {
    "$data": "aGk="
  },
  "kiwi": true,
  "mango": 1.0,
  "zebra": "YES"
}
)");
    // The file holds nothing secret, but it is the user's: private to them.
    struct stat info {};
    ASSERT_EQ(::stat(file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(JSONPreferenceStoreTest, AHandWrittenFileIsReadByItsJSONTypes) {
    writeFile(file(), R"({
      "whole": 50, "wholeReal": 50.0, "exponent": 1e3, "bool": true, "text": "YES",
      "data": {"$data": "aGk="}, "notBase64": {"$data": "!!"}, "escaped": {"$dictionary": {"$data": "aGk="}},
      "nothing": null, "withNulls": [1, null, 2], "huge": 18446744073709551615
    })");
    JSONPreferenceStore store(file());
    EXPECT_EQ(store.object("whole"), PreferenceValue(50));
    EXPECT_EQ(store.object("wholeReal"), PreferenceValue(50.0));
    EXPECT_EQ(store.integer("wholeReal"), 50);
    EXPECT_EQ(store.object("exponent"), PreferenceValue(1000.0));
    EXPECT_EQ(store.object("bool"), PreferenceValue(true));
    EXPECT_EQ(store.object("text"), PreferenceValue("YES"));
    EXPECT_EQ(store.object("data"), PreferenceValue::data("hi"));
    EXPECT_EQ(store.object("notBase64"), PreferenceValue(Dictionary{{"$data", "!!"}}));
    EXPECT_EQ(store.object("escaped"), PreferenceValue(Dictionary{{"$data", "aGk="}}));
    EXPECT_FALSE(store.object("nothing"));
    EXPECT_EQ(store.object("withNulls"), PreferenceValue(Array{1, 2}));
    EXPECT_EQ(store.object("huge")->kind(), PreferenceValue::Kind::real);
    // Nothing was moved aside: only values without a place were skipped.
    EXPECT_EQ(namesIn(file().parent_path()), std::vector<std::string>{"defaults.json"});
}

TEST_F(JSONPreferenceStoreTest, TwoStoresOnOneFileSeeEachOthersWritesAndKeepThem) {
    JSONPreferenceStore first(file());
    JSONPreferenceStore second(file());
    EXPECT_TRUE(first.set("a", 1));
    EXPECT_EQ(second.integer("a"), 1);
    EXPECT_TRUE(second.set("b", 2));
    EXPECT_EQ(first.integer("b"), 2);
    EXPECT_TRUE(first.set("c", 3));
    EXPECT_EQ(second.allKeys(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(second.remove("a"));
    EXPECT_FALSE(first.object("a"));
    EXPECT_EQ(first.integer("c"), 3);
}

TEST_F(JSONPreferenceStoreTest, AnEditInPlaceRightAfterAWriteIsSeen) {
    // Same size and same inode: only the time stamps and the bytes tell the edit apart.
    JSONPreferenceStore store(file());
    for (int round = 1; round <= 8; ++round) {
        ASSERT_TRUE(store.set("k", round));
        std::string own = readFile(file());
        std::string edited = "{\n  \"k\": " + std::to_string(round + 1) + "\n}\n";
        ASSERT_EQ(own.size(), edited.size());
        writeFile(file(), edited);
        EXPECT_EQ(store.integer("k"), round + 1) << round;
    }
}

TEST_F(JSONPreferenceStoreTest, AnotherProcessEditIsSeenOnTheNextRead) {
    JSONPreferenceStore store(file());
    ASSERT_TRUE(store.set("appearance", "dark"));
    ASSERT_EQ(store.string("appearance"), "dark");
    std::string command = "printf '{\"appearance\": \"light\", \"extra\": 7}' > '" + file().string() +
                          ".edit' && mv '" + file().string() + ".edit' '" + file().string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_EQ(store.string("appearance"), "light");
    EXPECT_EQ(store.integer("extra"), 7);
    // And the next write keeps what the other process added.
    ASSERT_TRUE(store.set("mine", true));
    JSONPreferenceStore fresh(file());
    EXPECT_EQ(fresh.integer("extra"), 7);
    EXPECT_EQ(fresh.boolean("mine"), true);
}

TEST_F(JSONPreferenceStoreTest, ADamagedFileIsMovedAsideAndNeverDeleted) {
    std::vector<std::pair<std::string, std::string>> cases{
        {"not JSON", "not json {"},
        {"cut short", "{\"appearance\": \"dark\""},
        {"an array", "[1, 2]"},
        {"a number", "42"},
        {"a string", "\"text\""},
        {"empty", ""},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        TempDir root;
        fs::path path = root.path() / "domain" / "defaults.json";
        writeFile(path, text);
        ManualScheduler scheduler;
        auto log = DiagnosticLog::make(root.path() / "logs", scheduler);
        LogCapture capture;

        JSONPreferenceStore store(path, log.get());
        EXPECT_TRUE(store.allKeys().empty());
        auto names = namesIn(path.parent_path());
        ASSERT_EQ(names.size(), 1u);
        EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(defaults\.json\.corrupt-[0-9]+)"))) << names[0];
        EXPECT_EQ(readFile(path.parent_path() / names[0]), text);
        ASSERT_TRUE(store.movedAsideFile());
        EXPECT_EQ(store.movedAsideFile()->filename(), names[0]);
        EXPECT_TRUE(capture.has(LogLevel::error, "moved it aside to " + names[0]));
        EXPECT_NE(log->contents().find("[settings] the settings file could not be read"), std::string::npos);

        // The domain goes on from its defaults, and the damaged file stays beside it.
        EXPECT_TRUE(store.set("appearance", "light"));
        EXPECT_EQ(readFile(path.parent_path() / names[0]), text);
        EXPECT_EQ(JSONPreferenceStore(path).string("appearance"), "light");
    }
}

TEST_F(JSONPreferenceStoreTest, DamageWrittenLaterIsMovedAsideOnTheNextReadAndEachCopyIsKept) {
    JSONPreferenceStore store(file());
    ASSERT_TRUE(store.set("a", 1));
    writeFile(file(), "first damage");
    EXPECT_FALSE(store.object("a"));
    writeFile(file(), "second damage");
    JSONPreferenceStore second(file());
    auto names = namesIn(file().parent_path());
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(names[0].rfind("defaults.json.corrupt-", 0), 0u);
    std::set<std::string> contents{readFile(file().parent_path() / names[0]), readFile(file().parent_path() / names[1])};
    EXPECT_EQ(contents, (std::set<std::string>{"first damage", "second damage"}));
}

TEST_F(JSONPreferenceStoreTest, AnUnwritableFolderFailsTheWriteButKeepsTheValue) {
    // A plain file where the folder should be stops even a privileged user from writing.
    writeFile(directory.path() / "blocker", "keep me");
    fs::path path = directory.path() / "blocker" / "defaults.json";
    LogCapture capture;
    JSONPreferenceStore store(path);
    EXPECT_FALSE(store.set("appearance", "dark"));
    EXPECT_TRUE(capture.has(LogLevel::error, "appearance"));
    EXPECT_EQ(store.string("appearance"), "dark");
    EXPECT_FALSE(store.remove("appearance"));
    EXPECT_FALSE(store.object("appearance"));
    EXPECT_EQ(readFile(directory.path() / "blocker"), "keep me");
}

TEST_F(JSONPreferenceStoreTest, AFolderWithoutWritePermissionFailsTheWrite) {
    int status = runUnprivileged(directory.path(), [&] {
        JSONPreferenceStore store(file());
        if (!store.set("a", 1)) return 1;
        fs::permissions(file().parent_path(), fs::perms::owner_read | fs::perms::owner_exec);
        LogCapture capture;
        if (store.set("b", 2) || !capture.has(LogLevel::error, "Could not save the settings")) return 2;
        if (store.integer("b") != 2) return 3;
        fs::permissions(file().parent_path(), fs::perms::owner_all);
        if (JSONPreferenceStore(file()).allKeys() != std::vector<std::string>{"a"}) return 4;
        // The next successful write carries the value that could not be saved before.
        return store.set("c", 3) ? 0 : 5;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(JSONPreferenceStore(file()).allKeys(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(JSONPreferenceStoreTest, AFileThatCannotBeReadIsNeverWrittenOver) {
    // A folder in the file's place cannot be read, by anyone.
    fs::create_directories(file());
    writeFile(file() / "inside", "precious");
    LogCapture capture;
    JSONPreferenceStore store(file());
    EXPECT_TRUE(capture.has(LogLevel::error, "Could not read the settings file"));
    EXPECT_FALSE(store.set("a", 1));
    EXPECT_TRUE(capture.has(LogLevel::error, "writing would replace what it holds"));
    EXPECT_EQ(readFile(file() / "inside"), "precious");
    EXPECT_EQ(namesIn(file().parent_path()), std::vector<std::string>{"defaults.json"});
}

TEST_F(JSONPreferenceStoreTest, ValuesJSONCannotCarryAreRefusedWithoutHarm) {
    JSONPreferenceStore store(file());
    ASSERT_TRUE(store.set("kept", 1));
    std::string before = readFile(file());
    LogCapture capture;
    for (PreferenceValue value : {PreferenceValue(std::nan("")), PreferenceValue(INFINITY),
                                  PreferenceValue(std::string("\xff\xfe")), PreferenceValue(Array{-INFINITY})}) {
        EXPECT_FALSE(store.set("bad", value)) << value.summary();
        EXPECT_FALSE(store.object("bad"));
    }
    EXPECT_TRUE(capture.has(LogLevel::error, "Did not store the setting bad"));
    EXPECT_EQ(readFile(file()), before);
    EXPECT_TRUE(store.set("fine", 2));
}

TEST_F(JSONPreferenceStoreTest, AWriteThatChangesNothingLeavesTheFileAlone) {
    JSONPreferenceStore store(file());
    ASSERT_TRUE(store.set("k", 1));
    ino_t written = inodeOf(file());
    EXPECT_TRUE(store.set("k", 1));
    EXPECT_TRUE(store.remove("absent"));
    EXPECT_EQ(inodeOf(file()), written);
    // An equal-looking value of another type is a change.
    EXPECT_TRUE(store.set("k", 1.0));
    EXPECT_NE(inodeOf(file()), written);
    EXPECT_EQ(namesIn(file().parent_path()), std::vector<std::string>{"defaults.json"});
}

TEST_F(JSONPreferenceStoreTest, ConcurrentWritersThroughSeparateStoresLoseNoKey) {
    constexpr int perWriter = 40;
    auto writer = [&](const std::string& prefix) {
        JSONPreferenceStore store(file());
        for (int i = 0; i < perWriter; ++i) store.set(prefix + std::to_string(i), i);
    };
    fs::create_directories(file().parent_path());
    std::thread a(writer, "a");
    std::thread b(writer, "b");
    a.join();
    b.join();
    EXPECT_EQ(JSONPreferenceStore(file()).allKeys().size(), 2u * perWriter);
}

TEST(JSONPreferenceStorePathTest, TheApplicationDomainLivesInTheConfigFolder) {
    TempDir root;
    tavrick::testing::installTestPlatform(root.path());
    EXPECT_EQ(JSONPreferenceStore::applicationFile(), root.path() / "config" / "com.orvell.tavrick" / "defaults.json");
    EXPECT_EQ(JSONPreferenceStore::fileForDomain("com.apple.dock"),
              root.path() / "config" / "com.apple.dock" / "defaults.json");
}

} // namespace
} // namespace tavrick
