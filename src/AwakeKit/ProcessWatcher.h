#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace tavrick {

// Finds a running application's process and tells when it ends, for a keep-awake session that
// lasts while an app runs.
class ProcessWatcher {
public:
    // One process, told apart from a later one that reuses its id by its start time.
    struct Instance {
        pid_t pid = 0;
        unsigned long long startTime = 0;
        friend bool operator==(const Instance&, const Instance&) = default;
    };

    // Stops watching when destroyed; after that `onExit` is never called.
    class Watch {
    public:
        virtual ~Watch() = default;
    };

    virtual ~ProcessWatcher() = default;
    // The oldest running process of the application, nothing when none runs.
    virtual std::optional<Instance> find(const std::string& bundleID) = 0;
    // Calls `onExit` once, on any thread, when the instance ends; at once when it has already
    // ended (or its id now belongs to another process).
    virtual std::unique_ptr<Watch> watchExit(const Instance& instance, std::function<void()> onExit) = 0;
};

} // namespace tavrick
