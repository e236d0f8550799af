#pragma once

#include <string>

namespace sdbus {
class IConnection;
}

namespace tavrick::BusNames {

// Whether `name` has an owner on the connection's bus, or the bus can start one for it. False
// when the bus does not answer. Call on the bus thread.
bool isOffered(sdbus::IConnection& connection, const std::string& name);
// Whether `name` has an owner now.
bool hasOwner(sdbus::IConnection& connection, const std::string& name);

} // namespace tavrick::BusNames
