#pragma once

#include <atomic>
#include <functional>
#include <string_view>

namespace tavrick {

enum class LogLevel { debug = 0, info = 1, notice = 2, error = 3, fault = 4 };

// A developer channel: levelled lines to standard error under a category. Formatting happens
// only for levels that are on, so a disabled debug line costs one atomic load.
class Logger {
public:
    constexpr explicit Logger(const char* category) : category_(category) {}

    const char* category() const { return category_; }
    bool isEnabled(LogLevel level) const;

    void debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    // The default level.
    void notice(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void fault(const char* format, ...) const __attribute__((format(printf, 2, 3)));

private:
    const char* category_;
};

namespace Log {

extern const Logger core;
extern const Logger awake;
extern const Logger hotkey;
extern const Logger gesture;
extern const Logger action;
extern const Logger permissions;
extern const Logger windows;
extern const Logger pomodoro;
extern const Logger clipboard;
extern const Logger notepad;
extern const Logger lid;

// Debug is off unless asked for.
void setMinimumLevel(LogLevel level);
LogLevel minimumLevel();

// Where lines go; an empty sink restores standard error. For tests that read what was logged.
using Sink = std::function<void(LogLevel, std::string_view category, std::string_view message)>;
void setSink(Sink sink);

const char* levelName(LogLevel level);

} // namespace Log

} // namespace tavrick
