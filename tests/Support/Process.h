#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavrick::testing {

struct ProcessResult {
    int status = -1;  // exit status, or 128 + signal
    std::string output;  // standard output and standard error together
};

// A child program with its own environment; its output collected through a pipe.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Reads until `text` has appeared in the output, or `timeoutSeconds` passed.
    bool waitForOutput(const std::string& text, double timeoutSeconds);
    void signal(int signalNumber);
    // Waits for the end, reading what is left; the status, or nothing after the time-out.
    std::optional<int> wait(double timeoutSeconds);
    const std::string& output() const { return output_; }

private:
    bool readSome(int timeoutMs);
    int pid_ = -1;
    int out_ = -1;
    std::string output_;
    std::optional<int> status_;
};

// Runs to the end (killed after `timeoutSeconds`).
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment, double timeoutSeconds = 30);

// The environment for running the program against a temporary home under `root`.
std::map<std::string, std::string> isolatedEnvironment(const std::filesystem::path& root);

} // namespace tavrick::testing
