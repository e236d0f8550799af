#include "Platform/DBus/BusNames.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>

namespace tavrick::BusNames {

bool hasOwner(sdbus::IConnection& connection, const std::string& name) {
    try {
        auto bus = sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        bool owned = false;
        bus->callMethod("NameHasOwner")
            .onInterface("org.freedesktop.DBus")
            .withTimeout(std::chrono::seconds(2))
            .withArguments(name)
            .storeResultsTo(owned);
        return owned;
    } catch (const sdbus::Error&) {
        return false;
    }
}

bool isOffered(sdbus::IConnection& connection, const std::string& name) {
    if (hasOwner(connection, name)) return true;
    try {
        auto bus = sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        std::vector<std::string> activatable;
        bus->callMethod("ListActivatableNames")
            .onInterface("org.freedesktop.DBus")
            .withTimeout(std::chrono::seconds(2))
            .storeResultsTo(activatable);
        return std::find(activatable.begin(), activatable.end(), name) != activatable.end();
    } catch (const sdbus::Error&) {
        return false;
    }
}

} // namespace tavrick::BusNames
