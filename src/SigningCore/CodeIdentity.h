#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tavrick {

// How the two ends of a local link prove they come from the same developer. The requirement
// texts are built from checked inputs only, since a stray quotation mark would change their
// meaning. On Linux the code signature is stood in for by the SHA-256 of the executable (its
// "code directory hash"), and the signing team by the account that owns the executable.
namespace CodeIdentity {

// Exactly 10 ASCII characters, each a digit or an upper-case letter.
bool isValidTeam(const std::string& team);
// Letters, digits, '.', '-' and '_', not empty.
bool isValidIdentifier(const std::string& identifier);

// "anchor apple generic and certificate 1[...] exists and ... leaf[subject.OU] = "TEAM""
std::string developerID(const std::string& team);
std::optional<std::string> identifierRequirement(const std::optional<std::string>& team, const std::string& identifier);
std::optional<std::string> clientRequirement(const std::optional<std::string>& team, const std::string& appIdentifier,
                                             const std::string& minimumBuild);

// The parts of a requirement text this program builds; nothing for any other text.
struct Requirement {
    std::string team;
    std::string identifier;
    std::optional<std::string> minimumBuild;
    friend bool operator==(const Requirement&, const Requirement&) = default;
};
std::optional<Requirement> parseRequirement(const std::string& text);
bool isValidRequirement(const std::string& text);

// The team of the executable at `path`: its owner's user id as ten digits.
std::optional<std::string> teamOfExecutable(const std::filesystem::path& path);
std::optional<std::string> ownTeamID();
// The SHA-256 of the executable, lower-case hexadecimal.
std::optional<std::string> cdHash(const std::filesystem::path& executable);
std::optional<std::string> ownCDHash();
std::filesystem::path ownExecutable();

} // namespace CodeIdentity

} // namespace tavrick
