// The running program's actions on its simulated desktop, driven from other processes as a user
// or a script would.
#include "Platform/Simulated/SessionBridge.h"
#include "Support/Eventually.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

const std::string binary = TAVRICK_BINARY;

// ⌃⌥ is modifiers 12: ← left half, ⌫ restore, K sends ⌘S, Q quits the frontmost application.
const char* mappings = R"({"schemaVersion": 1, "mappings": [
  {"id": "11111111-1111-4111-8111-111111111111", "name": "", "isEnabled": true,
   "trigger": {"hotkey": {"_0": {"keyCode": 123, "modifiers": 12}}}, "action": {"window": {"_0": "leftHalf"}}},
  {"id": "22222222-2222-4222-8222-222222222222", "name": "", "isEnabled": true,
   "trigger": {"hotkey": {"_0": {"keyCode": 51, "modifiers": 12}}}, "action": {"window": {"_0": "restore"}}},
  {"id": "33333333-3333-4333-8333-333333333333", "name": "Save", "isEnabled": true,
   "trigger": {"hotkey": {"_0": {"keyCode": 40, "modifiers": 12}}},
   "action": {"sendKeystroke": {"_0": {"keyCode": 1, "modifiers": 1}}}},
  {"id": "44444444-4444-4444-8444-444444444444", "name": "", "isEnabled": true,
   "trigger": {"hotkey": {"_0": {"keyCode": 12, "modifiers": 12}}}, "action": {"system": {"_0": "quitApplication"}}}
]})";

nlohmann::json state(const std::filesystem::path& file) {
    auto text = readFile(file);
    auto json = nlohmann::json::parse(text, nullptr, false);
    return json.is_discarded() ? nlohmann::json::object() : json;
}

nlohmann::json frontWindowFrame(const std::filesystem::path& file) {
    auto s = state(file);
    if (!s.contains("applications")) return nullptr;
    for (const auto& app : s["applications"]) {
        if (app["frontmost"] == true && !app["windows"].empty()) return app["windows"][0]["frame"];
    }
    return nullptr;
}

} // namespace

TEST(ActionsEndToEnd, ShortcutsMoveTheSimulatedWindowSendKeysAndNeverQuitTavrick) {
    TempDir root;
    const auto environment = isolatedEnvironment(root.path());
    const auto support = root / "data/com.orvell.tavrick";
    writeFile(support / "mappings.json", mappings);
    const auto stateFile = support / "session-state.json";
    const auto socket = support / "session.sock";

    ChildProcess app({binary}, environment);
    ASSERT_TRUE(app.waitForOutput("Tavrick is running", 30)) << app.output();
    EXPECT_NE(app.output().find("desktop  : " + stateFile.string()), std::string::npos) << app.output();
    EXPECT_NE(app.output().find("No desktop session: opening, launching and revealing in the simulated workspace"),
              std::string::npos);
    const auto before = frontWindowFrame(stateFile);
    ASSERT_FALSE(before.is_null()) << readFile(stateFile);

    auto post = [&](const char* key) { return runProcess({binary, "--post-key", key, "12"}, environment).status; };

    ASSERT_EQ(post("123"), 0);
    const nlohmann::json leftHalf = {{"x", 0}, {"y", 70}, {"width", 720}, {"height", 805}};
    EXPECT_TRUE(eventually([&] { return frontWindowFrame(stateFile) == leftHalf; }, 10)) << readFile(stateFile);
    EXPECT_TRUE(app.waitForOutput("Left Half: window of pid ", 10)) << app.output();
    EXPECT_NE(app.output().find(" to x 0, y 70, width 720, height 805"), std::string::npos) << app.output();

    ASSERT_EQ(post("51"), 0);
    EXPECT_TRUE(eventually([&] { return frontWindowFrame(stateFile) == before; }, 10)) << readFile(stateFile);
    ASSERT_EQ(post("51"), 0);
    EXPECT_TRUE(app.waitForOutput("Nothing to restore for pid ", 10)) << app.output();

    ASSERT_EQ(post("40"), 0);
    const auto log = support / "tavrick.log";
    EXPECT_TRUE(eventually([&] {
        return readFile(log).find("[keystroke] sending ⌘S to frontmost app 'Text Editor'") != std::string::npos;
    }, 10)) << readFile(log);

    // With Tavrick itself in front (brought there by the helper script), "Quit application" is refused.
    const std::string script = std::string(TAVRICK_SOURCE_DIR) + "/scripts/session";
    auto activated = runProcess({"/usr/bin/perl", script, "activate", "com.orvell.tavrick"}, environment);
    EXPECT_EQ(activated.status, 0) << activated.output;
    EXPECT_EQ(activated.output, "ok\n");
    auto wrong = runProcess({"/usr/bin/perl", script, "activate", "com.example.Gone"}, environment);
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.output, "error no running application has the bundle id com.example.Gone\n");
    ASSERT_EQ(post("12"), 0);
    EXPECT_TRUE(app.waitForOutput("Refusing to quit Tavrick itself", 10)) << app.output();
    EXPECT_EQ(state(stateFile)["workspace"]["terminated"], nlohmann::json::array());

    // Permission states are the session's to set, from outside too.
    EXPECT_EQ(SessionBridge::send(socket, "permission inputMonitoring denied"), std::nullopt);
    EXPECT_TRUE(eventually([&] { return state(stateFile)["permissions"]["inputMonitoring"] == "denied"; }, 10));

    app.signal(SIGTERM);
    EXPECT_EQ(app.wait(30), 0) << app.output();
}

TEST(ActionsEndToEnd, AccessibilityRefusedAtLaunchAndGrantedLaterBringsTheEnginesUp) {
    TempDir root;
    const auto environment = isolatedEnvironment(root.path());
    const auto socket = root / "data/com.orvell.tavrick/session.sock";

    ChildProcess app({binary}, environment);
    // The session listens at once; the engines wait three seconds.
    ASSERT_TRUE(app.waitForOutput("  keys     : ", 30)) << app.output();
    ASSERT_EQ(SessionBridge::send(socket, "permission accessibility denied"), std::nullopt);
    ASSERT_TRUE(app.waitForOutput("Hotkey engine did not start: ", 30)) << app.output();
    EXPECT_TRUE(app.waitForOutput("accessibility: denied", 5)) << app.output();

    ASSERT_EQ(SessionBridge::send(socket, "permission accessibility granted"), std::nullopt);
    EXPECT_TRUE(app.waitForOutput("Permission granted — restarting engines", 10)) << app.output();
    EXPECT_TRUE(app.waitForOutput("Event tap 'hotkeys' started", 10)) << app.output();

    app.signal(SIGTERM);
    EXPECT_EQ(app.wait(30), 0) << app.output();
}
