#include "SigningCore/CodeIdentity.h"

#include <openssl/evp.h>

#include <cstdio>
#include <fstream>
#include <sys/stat.h>
#include <vector>

namespace tavrick::CodeIdentity {

namespace {
bool isBuild(const std::string& build) {
    if (build.empty()) return false;
    std::size_t start = 0;
    while (true) {
        auto dot = build.find('.', start);
        auto part = build.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
        if (part.empty()) return false;
        for (char c : part) {
            if (c < '0' || c > '9') return false;
        }
        if (dot == std::string::npos) return true;
        start = dot + 1;
    }
}

constexpr std::string_view basePrefix =
    "anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6] exists and certificate "
    "leaf[field.1.2.840.113635.100.6.1.13] exists and certificate leaf[subject.OU] = \"";
constexpr std::string_view identifierPart = "\" and identifier \"";
constexpr std::string_view buildPart = "\" and info[CFBundleVersion] >= \"";
} // namespace

bool isValidTeam(const std::string& team) {
    if (team.size() != 10) return false;
    for (char c : team) {
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z'))) return false;
    }
    return true;
}

bool isValidIdentifier(const std::string& identifier) {
    if (identifier.empty()) return false;
    for (char c : identifier) {
        const bool ok = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '.' ||
                        c == '-' || c == '_';
        if (!ok) return false;
    }
    return true;
}

std::string developerID(const std::string& team) { return std::string(basePrefix) + team + "\""; }

std::optional<std::string> identifierRequirement(const std::optional<std::string>& team, const std::string& identifier) {
    // No team is an ad-hoc or unsigned build, which has no way to talk to a helper.
    if (!team || !isValidTeam(*team) || !isValidIdentifier(identifier)) return std::nullopt;
    return developerID(*team) + " and identifier \"" + identifier + "\"";
}

std::optional<std::string> clientRequirement(const std::optional<std::string>& team, const std::string& appIdentifier,
                                             const std::string& minimumBuild) {
    auto base = identifierRequirement(team, appIdentifier);
    if (!base) return std::nullopt;
    if (minimumBuild.empty()) return base;
    if (!isBuild(minimumBuild)) return std::nullopt;
    // Stops an old copy of the application from driving a newer helper.
    return *base + " and info[CFBundleVersion] >= \"" + minimumBuild + "\"";
}

std::optional<Requirement> parseRequirement(const std::string& text) {
    if (text.rfind(basePrefix, 0) != 0) return std::nullopt;
    std::size_t at = basePrefix.size();
    Requirement requirement;
    requirement.team = text.substr(at, 10);
    at += 10;
    if (!isValidTeam(requirement.team) || text.compare(at, identifierPart.size(), identifierPart) != 0) return std::nullopt;
    at += identifierPart.size();
    auto close = text.find('"', at);
    if (close == std::string::npos) return std::nullopt;
    requirement.identifier = text.substr(at, close - at);
    if (!isValidIdentifier(requirement.identifier)) return std::nullopt;
    if (close + 1 == text.size()) return requirement;
    if (text.compare(close, buildPart.size(), buildPart) != 0) return std::nullopt;
    at = close + buildPart.size();
    if (text.empty() || text.back() != '"' || text.size() <= at) return std::nullopt;
    auto build = text.substr(at, text.size() - 1 - at);
    if (!isBuild(build)) return std::nullopt;
    requirement.minimumBuild = build;
    return requirement;
}

bool isValidRequirement(const std::string& text) { return parseRequirement(text).has_value(); }

std::optional<std::string> teamOfExecutable(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    char team[16];
    std::snprintf(team, sizeof team, "%010u", static_cast<unsigned>(info.st_uid));
    std::string text(team);
    if (!isValidTeam(text)) return std::nullopt;
    return text;
}

std::filesystem::path ownExecutable() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::path{} : path;
}

std::optional<std::string> ownTeamID() { return teamOfExecutable("/proc/self/exe"); }

std::optional<std::string> cdHash(const std::filesystem::path& executable) {
    std::ifstream file(executable, std::ios::binary);
    if (!file) return std::nullopt;
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (!context) return std::nullopt;
    bool ok = EVP_DigestInit_ex(context, EVP_sha256(), nullptr) == 1;
    std::vector<char> buffer(1 << 16);
    while (ok && file) {
        file.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        if (file.gcount() > 0) ok = EVP_DigestUpdate(context, buffer.data(), static_cast<std::size_t>(file.gcount())) == 1;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    ok = ok && file.eof() && EVP_DigestFinal_ex(context, digest, &length) == 1;
    EVP_MD_CTX_free(context);
    if (!ok) return std::nullopt;
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out.push_back(hex[digest[i] >> 4]);
        out.push_back(hex[digest[i] & 0xF]);
    }
    return out;
}

std::optional<std::string> ownCDHash() { return cdHash("/proc/self/exe"); }

} // namespace tavrick::CodeIdentity
