#include "NetKit/SeenFile.h"
#include "NetFakes.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {
struct SeenFileTest : LoggedTest {
    SeenFile file{root / "network-seen.json", log.get(), [] { return 1780000000.7; }};

    std::vector<std::string> entries() {
        std::vector<std::string> names;
        for (auto& e : std::filesystem::directory_iterator(root.path())) {
            if (e.is_regular_file()) names.push_back(e.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};
} // namespace

TEST_F(SeenFileTest, NoFileIsAnEmptyStoreAndMovesNothing) {
    auto store = file.load();
    EXPECT_EQ(store.appCount(), 0u);
    EXPECT_TRUE(entries().empty());
    EXPECT_TRUE(notes().empty());
}

TEST_F(SeenFileTest, SaveThenLoadGivesTheSameStoreAndTheFileIsPrivate) {
    SeenStore store;
    store.record("example.com", AppKey{"/usr/bin/curl", "curl"}, 1700000000);
    store.record("1.1.1.1", AppKey{"/opt/x", "x"}, 1700000001.5);
    ASSERT_TRUE(file.save(store));
    EXPECT_EQ(file.load(), store);
    // The file tells no host names.
    EXPECT_EQ(readFile(file.url).find("example.com"), std::string::npos);
    auto perms = std::filesystem::status(file.url).permissions();
    EXPECT_EQ(perms & std::filesystem::perms::all, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(SeenFileTest, AnUnreadableFileIsMovedAsideWithItsContentsAndTheReason) {
    const char* damaged[] = {
        "{\"version\": 1, \"apps\": {",   // truncated
        "\x89PNG garbage",                 // not JSON
        R"({"apps": {}})",                 // valid JSON without version
    };
    for (const char* text : damaged) {
        writeFile(file.url, text);
        auto store = file.load();
        EXPECT_EQ(store.appCount(), 0u);
        EXPECT_FALSE(std::filesystem::exists(file.url)) << text;
        auto names = entries();
        ASSERT_FALSE(names.empty());
        // The first move keeps the plain name; later ones in the same second get a suffix.
        EXPECT_EQ(names.front(), "network-seen.corrupt-1780000000");
        EXPECT_EQ(readFile(root / names.back()), text);
    }
    EXPECT_EQ(entries(), (std::vector<std::string>{"network-seen.corrupt-1780000000", "network-seen.corrupt-1780000000-2",
                                                   "network-seen.corrupt-1780000000-3"}));
    auto lines = notes();
    ASSERT_EQ(lines.size(), 3u);
    for (const auto& note : lines) EXPECT_TRUE(note.starts_with("[network] seen file unreadable, moved aside: ")) << note;
    EXPECT_NE(lines[2].find("version"), std::string::npos);
}

TEST_F(SeenFileTest, AFailedSaveIsLoggedAndLeavesTheOldFile) {
    SeenStore store;
    store.record("a", AppKey{"/x", ""}, 1);
    // A folder where the file should be: no user, root included, can replace it.
    std::filesystem::create_directories(file.url);
    writeFile(file.url / "keep", "mine");
    EXPECT_FALSE(file.save(store));
    EXPECT_EQ(readFile(file.url / "keep"), "mine");
    auto lines = notes();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("[network] could not save: ")) << lines[0];
}
