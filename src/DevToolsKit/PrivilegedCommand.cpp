#include "DevToolsKit/PrivilegedCommand.h"

namespace tavrick::PrivilegedCommand {

std::optional<std::string> refusal(std::string_view command) {
    if (command.find('"') != std::string_view::npos) return "Refused a command containing a quote.";
    if (command.find('\\') != std::string_view::npos) return "Refused a command containing a backslash.";
    return std::nullopt;
}

std::string script(std::string_view command) {
    return "do shell script \"" + std::string(command) + "\" with administrator privileges";
}

Result run(std::string_view command, const std::vector<std::string>& arguments, const ShellRunner& runner, DiagnosticLog* log) {
    auto note = [log](const std::string& message) {
        if (log) log->note("path", message);
    };
    if (auto refused = refusal(command)) return {Result::Kind::failed, *refused};
    // The prompt may wait for the person for a long time.
    auto result = runner(arguments, 600);
    if (result.end == ShellRun::End::exited && result.status == 0) {
        note("ran: " + std::string(command));
        return {Result::Kind::ran, {}};
    }
    if (result.status == 126 || result.output.find("-128") != std::string::npos) {
        note("cancelled at the password prompt");
        return {Result::Kind::cancelled, {}};
    }
    std::string error = result.output.empty() ? "exit status " + std::to_string(result.status) : result.output;
    while (!error.empty() && (error.back() == '\n' || error.back() == '\r')) error.pop_back();
    note("failed: " + error);
    return {Result::Kind::failed, error};
}

} // namespace tavrick::PrivilegedCommand
