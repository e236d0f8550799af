#include "CoreKit/Log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace tavrick {

namespace {

std::atomic<int> minimum{static_cast<int>(LogLevel::info)};

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

Log::Sink& sink() {
    static Log::Sink s;
    return s;
}

void emit(LogLevel level, const char* category, const char* format, va_list args) {
    char stackBuffer[512];
    va_list copy;
    va_copy(copy, args);
    int length = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
    va_end(copy);
    if (length < 0) return;
    std::string message;
    if (static_cast<std::size_t>(length) < sizeof stackBuffer) {
        message.assign(stackBuffer, static_cast<std::size_t>(length));
    } else {
        message.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(message.data(), message.size(), format, args);
        message.resize(static_cast<std::size_t>(length));
    }
    std::lock_guard lock(sinkMutex());
    if (sink()) {
        sink()(level, category, message);
    } else {
        std::fprintf(stderr, "tavrick[%s] %s: %s\n", category, Log::levelName(level), message.c_str());
    }
}

} // namespace

bool Logger::isEnabled(LogLevel level) const {
    return static_cast<int>(level) >= minimum.load(std::memory_order_relaxed);
}

#define TAVRICK_LOGGER_LEVEL(method, level)                   \
    void Logger::method(const char* format, ...) const {      \
        if (!isEnabled(level)) return;                        \
        va_list args;                                         \
        va_start(args, format);                               \
        emit(level, category_, format, args);                 \
        va_end(args);                                         \
    }

TAVRICK_LOGGER_LEVEL(debug, LogLevel::debug)
TAVRICK_LOGGER_LEVEL(info, LogLevel::info)
TAVRICK_LOGGER_LEVEL(notice, LogLevel::notice)
TAVRICK_LOGGER_LEVEL(error, LogLevel::error)
TAVRICK_LOGGER_LEVEL(fault, LogLevel::fault)

#undef TAVRICK_LOGGER_LEVEL

namespace Log {

const Logger core{"core"};
const Logger awake{"awake"};
const Logger hotkey{"hotkey"};
const Logger gesture{"gesture"};
const Logger action{"action"};
const Logger permissions{"permissions"};
const Logger windows{"windows"};
const Logger pomodoro{"pomodoro"};
const Logger clipboard{"clipboard"};
const Logger notepad{"notepad"};
const Logger lid{"lid"};

void setMinimumLevel(LogLevel level) {
    minimum.store(static_cast<int>(level), std::memory_order_relaxed);
}

LogLevel minimumLevel() {
    return static_cast<LogLevel>(minimum.load(std::memory_order_relaxed));
}

void setSink(Sink s) {
    std::lock_guard lock(sinkMutex());
    sink() = std::move(s);
}

const char* levelName(LogLevel level) {
    switch (level) {
    case LogLevel::debug: return "debug";
    case LogLevel::info: return "info";
    case LogLevel::notice: return "notice";
    case LogLevel::error: return "error";
    case LogLevel::fault: return "fault";
    }
    return "notice";
}

} // namespace Log

} // namespace tavrick
