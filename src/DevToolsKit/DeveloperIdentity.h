#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "DevToolsKit/DiskReclaimProcess.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// Who git thinks the user is, and which SSH keys are on disk and in the agent.
struct DevIdentity {
    std::optional<std::string> gitName;
    std::optional<std::string> gitEmail;
    std::vector<std::string> publicKeys;
    std::vector<std::string> agentKeys;
    std::optional<std::string> agentSocket;

    // "~/.gitconfig", then "~/.config/git/config"; the later file wins.
    static std::vector<std::filesystem::path> globalConfigURLs(const std::filesystem::path& home);
    // The git identity, the "*.pub" files of "~/.ssh" and the agent's socket.
    static DevIdentity read(const std::filesystem::path& home, std::optional<std::string> agentSocket);
    // The `name` and `email` of `[user]` in one configuration text, when present.
    static void parseGitConfig(std::string_view text, std::optional<std::string>& name, std::optional<std::string>& email);
    // The keys the agent holds; empty past the timeout or without an agent.
    static std::vector<std::string> readAgentKeys(double timeout, const std::optional<std::string>& agentSocket,
                                              const ProgramLookup& lookup);
    // "256 SHA256:… comment (ED25519)" lines become "comment (ED25519)".
    static std::vector<std::string> parseAgentKeys(std::string_view text);

    std::string sshSummary() const;
    friend bool operator==(const DevIdentity&, const DevIdentity&) = default;
};

namespace GitIdentity {

struct Result {
    bool set = false;
    std::string failure;
    static Result done() { return {true, {}}; }
    static Result failed(std::string text) { return {false, std::move(text)}; }
    friend bool operator==(const Result&, const Result&) = default;
};

bool isEmail(std::string_view text);
// Validates, then sets the global user.name and user.email through git itself.
Result set(const std::string& name, const std::string& email, const ProgramLookup& lookup, DiagnosticLog& log,
           const std::vector<std::string>& environment = {});

} // namespace GitIdentity

} // namespace tavrick
