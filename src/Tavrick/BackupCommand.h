#pragma once

#include <filesystem>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

class AppCoordinator;

// "--export-backup <file>" and "--import-backup <file>": the backup sheets from a terminal.
// They are not diagnostics: an import changes the user's files, as the restore sheet would.
namespace BackupCommand {

inline constexpr const char* exportFlag = "--export-backup";
inline constexpr const char* importFlag = "--import-backup";

struct Request {
    enum class Kind { exportBackup, importBackup };
    Kind kind = Kind::exportBackup;
    std::filesystem::path file;
    bool operator==(const Request&) const = default;
};

// The first of the two flags found, with its file; a flag without a file is ignored with a
// sentence in `problems`.
std::optional<Request> parse(const std::vector<std::string>& arguments, std::vector<std::string>* problems = nullptr);

// How the command talks to the person: one secret line per prompt (nothing at the end of the
// input), and a way to let the main queue run until something is done.
struct Console {
    std::function<std::optional<std::string>(const std::string& prompt)> readSecret;
    std::function<void(const std::function<bool()>& finished)> runUntil;
    std::ostream& out;
};

// A line from the terminal without echo, or from standard input when it is not a terminal.
std::optional<std::string> readSecretLine(const std::string& prompt);

// Runs the request against the coordinator's stores; the exit status.
int run(AppCoordinator& coordinator, const Request& request, Console& console);

} // namespace BackupCommand

} // namespace tavrick
