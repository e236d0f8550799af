#pragma once

#include "NetKit/FilterController.h"
#include "NetKit/FlowMonitor.h"
#include "NetKit/HostResolver.h"

#include <filesystem>
#include <memory>

namespace tavrick {

// What the network watcher is made over: its sources, the resolver's lookup and the filter's
// system side. An empty factory gives a watcher that reads nothing.
struct NetworkPorts {
    FlowMonitor::SourceFactory makeSource;
    FlowMonitor::SourceFactory makeExtensionSource;
    HostLookup lookup;
    std::shared_ptr<FilterSystem> filterSystem;
    // Where "network-seen.json" lives; empty for the folder of the mappings file.
    std::filesystem::path supportDirectory;
};

} // namespace tavrick
