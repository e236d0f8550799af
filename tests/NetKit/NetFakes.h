#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/ManualScheduler.h"
#include "NetCore/Flow.h"
#include "NetCore/SocketTable.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavrick::testing {

// A test on virtual time with the user's log in a folder of its own.
struct LoggedTest : ::testing::Test {
    TempDir root;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(root / "logs", scheduler);
    double now() { return scheduler.clock().now(); }
    // The user's log without its stamps.
    std::vector<std::string> notes() {
        log->flush();
        std::vector<std::string> lines;
        std::istringstream in(log->contents());
        for (std::string line; std::getline(in, line);) lines.push_back(line.size() > 24 ? line.substr(24) : line);
        return lines;
    }
};

// A source the test drives: it records its life and hands over the batches it is given.
class FakeFlowSource final : public FlowSource {
public:
    FakeFlowSource(FlowScope scope, std::optional<std::string> failure = std::nullopt)
        : scope_(scope), failure_(std::move(failure)) {}
    void start() override {
        starts += 1;
        if (failure_) throw std::runtime_error(*failure_);
        running_ = true;
    }
    void stop() override {
        stops += 1;
        running_ = false;
    }
    bool isRunning() const override { return running_; }
    FlowScope scope() const override { return scope_; }
    void setOnFlows(FlowsCallback callback) override { onFlows_ = std::move(callback); }
    // As the source's own queue would.
    void deliver(const std::vector<Flow>& flows) {
        if (onFlows_) onFlows_(flows);
    }
    bool hasCallback() const { return static_cast<bool>(onFlows_); }

    int starts = 0;
    int stops = 0;

private:
    FlowScope scope_;
    std::optional<std::string> failure_;
    bool running_ = false;
    FlowsCallback onFlows_;
};

inline Flow makeFlow(std::int32_t pid, const std::string& path, const std::string& name, const std::string& host,
                     std::uint16_t localPort = 50000, double startedAt = 1000) {
    return {.pid = pid, .processStartedAt = startedAt, .name = name, .executablePath = path,
            .local = {"127.0.0.1", localPort, false}, .remote = {host, 443, false}};
}

} // namespace tavrick::testing
