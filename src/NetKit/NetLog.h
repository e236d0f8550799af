#pragma once

#include "CoreKit/Log.h"

namespace tavrick::NetLog {

// The developer channel of the network watcher and the filter link.
inline constexpr Logger network{"network"};

} // namespace tavrick::NetLog
