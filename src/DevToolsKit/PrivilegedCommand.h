#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "DevToolsKit/PathDoctor.h"

#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// A shell command run as the administrator, after the system has asked for the password.
namespace PrivilegedCommand {

struct Result {
    enum class Kind { ran, cancelled, failed };
    Kind kind = Kind::ran;
    std::string error;  // failed
    bool operator==(const Result&) const = default;
};

// A double quote or a backslash could break out of the script string, so such a command is
// never run.
std::optional<std::string> refusal(std::string_view command);
// The script the password prompt runs: do shell script "…" with administrator privileges.
std::string script(std::string_view command);
// Runs `arguments` (the prompt program and the command) through `run`. A cancelled prompt is
// told from a failure by the prompt program's exit status 126 or an error text holding "-128".
Result run(std::string_view command, const std::vector<std::string>& arguments, const ShellRunner& runner, DiagnosticLog* log);

} // namespace PrivilegedCommand

} // namespace tavrick
