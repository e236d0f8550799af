// The everyday services in the real program, reached as a user reaches them: keys and copies
// from another process.
#include "Platform/Simulated/SessionBridge.h"
#include "Support/Eventually.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <csignal>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

const std::string binary = TAVRICK_BINARY;

// ⌃⌥→ toggles keep-awake and ⌃⌥↓ starts or pauses the Pomodoro.
const char* mappings = R"({
  "mappings": [
    {"id": "33333333-3333-4333-8333-333333333333", "name": "Awake", "isEnabled": true,
     "trigger": {"hotkey": {"_0": {"keyCode": 124, "modifiers": 12}}}, "action": {"toggleAwake": {}}},
    {"id": "44444444-4444-4444-8444-444444444444", "name": "Focus", "isEnabled": true,
     "trigger": {"hotkey": {"_0": {"keyCode": 125, "modifiers": 12}}}, "action": {"pomodoro": {"_0": "startOrPause"}}}
  ],
  "schemaVersion": 1
})";

} // namespace

TEST(EverydayEndToEnd, KeepAwakeAPomodoroAndCopiesInTheRunningProgram) {
    TempDir root;
    const auto environment = isolatedEnvironment(root.path());
    const auto support = root / "data/com.orvell.tavrick";
    writeFile(support / "mappings.json", mappings);

    ChildProcess app({binary}, environment);
    ASSERT_TRUE(app.waitForOutput("Tavrick is running", 30)) << app.output();

    auto post = runProcess({binary, "--post-key", "124", "12"}, environment);
    EXPECT_EQ(post.status, 0) << post.output;
    EXPECT_TRUE(app.waitForOutput("Awake assertion 1 held: Tavrick: Indefinitely", 10)) << app.output();

    // The Pomodoro runs on real time; with keep-awake already on by hand it leaves it alone.
    post = runProcess({binary, "--post-key", "125", "12"}, environment);
    EXPECT_EQ(post.status, 0) << post.output;
    EXPECT_TRUE(app.waitForOutput("Pomodoro started: Focus", 10)) << app.output();

    const auto socket = support / "session.sock";
    EXPECT_EQ(SessionBridge::sendCopy(socket, "copied in another program"), std::nullopt);
    const auto history = support / "clipboard.json";
    ASSERT_TRUE(eventually([&] { return readFile(history).find("copied in another program") != std::string::npos; }, 10));
    struct stat info {};
    ASSERT_EQ(::stat(history.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    // The log is written, and below it is checked to hold nothing of the concealed copy.
    EXPECT_TRUE(eventually([&] { return readFile(support / "tavrick.log").find("[clipboard] recorded a copy") != std::string::npos; }, 10));

    // A password manager's marked copy never reaches the file or the log.
    EXPECT_EQ(SessionBridge::sendCopy(socket, "hunter2", {"org.nspasteboard.ConcealedType"}), std::nullopt);
    EXPECT_TRUE(app.waitForOutput("Clipboard: skipped concealed content", 10)) << app.output();
    const auto state = nlohmann::json::parse(readFile(support / "session-state.json"));
    EXPECT_EQ(state["pasteboard"]["changeCount"], 2);
    EXPECT_EQ(state["pasteboard"]["types"], nlohmann::json::parse(R"(["public.utf8-plain-text", "org.nspasteboard.ConcealedType"])"));

    app.signal(SIGINT);
    EXPECT_EQ(app.wait(30), 0) << app.output();
    EXPECT_EQ(readFile(history).find("hunter2"), std::string::npos);
    EXPECT_EQ(readFile(support / "tavrick.log").find("hunter2"), std::string::npos);
    EXPECT_EQ(app.output().find("hunter2"), std::string::npos);
    const auto items = nlohmann::json::parse(readFile(history));
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0]["text"], "copied in another program");
}
