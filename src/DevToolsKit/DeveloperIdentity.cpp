#include "DevToolsKit/DeveloperIdentity.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

namespace tavrick {

namespace fs = std::filesystem;

namespace {
std::string trimmed(std::string_view text) {
    auto start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) return {};
    auto end = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(start, end - start + 1));
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}
} // namespace

std::vector<fs::path> DevIdentity::globalConfigURLs(const fs::path& home) {
    return {home / ".gitconfig", home / ".config/git/config"};
}

void DevIdentity::parseGitConfig(std::string_view text, std::optional<std::string>& name,
                                 std::optional<std::string>& email) {
    bool inUser = false;
    std::istringstream lines{std::string(text)};
    std::string line;
    while (std::getline(lines, line)) {
        std::string content = trimmed(line);
        if (content.empty() || content[0] == '#' || content[0] == ';') continue;
        if (content[0] == '[') {
            auto close = content.find(']');
            // "[user]" only: a subsection such as [user "work"] is not the global identity.
            inUser = close != std::string::npos && lower(trimmed(content.substr(1, close - 1))) == "user";
            continue;
        }
        if (!inUser) continue;
        auto equals = content.find('=');
        if (equals == std::string::npos) continue;
        std::string key = lower(trimmed(content.substr(0, equals)));
        std::string value = trimmed(content.substr(equals + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
        if (key == "name") name = value;
        if (key == "email") email = value;
    }
}

DevIdentity DevIdentity::read(const fs::path& home, std::optional<std::string> agentSocket) {
    DevIdentity identity;
    for (const auto& file : globalConfigURLs(home)) {
        std::error_code error;
        if (fs::is_regular_file(file, error)) parseGitConfig(readText(file), identity.gitName, identity.gitEmail);
    }
    std::error_code error;
    for (fs::directory_iterator it(home / ".ssh", error), end; !error && it != end; it.increment(error)) {
        if (it->path().extension() == ".pub") identity.publicKeys.push_back(it->path().filename().string());
    }
    std::sort(identity.publicKeys.begin(), identity.publicKeys.end());
    if (agentSocket && !agentSocket->empty()) identity.agentSocket = std::move(agentSocket);
    return identity;
}

std::vector<std::string> DevIdentity::parseAgentKeys(std::string_view text) {
    std::vector<std::string> keys;
    std::istringstream lines{std::string(text)};
    std::string line;
    while (std::getline(lines, line)) {
        line = trimmed(line);
        // "256 SHA256:xxxx comment words (ED25519)"
        auto first = line.find(' ');
        if (first == std::string::npos || !std::all_of(line.begin(), line.begin() + static_cast<long>(first), ::isdigit)) {
            continue;
        }
        auto second = line.find(' ', first + 1);
        if (second == std::string::npos) continue;
        std::string rest = trimmed(line.substr(second + 1));
        if (!rest.empty()) keys.push_back(rest);
    }
    return keys;
}

std::vector<std::string> DevIdentity::readAgentKeys(double timeout, const std::optional<std::string>& agentSocket,
                                                const ProgramLookup& lookup) {
    if (!agentSocket) return {};
    auto program = lookup ? lookup("/usr/bin/ssh-add") : std::nullopt;
    if (!program) return {};
    auto result = runToolProcess(*program, {"-l"}, timeout, {"SSH_AUTH_SOCK=" + *agentSocket});
    if (result.timedOut || result.failedToStart) return {};
    return parseAgentKeys(result.output);
}

std::string DevIdentity::sshSummary() const {
    if (!agentSocket) return "No agent is running in this session, so a push has no key to offer.";
    if (!agentKeys.empty()) return "The agent is holding " + std::to_string(agentKeys.size()) + " key(s).";
    if (publicKeys.empty()) return "No keys in ~/.ssh and none loaded.";
    return std::to_string(publicKeys.size()) + " key(s) in ~/.ssh, but the agent is holding none — " +
           "run ssh-add to load one.";
}

namespace GitIdentity {

bool isEmail(std::string_view text) {
    auto at = text.find('@');
    if (at == std::string_view::npos || at == 0 || text.find('@', at + 1) != std::string_view::npos) return false;
    auto domain = text.substr(at + 1);
    auto dot = domain.find('.');
    if (dot == std::string_view::npos || dot == 0 || domain.back() == '.') return false;
    return std::none_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c) || c < 0x20; });
}

Result set(const std::string& name, const std::string& email, const ProgramLookup& lookup, DiagnosticLog& log,
           const std::vector<std::string>& environment) {
    std::string cleanName = trimmed(name);
    std::string cleanEmail = trimmed(email);
    if (cleanName.empty()) return Result::failed("That is not a name.");
    if (!isEmail(cleanEmail)) return Result::failed("That is not an email address.");
    auto program = lookup ? lookup("/usr/bin/git") : std::nullopt;
    if (!program) return Result::failed("git is not available: /usr/bin/git is not there");
    for (const auto& [key, value] : {std::pair{"user.name", cleanName}, std::pair{"user.email", cleanEmail}}) {
        auto result = runToolProcess(*program, {"config", "--global", key, value}, 10.0, environment);
        if (result.failedToStart) return Result::failed("git is not available: " + result.startError);
        if (result.timedOut || result.status != 0) {
            std::string why = trimmed(result.output);
            return Result::failed("git is not available: " + (why.empty() ? "status " + std::to_string(result.status) : why));
        }
    }
    log.note("path", "set a global identity");
    return Result::done();
}

} // namespace GitIdentity

} // namespace tavrick
