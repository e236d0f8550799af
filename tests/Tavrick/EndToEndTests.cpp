#include "Platform/Simulated/SimulatedSMC.h"
// These run the real program, as a user would, against a temporary home.
#include "Support/Process.h"
#include "Support/TempDir.h"
#include "ArtKit/Bitmap.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>
#include <tuple>

using namespace tavrick::testing;

namespace {

const std::string binary = TAVRICK_BINARY;

std::filesystem::path supportDir(const TempDir& root) {
    return root / "data/com.orvell.tavrick";
}

// The log is written in the background; give it a moment to reach the file.
bool waitForLog(const TempDir& root, const std::string& text, double seconds = 10) {
    for (double waited = 0; waited < seconds; waited += 0.1) {
        if (readFile(supportDir(root) / "tavrick.log").find(text) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

// Every file and folder under `root` with its size and modification time: equal snapshots mean
// nothing was created, removed or written.
std::vector<std::string> snapshot(const std::filesystem::path& root) {
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        std::string line = entry.path().string();
        if (entry.is_regular_file()) {
            line += " " + std::to_string(entry.file_size()) + " " +
                    std::to_string(entry.last_write_time().time_since_epoch().count());
        }
        entries.push_back(line);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::string ownName() {
    std::string name = readFile("/proc/self/comm");
    while (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
}

} // namespace

TEST(EndToEnd, TheReportReadsEverythingAndWritesNothing) {
    TempDir root;
    const auto environment = isolatedEnvironment(root.path());
    std::filesystem::create_directories(root / "home");
    const auto before = snapshot(root.path());
    auto result = runProcess({binary, "--diagnose"}, environment);
    EXPECT_EQ(result.status, 0) << result.output;
    // This test program started it, so the report warns that its permissions may be ours.
    const std::string me = ownName();
    const std::string head = "Tavrick diagnostics\n"
                             "⚠︎  Launched by " + me + " — the results below may reflect\n" +
                             me + "'s permissions, not Tavrick's own. For a true\n"
                             "   reading, launch Tavrick normally and check the Settings window.\n"
                             "bundle path      : ";
    EXPECT_EQ(result.output.rfind(head, 0), 0u) << result.output;
    std::size_t at = 0;
    for (const std::string line : {"\nbundle id        : com.orvell.tavrick\n", "\nversion          : ",
                                   "\nOpen at login    : not registered (off, and available to turn on)\n",
                                   "\nFan helper       : not registered (Boost installs it the first time it is chosen)\n",
                                   "\nAccessibility    : granted\n", "\nInput Monitoring : granted\n",
                                   "\n  listen-only    : granted\n", "\n  active (needed): granted\n",
                                   "\n  MTTouch size   : 96 (OK)\n",
                                   "\n  SMC layout     : 80 bytes, keyInfo @28, result @40, data32 @44, bytes @48 (OK)\n"}) {
        const auto found = result.output.find(line, at);
        EXPECT_NE(found, std::string::npos) << "missing or out of order: " << line << "\n" << result.output;
        if (found != std::string::npos) at = found;
    }
    EXPECT_EQ(result.output.find("→"), std::string::npos);
    EXPECT_EQ(snapshot(root.path()), before) << "the report created or changed a file";

    // A running session that holds no Accessibility: the report says so, ends with the advice,
    // and leaves the session's file as it was.
    const auto state = supportDir(root) / "session-state.json";
    writeFile(state, R"({"permissions": {"accessibility": "denied", "inputMonitoring": "notDetermined"}})");
    const auto withState = snapshot(root.path());
    auto refused = runProcess({binary, "--diagnose"}, environment);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("\nAccessibility    : denied\nInput Monitoring : unknown (never asked)\n"),
              std::string::npos)
        << refused.output;
    EXPECT_TRUE(refused.output.ends_with("  then add it again, or sign with a stable identity.\n")) << refused.output;
    EXPECT_EQ(snapshot(root.path()), withState);
}

TEST(EndToEnd, IconsAreWrittenAsPicturesAndAFolderThatCannotBeMadeIsSaid) {
    TempDir root;
    const auto environment = isolatedEnvironment(root.path());
    const auto folder = root / "icons/new";
    auto result = runProcess({binary, "--render-icons", folder.string()}, environment);
    EXPECT_EQ(result.status, 0) << result.output;
    const std::vector<std::pair<std::string, int>> expected = {
        {"icon_16x16.png", 16},   {"icon_16x16@2x.png", 32},   {"icon_32x32.png", 32},   {"icon_32x32@2x.png", 64},
        {"icon_128x128.png", 128}, {"icon_128x128@2x.png", 256}, {"icon_256x256.png", 256}, {"icon_256x256@2x.png", 512},
        {"icon_512x512.png", 512}, {"icon_512x512@2x.png", 1024},
    };
    std::string lines;
    for (const auto& [name, side] : expected) {
        auto picture = tavrick::Bitmap::fromPNG(readFile(folder / name));
        ASSERT_TRUE(picture) << name;
        EXPECT_EQ(picture->width, side) << name;
        EXPECT_EQ(picture->height, side) << name;
        lines += "wrote " + (folder / name).string() + "  " + std::to_string(side) + "×" + std::to_string(side) + "\n";
    }
    for (const auto& [name, w, h] : {std::tuple{"MenuBarGlyph.png", 18, 16}, std::tuple{"MenuBarGlyph@2x.png", 36, 32}}) {
        auto picture = tavrick::Bitmap::fromPNG(readFile(folder / name));
        ASSERT_TRUE(picture) << name;
        EXPECT_EQ(std::pair(picture->width, picture->height), std::pair(w, h)) << name;
        lines += "wrote " + (folder / name).string() + "  " + std::to_string(w) + "×" + std::to_string(h) + "\n";
    }
    EXPECT_EQ(result.output, lines);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 12) << "no temporary file left behind";

    // A file where the folder should be: even root cannot make a folder inside it.
    writeFile(root / "plain", "not a folder");
    auto refused = runProcess({binary, "--render-icons", (root / "plain/icons").string()}, environment);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "could not render " + (root / "plain/icons/icon_16x16.png").string() +
                                  "\n  (the folder could not be made: Not a directory)\n");
    EXPECT_EQ(readFile(root / "plain"), "not a folder");
}

TEST(EndToEnd, MouseRecorderSelfTestEndsWithItsTick) {
    TempDir root;
    auto result = runProcess({binary, "--mouse-recorder-selftest"}, isolatedEnvironment(root.path()));
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output,
              "Mouse recorder self-test\n"
              "standing down — pad heard: [right]\n"
              "watching      — pad heard: []\n"
              "✓ Standing down, the pad reads the drag. Watching, the tap takes it\n"
              "  first — which is what made a second gesture impossible to add.\n");
}

TEST(EndToEnd, ARecordedSwipePlayedIntoTheRunningTrackpadFiresItsMapping) {
    TempDir root;
    const auto environment = isolatedEnvironment(root.path());
    const std::string recordings = std::string(TAVRICK_SOURCE_DIR) + "/resources/touchpad/";

    auto nobody = runProcess({binary, "--play-touches", recordings + "three-finger-swipe-up.txt"}, environment);
    EXPECT_EQ(nobody.status, 1);
    EXPECT_EQ(nobody.output, "✗ 32 frame(s) not played: no Tavrick is listening\n");
    auto broken = runProcess({binary, "--play-touches", TAVRICK_SOURCE_DIR "/README.md"}, environment);
    EXPECT_EQ(broken.status, 1);
    EXPECT_TRUE(broken.output.ends_with(" of the touchpad recording: expected “E:” or “#”\n")) << broken.output;

    ChildProcess app({binary}, environment);
    ASSERT_TRUE(app.waitForOutput("Tavrick is running", 30)) << app.output();
    if (app.output().find("  gestures : the simulated trackpad (") == std::string::npos) {
        app.signal(SIGINT);
        app.wait(30);
        GTEST_SKIP() << "this machine has a touchpad the program reads instead: " << app.output();
    }
    auto played = runProcess({binary, "--play-touches", recordings + "three-finger-swipe-up.txt"}, environment);
    EXPECT_EQ(played.status, 0);
    EXPECT_EQ(played.output, "played 32 frame(s) of three-finger-swipe-up.txt into the running Tavrick's trackpad\n");
    // The seed mappings bind a three-finger swipe up to Maximize.
    EXPECT_TRUE(waitForLog(root, "-> 3-finger swipe up -> ran 'Maximize' (Maximize)"));
    EXPECT_TRUE(waitForLog(root, "[action] running Maximize"));

    // And "down, then right" with the right button to the next display.
    auto drawn = runProcess({binary, "--post-stroke", "down,right"}, environment);
    EXPECT_EQ(drawn.status, 0);
    EXPECT_EQ(drawn.output, "drew “down,right” with the right button in the running Tavrick's session\n");
    EXPECT_TRUE(waitForLog(root, "[mouse] mouse gesture ↓→ -> ran 'Move to Next Display'"));
    auto scribble = runProcess({binary, "--post-stroke", "up,sideways"}, environment);
    EXPECT_EQ(scribble.status, 1);
    EXPECT_EQ(scribble.output,
              "✗ could not draw “up,sideways”: expected: stroke <up|down|left|right,… at most three> or stroke click\n");
    app.signal(SIGINT);
    EXPECT_EQ(app.wait(30), 0) << app.output();
}

TEST(EndToEnd, TheFanProbeReadsBoostsThroughTheRealHelperAndHandsBack) {
    TempDir root;
    auto env = isolatedEnvironment(root.path());
    auto probe = runProcess({binary, "--fan-probe"}, env, 60);
    EXPECT_EQ(probe.status, 0) << probe.output;
    EXPECT_EQ(probe.output.rfind("Tavrick fan probe\nversion        : ", 0), 0u) << probe.output;
    for (const char* line : {"SMC layout     : 80 bytes, keyInfo @28, result @40, data32 @44, bytes @48 (OK)\n",
                             "Fans           : 2 (0 automatic, 1 manual, 3 system)\n",
                             "  fan 0  Ac  1200  Mn  1200  Mx  6000  Tg  1200  mode 0\n", "Ftst           : absent\n",
                             "Fan helper     : not registered (Boost installs it the first time it is chosen)\n",
                             "helper hello   : protocol 1, build ", "                 set by Tavrick: none\n"}) {
        EXPECT_NE(probe.output.find(line), std::string::npos) << line << "\n" << probe.output;
    }
    // Read only: nothing was registered.
    EXPECT_FALSE(std::filesystem::exists(root / "config" / "systemd"));

    auto boost = runProcess({binary, "--fan-probe", "2"}, env, 90);
    EXPECT_EQ(boost.status, 0) << boost.output;
    EXPECT_NE(boost.output.find("\nAsking for Max for 2 s over one connection…\n  accepted, helper state boosting, controlling yes, clients 1\n"),
              std::string::npos) << boost.output;
    EXPECT_NE(boost.output.find("mode 1\n"), std::string::npos);
    EXPECT_TRUE(boost.output.ends_with("\nHanding back…\n✓ Every fan reads automatic (0) or system (3) again.\n")) << boost.output;

    {
        tavrick::SimulatedSMC chip(supportDir(root) / "fanhelper" / "simulated-smc");
        chip.takeFan(1, 2500);  // another program's fan
    }
    auto release = runProcess({binary, "--fan-probe", "release"}, env, 60);
    EXPECT_EQ(release.status, 0) << release.output;
    EXPECT_NE(release.output.find("This is what “Hand Back Anyway” sends. It parks each fan on the\n"), std::string::npos);
    EXPECT_NE(release.output.find("\nwrote          : park then mode 0 on fan 1\n                 of which Tavrick had no record of: 1\n"),
              std::string::npos) << release.output;
    EXPECT_TRUE(release.output.ends_with("✓ Every fan reads automatic (0) or system (3) again.\n"));
    tavrick::SimulatedSMC chip(supportDir(root) / "fanhelper" / "simulated-smc");
    for (const auto& fan : chip.fans()) EXPECT_EQ(fan.mode, 0);
}

TEST(EndToEnd, EmptyLogSaysWhereItWouldBe) {
    TempDir root;
    auto result = runProcess({binary, "--log"}, isolatedEnvironment(root.path()));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "The log is empty. Path: " + (supportDir(root) / "tavrick.log").string() + "\n");
}

TEST(EndToEnd, TapSelfTestFiresTheMappingEndToEnd) {
    TempDir root;
    auto result = runProcess({binary, "--tap-selftest"}, isolatedEnvironment(root.path()));
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("Hotkey self-test\nexpecting: keyCode=1 modifiers=4\n"), std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("keys seen by tap : 1\nmatches fired    : 1\n    tap saw: keyCode=1 modifiers=4\n"),
              std::string::npos)
        << result.output;
    const std::string verdict = "✓ End to end: the tap received the key and fired the mapping.\n";
    ASSERT_GE(result.output.size(), verdict.size());
    EXPECT_EQ(result.output.substr(result.output.size() - verdict.size()), verdict);
}

TEST(EndToEnd, TheTapProbeReadsTheMappingsAndNeverChangesThem) {
    const auto mappings = [](const TempDir& root) { return supportDir(root) / "mappings.json"; };
    const auto asides = [&](const TempDir& root) {
        std::size_t count = 0;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(supportDir(root), error)) {
            count += entry.path().filename().string().rfind("mappings.json.corrupt-", 0) == 0;
        }
        return count;
    };
    const std::string noShortcuts = "Hotkey table has 0\n\n⚠︎  No enabled keyboard shortcuts — nothing could fire.\n";

    {  // A fresh home: nothing is seeded.
        TempDir root;
        auto result = runProcess({binary, "--tap-probe", "1"}, isolatedEnvironment(root.path()), 10);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.output, "0 mapping(s) from disk\n  (there is no “mappings.json” yet)\n" + noShortcuts);
        EXPECT_FALSE(std::filesystem::exists(mappings(root)));
    }
    {  // A damaged file stays exactly as it was, where it was.
        TempDir root;
        const std::string garbage = "{\"mappings\": [ this is not JSON";
        writeFile(mappings(root), garbage);
        auto result = runProcess({binary, "--tap-probe", "1"}, isolatedEnvironment(root.path()), 10);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.output.rfind("0 mapping(s) from disk\n  (", 0), 0u) << result.output;
        EXPECT_NE(result.output.find(noShortcuts), std::string::npos) << result.output;
        EXPECT_EQ(readFile(mappings(root)), garbage);
        EXPECT_EQ(asides(root), 0u);
    }
    {  // A good file is read, not rewritten, and "0" listens for no time at all (the default would be 15).
        TempDir root;
        const auto seed = readFile(std::filesystem::path(TAVRICK_SOURCE_DIR) / "resources/DefaultMappings.json");
        const std::string compact = nlohmann::json::parse(seed).dump();
        writeFile(mappings(root), compact);
        auto result = runProcess({binary, "--tap-probe", "0"}, isolatedEnvironment(root.path()), 10);
        EXPECT_EQ(result.status, 0) << result.output;
        const auto count = nlohmann::json::parse(seed)["mappings"].size();
        EXPECT_EQ(result.output.rfind(std::to_string(count) + " mapping(s) from disk\nHotkey table has ", 0), 0u)
            << result.output;
        EXPECT_NE(result.output.find("\nPress your shortcuts now — listening for 0.0\n"), std::string::npos)
            << result.output;
        EXPECT_EQ(readFile(mappings(root)), compact);
    }
    {  // A fraction is printed as the number it is.
        TempDir root;
        auto result = runProcess({binary, "--tap-probe", "0.25"}, isolatedEnvironment(root.path()), 10);
        EXPECT_EQ(result.output.find("listening for"), std::string::npos);  // nothing to listen for
        writeFile(mappings(root), readFile(std::filesystem::path(TAVRICK_SOURCE_DIR) / "resources/DefaultMappings.json"));
        result = runProcess({binary, "--tap-probe", "0.25"}, isolatedEnvironment(root.path()), 10);
        EXPECT_NE(result.output.find("listening for 0.25\n"), std::string::npos) << result.output;
    }
}

TEST(EndToEnd, RunsFiresAKeyFromAnotherProcessAndKnowsHowTheLastRunEnded) {
    TempDir root;
    const auto environment = isolatedEnvironment(root.path());

    // A settings file someone broke by hand: moved aside, never deleted, and the defaults used.
    const auto settingsFile = root / "config/com.orvell.tavrick/defaults.json";
    writeFile(settingsFile, "showConfirmations = no");

    // A malformed diagnostic flag is ignored and the application starts normally.
    {
        ChildProcess app({binary, "--post-key", "12"}, environment);
        ASSERT_TRUE(app.waitForOutput("Tavrick is running", 30)) << app.output();
        EXPECT_NE(app.output().find("mappings : " + (supportDir(root) / "mappings.json").string()), std::string::npos);
        EXPECT_NE(app.output().find("✓ Tavrick is running — Using "), std::string::npos) << app.output();

        // ⌃⌥← (control 8 + option 4) is one of the examples: it fires Left Half in the running app.
        auto post = runProcess({binary, "--post-key", "123", "12"}, environment);
        EXPECT_EQ(post.status, 0);
        EXPECT_EQ(post.output, "posted keyCode=123 modifiers=12 (⌃⌥←) to the running Tavrick's session\n");
        EXPECT_TRUE(waitForLog(root, "[hotkey] ⌃⌥← fired 'Left Half'"));
        EXPECT_TRUE(waitForLog(root, "[action] running Left Half"));

        // A second copy stands aside, touching nothing of the first one's.
        auto second = runProcess({binary}, environment);
        EXPECT_EQ(second.status, 1);
        EXPECT_EQ(second.output, "Tavrick is already running (its session listens at " +
                                     (supportDir(root) / "session.sock").string() + ").\n");

        app.signal(SIGINT);
        EXPECT_EQ(app.wait(30), 0) << app.output();
    }
    std::vector<std::filesystem::path> settingsAside;
    for (const auto& entry : std::filesystem::directory_iterator(settingsFile.parent_path())) {
        if (entry.path().filename().string().rfind("defaults.json.corrupt-", 0) == 0) settingsAside.push_back(entry.path());
    }
    ASSERT_EQ(settingsAside.size(), 1u);
    EXPECT_EQ(readFile(settingsAside[0]), "showConfirmations = no");

    std::string log = readFile(supportDir(root) / "tavrick.log");
    EXPECT_NE(log.find("[shutdown] termination requested\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[shutdown] terminating cleanly\n"), std::string::npos) << log;
    EXPECT_LT(log.find("termination requested"), log.find("terminating cleanly"));
    EXPECT_FALSE(std::filesystem::exists(supportDir(root) / "running.marker"));
    EXPECT_NE(log.find("[launch] Tavrick 0.1.0 ("), std::string::npos) << log;
    EXPECT_NE(log.find("[launch] footprint "), std::string::npos) << log;
    const std::string unclean =
        "[launch] the previous run ended without a clean shutdown — a crash or a kill, not a Quit";
    EXPECT_EQ(occurrences(log, unclean), 0u);

    // Killed outright: the marker stays behind, and the next run says so.
    {
        ChildProcess app({binary}, environment);
        ASSERT_TRUE(app.waitForOutput("Tavrick is running", 30)) << app.output();
        app.signal(SIGKILL);
        app.wait(10);
    }
    EXPECT_TRUE(std::filesystem::exists(supportDir(root) / "running.marker"));
    {
        ChildProcess app({binary}, environment);
        ASSERT_TRUE(app.waitForOutput("Tavrick is running", 30)) << app.output();
        app.signal(SIGTERM);
        EXPECT_EQ(app.wait(30), 0);
    }
    log = readFile(supportDir(root) / "tavrick.log");
    EXPECT_EQ(occurrences(log, unclean), 1u) << log;
    EXPECT_FALSE(std::filesystem::exists(supportDir(root) / "running.marker"));
}
