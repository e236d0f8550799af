// These run the real program, as a user would, against a temporary home.
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <thread>

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

} // namespace

TEST(EndToEnd, FlagsThisBuildDoesNotHaveSayItAndExitWithTwo) {
    TempDir root;
    const std::vector<std::vector<std::string>> commands = {
        {"--diagnose"},       {"--render-icons", "/tmp/x"}, {"--probe-selection", "2.5"}, {"--mouse-recorder-selftest"},
        {"--vault-selftest"}, {"--touchid-probe"},          {"--fan-probe", "release"},
    };
    for (const auto& command : commands) {
        std::vector<std::string> arguments{binary};
        arguments.insert(arguments.end(), command.begin(), command.end());
        auto result = runProcess(arguments, isolatedEnvironment(root.path()));
        EXPECT_EQ(result.status, 2) << command[0];
        EXPECT_EQ(result.output, command[0] + " is not available in this build yet.\n");
    }
    // A malformed optional argument takes its default, and the log says so.
    auto result = runProcess({binary, "--probe-selection", "abc"}, isolatedEnvironment(root.path()));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output,
              "tavrick[core] notice: --probe-selection: “abc” is not a number of seconds; using 5\n"
              "--probe-selection is not available in this build yet.\n");
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

TEST(EndToEnd, CorruptMappingsAreMovedAsideAndExamplesSeeded) {
    TempDir root;
    const std::string garbage = "{\"mappings\": [ this is not JSON";
    writeFile(supportDir(root) / "mappings.json", garbage);

    // The probe reads the mappings the way the application does, and listens for no time at all.
    auto result = runProcess({binary, "--tap-probe", "0"}, isolatedEnvironment(root.path()));
    EXPECT_EQ(result.status, 0) << result.output;

    std::vector<std::filesystem::path> asides;
    for (const auto& entry : std::filesystem::directory_iterator(supportDir(root))) {
        if (entry.path().filename().string().rfind("mappings.json.corrupt-", 0) == 0) asides.push_back(entry.path());
    }
    ASSERT_EQ(asides.size(), 1u) << result.output;
    EXPECT_EQ(readFile(asides[0]), garbage);
    EXPECT_NE(result.output.find("moved aside to " + asides[0].filename().string()), std::string::npos)
        << result.output;

    auto fresh = nlohmann::json::parse(readFile(supportDir(root) / "mappings.json"));
    auto seed = nlohmann::json::parse(readFile(std::filesystem::path(TAVRICK_SOURCE_DIR) / "resources/DefaultMappings.json"));
    EXPECT_EQ(fresh["schemaVersion"], 1);
    EXPECT_EQ(fresh["mappings"], seed["mappings"]);
    EXPECT_NE(result.output.find(std::to_string(seed["mappings"].size()) + " mapping(s) from disk"), std::string::npos);
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
