#pragma once

#include "CoreKit/Dispatch.h"
#include "MonitorKit/LocalServerMonitor.h"
#include "NetCore/SocketTable.h"

#include <filesystem>
#include <memory>
#include <optional>

namespace tavrick {

namespace LinuxProcessControl {

// The identity of a live process as the socket table names it: start time from
// /proc/<pid>/stat and the name its argument zero gives. A zombie counts as gone: it has
// stopped, and only its parent's bookkeeping is left.
std::optional<ProcessControl::Identity> identity(std::int32_t pid, const std::filesystem::path& procRoot = "/proc");

// kill(2) and errno, identities from /proc, listeners from the socket table (without
// `selfPID`), waits on the scheduler's main queue.
ProcessControl make(std::shared_ptr<SocketTableReader> reader, std::int32_t selfPID, Scheduler& scheduler);

} // namespace LinuxProcessControl

} // namespace tavrick
