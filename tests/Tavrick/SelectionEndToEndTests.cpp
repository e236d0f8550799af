// The selection bar of the running program, driven from other processes: text selected in the
// simulated session brings the bar, a pressed button asks a model on a local server, and the
// probe describes the focused element.
#include "Platform/Linux/FileSecretStore.h"
#include "Platform/Linux/JSONPreferenceStore.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Support/LocalHTTPServer.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

const std::string binary = TAVRICK_BINARY;

std::string answerOf(const std::variant<std::string, std::string>& result) {
    return result.index() == 0 ? std::get<0>(result) : "failed: " + std::get<1>(result);
}

} // namespace

TEST(SelectionEndToEnd, ASelectionBringsTheBarAndAskAIShowsTheLocalServersAnswer) {
    TempDir root;
    const auto environment = isolatedEnvironment(root.path());
    const auto support = root / "data/com.orvell.tavrick";
    LocalServer server(LocalServer::respond(200, R"({"choices":[{"message":{"content":"It is four."}}]})"));
    {
        JSONPreferenceStore defaults(root / "config/com.orvell.tavrick/defaults.json");
        defaults.set("selectionMode", "automatic");
        defaults.set("copyOnSelect", true);
        defaults.set("selectionActions", PreferenceValue::data(R"([{"askAI":{}},{"copy":{}},{"openLink":{}}])"));
        defaults.set("selectionActionsGeneration", std::int64_t{1});
        defaults.set("aiProvider", "custom");
        defaults.set("aiBaseURL", server.base());
        FileSecretStore secrets(support / "secrets.json");
        ASSERT_EQ(secrets.add("com.orvell.tavrick", "api-key-custom", "sk-e2e-key", SecretAccessibility::afterFirstUnlock),
                  SecretStatus::success);
    }
    ChildProcess app({binary}, environment);
    ASSERT_TRUE(app.waitForOutput("Tavrick is running", 30)) << app.output();
    const auto socket = support / "session.sock";

    EXPECT_EQ(answerOf(SessionBridge::exchange(socket, "select selected 100 300 200 20", "what is 2+2?")), "ok\n");
    ASSERT_TRUE(app.waitForOutput("selection bar: [Ask AI = askAI] [Copied = copy] at ", 10)) << app.output();
    EXPECT_EQ(answerOf(SessionBridge::exchange(socket, "bar press openLink")), "error no button openLink on the bar\n");
    EXPECT_EQ(answerOf(SessionBridge::exchange(socket, "bar press askAI")), "ok\n");
    ASSERT_TRUE(app.waitForOutput("result window: Ask AI — It is four.", 15)) << app.output();
    EXPECT_NE(server.received().find("Authorization: Bearer sk-e2e-key"), std::string::npos);

    auto probe = runProcess({binary, "--probe-selection", "0"}, environment);
    EXPECT_EQ(probe.status, 0);
    EXPECT_EQ(probe.output,
              "Switch to the app and select some text. Probing in 0.0 seconds.\n"
              "TextEdit: role=AXTextArea\nAXSelectedText=12 characters\nAXSelectedTextMarkerRange absent\n"
              "AXSelectedTextRange present, but no string for it\nsupports selected\n");

    app.signal(SIGTERM);
    ASSERT_TRUE(app.wait(20)) << app.output();
    const auto log = readFile(support / "tavrick.log");
    EXPECT_NE(log.find("[selection] copied on select (12 characters)"), std::string::npos) << log;
    EXPECT_NE(log.find("[selection] Ask AI answered (11 characters)"), std::string::npos) << log;
    // Neither the selection nor the key is ever written down.
    for (const std::string& secret : {std::string("2+2"), std::string("sk-e2e-key")}) {
        EXPECT_EQ(log.find(secret), std::string::npos) << secret;
        EXPECT_EQ(app.output().find(secret), std::string::npos) << secret;
    }
}

TEST(SelectionEndToEnd, TheProbeWithNoRunningTavrickFindsNothingFocused) {
    TempDir root;
    auto result = runProcess({binary, "--probe-selection", "0"}, isolatedEnvironment(root.path()));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output,
              "Switch to the app and select some text. Probing in 0.0 seconds.\n"
              "TextEdit: no focused element — is Accessibility granted?\n");
}
