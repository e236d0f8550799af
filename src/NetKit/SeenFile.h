#pragma once

#include "NetCore/SeenStore.h"

#include <filesystem>
#include <functional>

namespace tavrick {

class DiagnosticLog;

// "network-seen.json": the seen store on disk. A missing file is a first run; an unreadable one
// is moved aside, never overwritten, and the watcher starts again with an empty memory.
struct SeenFile {
    static constexpr const char* fileName = "network-seen.json";

    std::filesystem::path url;
    DiagnosticLog* log = nullptr;
    // Seconds since 1970 for the moved-aside file's name.
    std::function<double()> now;

    SeenStore load() const;
    // Writes atomically; a failure is logged and the store in memory goes on.
    bool save(const SeenStore& store) const;
    // "network-seen.corrupt-<seconds>" beside the file.
    std::filesystem::path corruptPath(long long seconds) const;
};

} // namespace tavrick
