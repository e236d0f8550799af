#pragma once

#include "CoreKit/Pasteboard.h"

#include <nlohmann/json_fwd.hpp>

#include <filesystem>
#include <functional>
#include <mutex>
#include <utility>

namespace tavrick {

// The general pasteboard of the simulated session. Safe from any thread: the session bridge
// writes into it from its own thread while the program polls it on the main queue.
class SimulatedPasteboard final : public Pasteboard {
public:
    std::int64_t changeCount() const override;
    std::vector<std::string> types() const override;
    std::optional<std::string> string(const std::string& type = plainTextType) const override;
    std::int64_t clearContents() override;
    bool setString(const std::string& text, const std::string& type = plainTextType) override;
    std::optional<std::int64_t> oversizedTextBytes() const override;

    // Scripting: what another application's copy puts there, in one change. Each entry is a
    // type and its data; a marker type usually carries empty data.
    void copy(std::vector<std::pair<std::string, std::string>> entries);
    // Scripting: a copy of `bytes` of text too large to read, offered with `types` besides the text.
    void copyOversized(std::int64_t bytes, std::vector<std::string> types = {});
    // Makes every following write fail, as a pasteboard owned by another process can.
    void setRefusesWrites(bool refuses);
    // What the session's state file shows of the pasteboard: the change count and the types, never
    // the text, as {"changeCount": 3, "types": [...]}.
    nlohmann::json stateSection() const;
    // Told after every change, with the new count and types, outside the lock.
    void setOnChange(std::function<void(std::int64_t, const std::vector<std::string>&)> onChange);

private:
    void changed(std::unique_lock<std::mutex>& lock);

    mutable std::mutex mutex_;
    std::int64_t changeCount_ = 0;
    std::vector<std::pair<std::string, std::string>> entries_;
    std::optional<std::int64_t> oversizedBytes_;
    bool refusesWrites_ = false;
    std::function<void(std::int64_t, const std::vector<std::string>&)> onChange_;
};

} // namespace tavrick
