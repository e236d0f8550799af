#include "PomodoroKit/Pomodoro.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>

namespace tavrick {

namespace {
constexpr std::array phases = {PomodoroPhase::focus, PomodoroPhase::shortBreak, PomodoroPhase::longBreak};
constexpr std::array commands = {PomodoroCommand::startOrPause, PomodoroCommand::skipPhase, PomodoroCommand::reset};
constexpr std::array lengths = {PomodoroLength::five, PomodoroLength::ten, PomodoroLength::fifteen,
                                PomodoroLength::twentyFive};
} // namespace

std::string_view displayName(PomodoroPhase phase) {
    switch (phase) {
    case PomodoroPhase::focus: return "Focus";
    case PomodoroPhase::shortBreak: return "Short Break";
    case PomodoroPhase::longBreak: return "Long Break";
    }
    return "Focus";
}

std::string_view rawValue(PomodoroPhase phase) {
    return displayName(phase);
}

std::optional<PomodoroPhase> pomodoroPhaseFromRaw(std::string_view raw) {
    for (auto phase : phases) {
        if (rawValue(phase) == raw) return phase;
    }
    return std::nullopt;
}

std::span<const PomodoroPhase> allPomodoroPhases() {
    return phases;
}

double PomodoroConfig::duration(PomodoroPhase phase) const {
    int minutes = focusMinutes;
    if (phase == PomodoroPhase::shortBreak) minutes = shortBreakMinutes;
    if (phase == PomodoroPhase::longBreak) minutes = longBreakMinutes;
    return std::max(1, minutes) * 60.0;
}

nlohmann::json toJSON(const PomodoroConfig& config) {
    return {
        {"focusMinutes", config.focusMinutes},
        {"shortBreakMinutes", config.shortBreakMinutes},
        {"longBreakMinutes", config.longBreakMinutes},
        {"sessionsBeforeLongBreak", config.sessionsBeforeLongBreak},
        {"autoAdvance", config.autoAdvance},
        {"keepAwakeDuringFocus", config.keepAwakeDuringFocus},
    };
}

std::optional<PomodoroConfig> pomodoroConfigFromJSON(const nlohmann::json& json) {
    if (!json.is_object()) return std::nullopt;
    PomodoroConfig config;
    for (auto [key, field] : {std::pair{"focusMinutes", &config.focusMinutes},
                              std::pair{"shortBreakMinutes", &config.shortBreakMinutes},
                              std::pair{"longBreakMinutes", &config.longBreakMinutes},
                              std::pair{"sessionsBeforeLongBreak", &config.sessionsBeforeLongBreak}}) {
        auto found = json.find(key);
        if (found == json.end()) continue;
        if (!found->is_number_integer()) return std::nullopt;
        const auto value = found->get<long long>();
        if (value < -100000 || value > 100000) return std::nullopt;
        *field = static_cast<int>(value);
    }
    for (auto [key, field] : {std::pair{"autoAdvance", &config.autoAdvance},
                              std::pair{"keepAwakeDuringFocus", &config.keepAwakeDuringFocus}}) {
        auto found = json.find(key);
        if (found == json.end()) continue;
        if (!found->is_boolean()) return std::nullopt;
        *field = found->get<bool>();
    }
    return config;
}

PomodoroCycle::Transition PomodoroCycle::next(PomodoroPhase after, int completedFocusSessions,
                                              const PomodoroConfig& config) {
    if (isBreak(after)) return {PomodoroPhase::focus, completedFocusSessions};
    const int completed = completedFocusSessions + 1;
    const int every = std::max(1, config.sessionsBeforeLongBreak);
    return {completed % every == 0 ? PomodoroPhase::longBreak : PomodoroPhase::shortBreak, completed};
}

std::span<const PomodoroLength> allPomodoroLengths() {
    return lengths;
}

std::string displayName(PomodoroLength length) {
    return std::to_string(static_cast<int>(length)) + " minutes";
}

std::span<const PomodoroCommand> allPomodoroCommands() {
    return commands;
}

std::string_view rawValue(PomodoroCommand command) {
    switch (command) {
    case PomodoroCommand::startOrPause: return "startOrPause";
    case PomodoroCommand::skipPhase: return "skipPhase";
    case PomodoroCommand::reset: return "reset";
    }
    return "startOrPause";
}

std::optional<PomodoroCommand> pomodoroCommandFromRaw(std::string_view raw) {
    for (auto command : commands) {
        if (rawValue(command) == raw) return command;
    }
    return std::nullopt;
}

std::string_view displayName(PomodoroCommand command) {
    switch (command) {
    case PomodoroCommand::startOrPause: return "Start / pause Pomodoro";
    case PomodoroCommand::skipPhase: return "Skip Pomodoro phase";
    case PomodoroCommand::reset: return "Reset Pomodoro";
    }
    return "Start / pause Pomodoro";
}

} // namespace tavrick
