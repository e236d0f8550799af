#include "DevToolsKit/DiskReclaim.h"

#include "CoreKit/ManualScheduler.h"
#include "Support/TempDir.h"
#include "Support/Unprivileged.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace tavrick {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::writeFile;

class Reclaim : public ::testing::Test {
protected:
    TempDir temp;
    fs::path home = temp / "home";
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(temp / "logs", scheduler);
    void SetUp() override { fs::create_directories(home); }
    std::string notes() {
        scheduler.runUntilIdle();
        return log->contents();
    }
    const Reclaimable& row(const std::string& id) {
        for (const auto& r : Reclaimable::all()) {
            if (r.id == id) return r;
        }
        throw std::runtime_error("no row " + id);
    }
    void makeExecutable(const fs::path& path, const std::string& script) {
        writeFile(path, "#!/bin/sh\n" + script + "\n");
        fs::permissions(path, fs::perms::owner_all);
    }
};

TEST_F(Reclaim, OnlyRowsOfTheAllowListStrictlyUnderHomeWithoutLinksAreDeletable) {
    fs::create_directories(temp / "elsewhere");
    fs::create_directories(home / ".cache");
    fs::create_symlink(temp / "elsewhere", home / ".cache" / "pip");
    fs::create_symlink(temp / "elsewhere", home / ".gradle");
    const std::pair<fs::path, bool> cases[] = {
        {home / ".cache/go-build", true},
        {home / ".cache/go-build/", true},
        {home / ".cache/uv/../go-build", true},
        {home / ".cargo/registry/cache", true},
        {home, false},
        {home / ".cache", false},
        {home / ".cache/other", false},
        {home / ".cache/go-build/sub", false},
        {temp / "elsewhere", false},
        {"/", false},
        {"relative/.cache/go-build", false},
        {home / ".cache/pip", false},           // a link out
        {home / ".gradle/caches", false},       // a link on the way
    };
    for (const auto& [url, deletable] : cases) EXPECT_EQ(Reclaimable::isDeletable(url, home), deletable) << url;
    EXPECT_FALSE(Reclaimable::isDeletable(home / ".cache/go-build", ""));
    for (const auto& r : Reclaimable::all()) EXPECT_TRUE(r.emptiesContentsOnly) << r.id;
}

TEST_F(Reclaim, SizeCountsAllocatedBlocksOnceAndNeverFollowsALink) {
    fs::path cache = home / ".cache/go-build";
    fs::create_directories(cache / "a/b");
    writeFile(cache / "a/one", std::string(10000, 'x'));
    writeFile(cache / "a/b/two", std::string(5000, 'y'));
    fs::create_hard_link(cache / "a/one", cache / "a/b/same");
    writeFile(temp / "big", std::string(1 << 20, 'z'));
    fs::create_symlink(temp / "big", cache / "link");
    fs::create_symlink(temp.path(), cache / "dirlink");
    std::string du;
    if (FILE* pipe = ::popen(("du -sxB1 '" + cache.string() + "'").c_str(), "r")) {
        char buffer[256] = {};
        if (std::fgets(buffer, sizeof buffer, pipe)) du = buffer;
        ::pclose(pipe);
    }
    ASSERT_FALSE(du.empty());
    EXPECT_EQ(DiskReclaim::size(cache), std::stoull(du));
    EXPECT_LT(*DiskReclaim::size(cache), 1u << 20);
    EXPECT_EQ(DiskReclaim::size(home / "absent"), std::nullopt);
    struct stat info {};
    ::lstat((cache / "link").c_str(), &info);
    EXPECT_EQ(DiskReclaim::size(cache / "link"), static_cast<std::uint64_t>(info.st_blocks) * 512u);
}

TEST_F(Reclaim, EmptyKeepsTheFolderRemovesItsContentsAndRefusesEverythingElse) {
    fs::path cache = home / ".cache/go-build";
    fs::create_directories(cache / "deep/er");
    writeFile(cache / "deep/er/file", std::string(9000, 'x'));
    writeFile(cache / ".hidden", "h");
    writeFile(temp / "outside", "keep");
    fs::create_symlink(temp / "outside", cache / "link-out");
    auto freed = DiskReclaim::empty(row("go-build"), home, *log);
    ASSERT_TRUE(freed.has_value());
    EXPECT_GE(*freed, 9000u);
    EXPECT_TRUE(fs::is_directory(cache));
    EXPECT_TRUE(fs::is_empty(cache));
    EXPECT_EQ(testing::readFile(temp / "outside"), "keep");
    EXPECT_NE(notes().find("emptied Go build cache, freed " + std::to_string(*freed) + " bytes"), std::string::npos);

    EXPECT_EQ(DiskReclaim::empty(row("go-build"), home, *log), 0u);

    fs::create_directories(temp / "elsewhere");
    writeFile(temp / "elsewhere/precious", "p");
    fs::create_directories(home / ".cache");
    fs::create_symlink(temp / "elsewhere", home / ".cache/pip");
    EXPECT_EQ(DiskReclaim::empty(row("pip"), home, *log), std::nullopt);
    EXPECT_TRUE(fs::exists(temp / "elsewhere/precious"));
    EXPECT_NE(notes().find("refused to empty " + (home / ".cache/pip").string()), std::string::npos);
    Reclaimable forged{"x", "Home", "~/Documents", "", true};
    fs::create_directories(home / "Documents");
    writeFile(home / "Documents/thesis", "t");
    EXPECT_EQ(DiskReclaim::empty(forged, home, *log), std::nullopt);
    EXPECT_TRUE(fs::exists(home / "Documents/thesis"));
}

TEST_F(Reclaim, AFileThatCannotGoIsToldAndTheRestGoes) {
    fs::path cache = home / ".cache/uv";
    fs::create_directories(cache / "locked");
    writeFile(cache / "locked/stays", "s");
    writeFile(cache / "goes", "g");
    // As an ordinary user, so that a folder without write permission holds on to its file even
    // when the tests run as root.
    int status = testing::runUnprivileged(temp.path(), [&] {
        fs::permissions(cache / "locked", fs::perms::owner_read | fs::perms::owner_exec);
        if (!DiskReclaim::empty(row("uv"), home, *log)) return 1;
        fs::permissions(cache / "locked", fs::perms::owner_all);
        if (fs::exists(cache / "goes")) return 2;
        if (!fs::exists(cache / "locked/stays")) return 3;
        if (notes().find("could not remove " + (cache / "locked/stays").string()) == std::string::npos) return 4;
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Reclaim, ToolCleanupsRunAsRealChildrenAndReportInWords) {
    fs::path bin = temp / "bin";
    fs::create_directories(bin);
    makeExecutable(bin / "brew", "echo \"pruned $*\"");
    makeExecutable(bin / "npm", "exit 0");
    makeExecutable(bin / "go", "echo broken >&2; exit 3");
    makeExecutable(bin / "pod", "exec sleep 30");
    auto lookup = lookupInFolders({bin});
    std::vector<std::string> offered;
    for (const auto& c : ToolCleanup::available(lookup)) offered.push_back(c.id);
    EXPECT_EQ(offered, (std::vector<std::string>{"brew", "npm", "go-modcache", "cocoapods"}));

    const auto& rows = ToolCleanup::all();
    EXPECT_EQ(rows[0].commandLine(), "brew cleanup --prune=all -s");
    struct Case {
        std::size_t row;
        double timeout;
        std::string answer;
        std::string note;
    } cases[] = {
        {0, 10, "pruned cleanup --prune=all -s\n", "brew finished with status 0"},
        {1, 10, "Done. npm reported nothing.", "running npm cache clean --force"},
        {2, 10, "go exited with status 3 first.\nbroken\n", "go finished with status 3"},
        {4, 0.3, "Stopped after 0.3s. It may have done part of the work.", "pod stopped after 0.3s"},
        {3, 10, "xcrun is not on this Mac.", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ToolRunner::run(rows[c.row], c.timeout, lookup, *log), c.answer) << rows[c.row].id;
        if (!c.note.empty()) {
            EXPECT_NE(notes().find(c.note), std::string::npos) << c.note;
        }
    }
    makeExecutable(bin / "brew", "");
    fs::permissions(bin / "brew", fs::perms::owner_read);
    auto always = [&](const std::string&) -> std::optional<fs::path> { return bin / "brew"; };
    if (::geteuid() != 0) {
        EXPECT_EQ(ToolRunner::run(rows[0], 5, always, *log), "Could not run brew");
    }
    EXPECT_EQ(ToolRunner::fallbackPath(home).back(), home / "go/bin");
}

TEST(DiskReclaimParsing, SnapshotsAndBootedSimulators) {
    auto summary = LocalSnapshots::parse(
        "Snapshots for disk /:\ncom.apple.TimeMachine.2024-03-02-101112.local\r\n"
        "com.apple.TimeMachine.2024-01-15-080000.local\nother.thing\n");
    EXPECT_EQ(summary, (LocalSnapshots::Summary{2, "2024-01-15-080000"}));
    EXPECT_EQ(LocalSnapshots::parse(""), LocalSnapshots::Summary{});
    EXPECT_EQ(LocalSnapshots::read(1, lookupInFolders({})), std::nullopt);
    const std::pair<const char*, int> cases[] = {
        {R"({"devices":{"iOS 17":[{"state":"Booted"},{"state":"Shutdown"}],"watchOS":[{"state":"Booted"}]}})", 2},
        {R"({"devices":{"iOS 17":[{"state":"booted"}]}})", 0},
        {R"({"devices":[]})", 0},
        {"not json", 0},
        {R"({"devices":{"x":"y","z":[1,{"state":"Booted"}]}})", 1},
    };
    for (auto [json, booted] : cases) EXPECT_EQ(SimulatorDevices::countBooted(json), booted) << json;
}

} // namespace
} // namespace tavrick
