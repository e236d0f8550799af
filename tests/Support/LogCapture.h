#pragma once

#include "CoreKit/Log.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace tavrick::testing {

// Collects developer log lines while it lives, from every thread. Lines of other categories or
// levels below `minimum` are dropped; the previous minimum level comes back at the end.
class LogCapture {
public:
    struct Line {
        LogLevel level;
        std::string category;
        std::string message;
    };

    explicit LogCapture(LogLevel minimum = LogLevel::info) : previous_(Log::minimumLevel()) {
        Log::setMinimumLevel(minimum);
        Log::setSink([this](LogLevel level, std::string_view category, std::string_view message) {
            std::lock_guard lock(mutex_);
            lines_.push_back({level, std::string(category), std::string(message)});
        });
    }
    ~LogCapture() {
        Log::setSink({});
        Log::setMinimumLevel(previous_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    // The messages of one category, in order.
    std::vector<std::string> messages(const std::string& category) const {
        std::vector<std::string> out;
        for (auto& line : lines()) {
            if (line.category == category) out.push_back(line.message);
        }
        return out;
    }
    std::size_t count(const std::string& category, const std::string& message) const {
        auto all = messages(category);
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), message));
    }
    bool contains(const std::string& category, const std::string& message) const {
        return count(category, message) > 0;
    }
    // Whether a line of this level, in any category, holds `fragment`.
    bool has(LogLevel level, const std::string& fragment) const {
        auto all = lines();
        return std::any_of(all.begin(), all.end(), [&](const Line& line) {
            return line.level == level && line.message.find(fragment) != std::string::npos;
        });
    }

private:
    LogLevel previous_;
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

} // namespace tavrick::testing
