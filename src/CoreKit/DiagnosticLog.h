#pragma once

#include "CoreKit/Dispatch.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// The user's log: a plain text file in the support directory that survives the run, one line an
// event, never content. It also keeps the clean-shutdown marker.
class DiagnosticLog : public std::enable_shared_from_this<DiagnosticLog> {
public:
    static constexpr std::uint64_t rotateAtBytes = 524288;

    // Writes go through a serial queue labelled "com.orvell.tavrick.diagnostic-log" made from
    // `scheduler`; stamps come from its clock.
    static std::shared_ptr<DiagnosticLog> make(std::filesystem::path directory, Scheduler& scheduler);
    // The process-wide log, in the support directory, on the real scheduler.
    static DiagnosticLog& shared();

    ~DiagnosticLog();

    // Any thread; never blocks on the disk.
    void note(std::string_view category, std::string_view message);
    // Any thread but the log's own queue: returns when everything noted before is on disk.
    void flush();
    // True when the previous run ended cleanly.
    bool beginSession();
    void endSession();
    // Previous file then current file, flushed first; missing files contribute nothing.
    std::string contents();
    std::uint64_t sizeInBytes();
    void clear();

    std::filesystem::path fileURL() const;
    std::filesystem::path previousFileURL() const;
    std::filesystem::path markerURL() const;
    const std::filesystem::path& directory() const { return directory_; }

private:
    DiagnosticLog(std::filesystem::path directory, Scheduler& scheduler);
    struct Handle;
    void append(const std::string& line);
    Handle* openHandle();
    void rotate();
    void closeHandle();

    std::filesystem::path directory_;
    Scheduler& scheduler_;
    Clock& clock_;
    std::shared_ptr<SerialQueue> queue_;
    // Wall time at which note() last asked the system for its time zone.
    std::atomic<double> zoneCheckedAt_;
    // Guards `handle_` and every file operation, against clear() which skips the queue.
    std::mutex lock_;
    std::unique_ptr<Handle> handle_;
};

} // namespace tavrick
