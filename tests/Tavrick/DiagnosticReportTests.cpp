// The diagnostic report's lines, who counts as having launched the program, and where the
// permissions are read from.
#include "Support/TempDir.h"
#include "Tavrick/DiagnosticReport.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unistd.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

DiagnoseFacts healthy() {
    DiagnoseFacts facts;
    facts.bundlePath = "/opt/tavrick";
    facts.bundleIdentifier = "com.orvell.tavrick";
    facts.version = "0.1.0 (1)";
    facts.loginItemStatus = 1;
    facts.fanHelper = HelperServiceStatus::enabled;
    facts.accessibility = facts.inputMonitoring = facts.listenOnly = facts.activeTap = PermissionState::granted;
    facts.smcLayout = "80 bytes (OK)";
    return facts;
}

std::string report(const DiagnoseFacts& facts) {
    std::ostringstream out;
    Diagnostics::writeReport(out, facts);
    return out.str();
}

} // namespace

TEST(DiagnosticReport, AHealthyCopyReadsEveryLineInOrderAndNoAdvice) {
    EXPECT_EQ(report(healthy()), "Tavrick diagnostics\n"
                                 "bundle path      : /opt/tavrick\n"
                                 "bundle id        : com.orvell.tavrick\n"
                                 "version          : 0.1.0 (1)\n"
                                 "Open at login    : enabled (allowed in Login Items)\n"
                                 "Fan helper       : enabled (allowed in Login Items)\n"
                                 "Accessibility    : granted\n"
                                 "Input Monitoring : granted\n"
                                 "  listen-only    : granted\n"
                                 "  active (needed): granted\n"
                                 "  MTTouch size   : 96 (OK)\n"
                                 "  SMC layout     : 80 bytes (OK)\n");
}

TEST(DiagnosticReport, LaunchedByAnotherAppWithoutAccessibilityWarnsFirstAndAdvisesLast) {
    auto facts = healthy();
    facts.launchedBy = "code";
    facts.loginItemStatus = 3;
    facts.fanHelper = HelperServiceStatus::notFound;
    facts.accessibility = PermissionState::denied;
    facts.inputMonitoring = facts.listenOnly = PermissionState::unknown;
    facts.activeTap = PermissionState::denied;
    EXPECT_EQ(report(facts),
              "Tavrick diagnostics\n"
              "⚠︎  Launched by code — the results below may reflect\n"
              "code's permissions, not Tavrick's own. For a true\n"
              "   reading, launch Tavrick normally and check the Settings window.\n"
              "bundle path      : /opt/tavrick\n"
              "bundle id        : com.orvell.tavrick\n"
              "version          : 0.1.0 (1)\n"
              "Open at login    : NOT FOUND — the system will not accept this copy\n"
              "Fan helper       : not registered yet — macOS has never seen it (Boost installs it the first time it is chosen)\n"
              "Accessibility    : denied\n"
              "Input Monitoring : unknown (never asked)\n"
              "  listen-only    : unknown (never asked)\n"
              "  active (needed): denied\n"
              "  MTTouch size   : 96 (OK)\n"
              "  SMC layout     : 80 bytes (OK)\n"
              "→ Accessibility is not granted to THIS binary.\n"
              "  If the switch is already on in System Settings, the entry belongs to a\n"
              "  different build: an ad-hoc signature changes on every rebuild, so the\n"
              "  old grant no longer matches. Remove Tavrick from the list with “−”,\n"
              "  then add it again, or sign with a stable identity.\n");
    // Input Monitoring missing alone brings no Accessibility advice; a login item state the
    // platform invented later is shown by its number.
    facts.accessibility = PermissionState::granted;
    facts.loginItemStatus = 4;
    const auto text = report(facts);
    EXPECT_EQ(text.find("→"), std::string::npos);
    EXPECT_NE(text.find("\nOpen at login    : unknown (status 4)\n"), std::string::npos) << text;
}

TEST(DiagnosticReport, OnlyAnApplicationCountsAsTheLauncher) {
    struct Case {
        std::string parent;
        std::int32_t pid;
        std::optional<std::string> expected;
    };
    const std::vector<Case> cases = {
        {"bash", 4000, std::nullopt},
        {"zsh", 4000, std::nullopt},
        {"sudo", 4000, std::nullopt},
        {"tmux: server", 4000, std::nullopt},
        {"sshd", 4000, std::nullopt},
        {"sshd-session", 4000, std::nullopt},
        // Adopted by init, or started by it: nobody launched it on purpose.
        {"code", 1, std::nullopt},
        {"", 4000, std::nullopt},
        {"code", 4000, "code"},
        {"nautilus", 2, "nautilus"},
        // Names are matched whole.
        {"bashful", 4000, "bashful"},
        {"Bash", 4000, "Bash"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Diagnostics::launchingApplication(c.parent, c.pid), c.expected) << c.parent << " " << c.pid;
    }
}

TEST(DiagnosticReport, TheParentIsReadFromProcWithoutItsNewline) {
    TempDir proc;
    const auto parent = std::to_string(::getppid());
    writeFile(proc / (parent + "/comm"), "TavrickTests\n");
    EXPECT_EQ(Diagnostics::parentProcess(proc.path()), std::pair(std::string("TavrickTests"), std::int32_t(::getppid())));
    TempDir empty;
    EXPECT_EQ(Diagnostics::parentProcess(empty.path()).first, "");
}

TEST(DiagnosticReport, PermissionsComeFromTheX11SessionOrTheSimulatedSessionsState) {
    using S = PermissionState;
    struct Case {
        const char* what;
        bool x11;
        std::optional<std::string> state;
        S accessibility, inputMonitoring, listenOnly, activeTap;
    };
    const std::vector<Case> cases = {
        {"X11 asks for nothing", true, R"({"permissions": {"accessibility": "denied"}})", S::granted, S::granted,
         S::granted, S::granted},
        {"no running session: a fresh one grants both", false, std::nullopt, S::granted, S::granted, S::granted,
         S::granted},
        {"refused", false, R"({"permissions": {"accessibility": "denied", "inputMonitoring": "denied"}})", S::denied,
         S::denied, S::denied, S::denied},
        {"not yet asked", false,
         R"({"permissions": {"accessibility": "notDetermined", "inputMonitoring": "notDetermined"}})", S::denied,
         S::unknown, S::unknown, S::denied},
        {"only Input Monitoring refused", false, R"({"permissions": {"accessibility": "granted", "inputMonitoring": "denied"}})",
         S::granted, S::denied, S::denied, S::granted},
        {"a damaged state file is no answer", false, "{\"permissions\": ", S::granted, S::granted, S::granted, S::granted},
        {"values of the wrong type are passed over", false, R"({"permissions": {"accessibility": false}})", S::granted,
         S::granted, S::granted, S::granted},
    };
    for (const auto& c : cases) {
        DiagnoseFacts facts;
        Diagnostics::readPermissions(facts, c.x11, c.state);
        EXPECT_EQ(facts.accessibility, c.accessibility) << c.what;
        EXPECT_EQ(facts.inputMonitoring, c.inputMonitoring) << c.what;
        EXPECT_EQ(facts.listenOnly, c.listenOnly) << c.what;
        EXPECT_EQ(facts.activeTap, c.activeTap) << c.what;
    }
}
