#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tavrick {

enum class PomodoroPhase { focus, shortBreak, longBreak };

// "Focus", "Short Break", "Long Break": also the raw value.
std::string_view displayName(PomodoroPhase phase);
std::string_view rawValue(PomodoroPhase phase);
std::optional<PomodoroPhase> pomodoroPhaseFromRaw(std::string_view raw);
std::span<const PomodoroPhase> allPomodoroPhases();
inline bool isBreak(PomodoroPhase phase) { return phase != PomodoroPhase::focus; }

struct PomodoroConfig {
    int focusMinutes = 25;
    int shortBreakMinutes = 5;
    int longBreakMinutes = 15;
    int sessionsBeforeLongBreak = 4;
    bool autoAdvance = true;
    bool keepAwakeDuringFocus = true;

    // In seconds; a length below one minute counts as one minute.
    double duration(PomodoroPhase phase) const;

    friend bool operator==(const PomodoroConfig&, const PomodoroConfig&) = default;
};

nlohmann::json toJSON(const PomodoroConfig& config);
// Missing keys take the defaults; a key of the wrong type gives nothing.
std::optional<PomodoroConfig> pomodoroConfigFromJSON(const nlohmann::json& json);

// The fixed cycle: focus, a break, focus, ... with a long break after every
// `sessionsBeforeLongBreak` completed focus phases.
namespace PomodoroCycle {
struct Transition {
    PomodoroPhase phase;
    int completedFocusSessions;
    friend bool operator==(const Transition&, const Transition&) = default;
};
Transition next(PomodoroPhase after, int completedFocusSessions, const PomodoroConfig& config);
} // namespace PomodoroCycle

// The lengths the pane offers, in minutes.
enum class PomodoroLength { five = 5, ten = 10, fifteen = 15, twentyFive = 25 };
std::span<const PomodoroLength> allPomodoroLengths();
// "5 minutes"
std::string displayName(PomodoroLength length);

// The commands the menu offers; raw value is the case name.
enum class PomodoroCommand { startOrPause, skipPhase, reset };
std::span<const PomodoroCommand> allPomodoroCommands();
std::string_view rawValue(PomodoroCommand command);
std::optional<PomodoroCommand> pomodoroCommandFromRaw(std::string_view raw);
// "Start / pause Pomodoro", "Skip Pomodoro phase", "Reset Pomodoro"
std::string_view displayName(PomodoroCommand command);

} // namespace tavrick
