#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/ManualScheduler.h"
#include "GestureEngine/GestureEngine.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Platform/Simulated/SimulatedTrackpad.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace tavrick::testing {

// An engine over the simulated trackpad and session, on virtual time, with what it fires and
// recognises collected.
class GestureEngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine.setOnTrigger([this](const Mapping& mapping) { fired.push_back(mapping); });
        engine.setOnRecognize([this](const GestureSpec& spec) {
            std::lock_guard lock(mutex);
            recognised.push_back(spec);
        });
    }

    // The diagnostic notes under "gesture", without their stamps; only the per-hand lines when
    // `sessionsOnly`.
    std::vector<std::string> notes(bool sessionsOnly = false) {
        scheduler.runUntilIdle();
        std::vector<std::string> lines;
        std::istringstream in(log->contents());
        const std::string tag = sessionsOnly ? " [gesture] session " : " [gesture] ";
        for (std::string line; std::getline(in, line);) {
            auto at = line.find(tag);
            if (at != std::string::npos) lines.push_back(line.substr(at + 11));
        }
        return lines;
    }
    std::vector<std::string> sessionLines() { return notes(true); }

    void play(const std::vector<TouchFrame>& frames) {
        for (const auto& frame : frames) engine.handle(frame);
        scheduler.runUntilIdle();
    }

    TempDir temp;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(temp / "support", scheduler);
    SimulatedSession session;
    std::shared_ptr<SimulatedTrackpad> pad = std::make_shared<SimulatedTrackpad>();
    GestureEngine engine{pad, *log, session, scheduler};
    std::mutex mutex;
    std::vector<Mapping> fired;
    std::vector<GestureSpec> recognised;
};

} // namespace tavrick::testing
