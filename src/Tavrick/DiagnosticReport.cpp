#include "Tavrick/DiagnosticReport.h"

#include "CoreKit/FileIO.h"
#include "CoreKit/LoginItem.h"

#include <nlohmann/json.hpp>

#include <array>
#include <string_view>
#include <unistd.h>

namespace tavrick::Diagnostics {

std::string describeLoginItem(int status) {
    switch (status) {
    case static_cast<int>(LoginItemStatus::enabled): return "enabled (allowed in Login Items)";
    case static_cast<int>(LoginItemStatus::requiresApproval): return "registered, but held back in System Settings";
    case static_cast<int>(LoginItemStatus::notRegistered): return "not registered (off, and available to turn on)";
    case static_cast<int>(LoginItemStatus::notFound): return "NOT FOUND — the system will not accept this copy";
    default: return "unknown (status " + std::to_string(status) + ")";
    }
}

std::string describeFanHelper(HelperServiceStatus status) {
    switch (status) {
    case HelperServiceStatus::enabled: return "enabled (allowed in Login Items)";
    case HelperServiceStatus::requiresApproval: return "registered, waiting for approval in Login Items";
    case HelperServiceStatus::notRegistered: return "not registered (Boost installs it the first time it is chosen)";
    case HelperServiceStatus::notFound:
    case HelperServiceStatus::unknown: break;
    }
    return "not registered yet — macOS has never seen it (Boost installs it the first time it is chosen)";
}

std::string describePermission(PermissionState state) {
    switch (state) {
    case PermissionState::granted: return "granted";
    case PermissionState::denied: return "denied";
    case PermissionState::unknown: break;
    }
    return "unknown (never asked)";
}

void writeReport(std::ostream& out, const DiagnoseFacts& facts) {
    out << "Tavrick diagnostics\n";
    if (facts.launchedBy) {
        const std::string& name = *facts.launchedBy;
        out << "⚠︎  Launched by " << name << " — the results below may reflect\n"
            << name << "'s permissions, not Tavrick's own. For a true\n"
            << "   reading, launch Tavrick normally and check the Settings window.\n";
    }
    out << "bundle path      : " << facts.bundlePath << "\n"
        << "bundle id        : " << facts.bundleIdentifier << "\n"
        << "version          : " << facts.version << "\n"
        << "Open at login    : " << describeLoginItem(facts.loginItemStatus) << "\n"
        << "Fan helper       : " << describeFanHelper(facts.fanHelper) << "\n"
        << "Accessibility    : " << describePermission(facts.accessibility) << "\n"
        << "Input Monitoring : " << describePermission(facts.inputMonitoring) << "\n"
        << "  listen-only    : " << describePermission(facts.listenOnly) << "\n"
        << "  active (needed): " << describePermission(facts.activeTap) << "\n"
        << "  MTTouch size   : 96 (OK)\n"
        << "  SMC layout     : " << facts.smcLayout << "\n";
    if (facts.accessibility != PermissionState::granted) {
        // A switch that looks on in the settings can belong to another build of the program.
        out << "→ Accessibility is not granted to THIS binary.\n"
            << "  If the switch is already on in System Settings, the entry belongs to a\n"
            << "  different build: an ad-hoc signature changes on every rebuild, so the\n"
            << "  old grant no longer matches. Remove Tavrick from the list with “−”,\n"
            << "  then add it again, or sign with a stable identity.\n";
    }
}

std::optional<std::string> launchingApplication(const std::string& parentName, std::int32_t parentPid) {
    // The init process adopts orphans and starts services; neither is an application.
    if (parentName.empty() || parentPid <= 1) return std::nullopt;
    // Shells, sessions and wrappers that only pass a command on: the user launched it.
    static constexpr std::array<std::string_view, 24> passThrough = {
        "sh",    "bash",  "dash", "zsh",    "fish",   "ksh",  "mksh",   "tcsh",    "csh",   "busybox", "login", "sudo",
        "su",    "doas",  "env",  "nohup",  "setsid", "tmux", "screen", "systemd", "sshd",  "timeout", "flock", "xargs",
    };
    for (auto name : passThrough) {
        if (parentName == name) return std::nullopt;
    }
    // "tmux: server" and the like name themselves with a suffix.
    if (parentName.starts_with("tmux") || parentName.starts_with("sshd")) return std::nullopt;
    return parentName;
}

void readPermissions(DiagnoseFacts& facts, bool x11, const std::optional<std::string>& sessionState) {
    if (x11) {
        facts.accessibility = facts.inputMonitoring = facts.listenOnly = facts.activeTap = PermissionState::granted;
        return;
    }
    std::string accessibility = "granted", inputMonitoring = "granted";
    if (sessionState) {
        auto state = nlohmann::json::parse(*sessionState, nullptr, false);
        if (state.is_object() && state.contains("permissions") && state["permissions"].is_object()) {
            const auto& p = state["permissions"];
            if (p.contains("accessibility") && p["accessibility"].is_string()) accessibility = p["accessibility"].get<std::string>();
            if (p.contains("inputMonitoring") && p["inputMonitoring"].is_string()) inputMonitoring = p["inputMonitoring"].get<std::string>();
        }
    }
    // Trust is a yes or a no: a question not yet answered is a no.
    facts.accessibility = accessibility == "granted" ? PermissionState::granted : PermissionState::denied;
    facts.listenOnly = inputMonitoring == "granted"  ? PermissionState::granted
                       : inputMonitoring == "denied" ? PermissionState::denied
                                                     : PermissionState::unknown;
    facts.inputMonitoring = facts.listenOnly;
    facts.activeTap = facts.accessibility;
}

std::pair<std::string, std::int32_t> parentProcess(const std::filesystem::path& procRoot) {
    const auto pid = static_cast<std::int32_t>(::getppid());
    int error = 0;
    auto name = FileIO::readAll(procRoot / std::to_string(pid) / "comm", error).value_or("");
    while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) name.pop_back();
    return {name, pid};
}

} // namespace tavrick::Diagnostics
