#pragma once

#include "NetKit/HostResolver.h"

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace tavrick {

// The system's resolver behind the host resolver's port.
namespace LinuxHostLookup {

// getnameinfo with a name required: numeric address to name, with one trailing "." removed.
// Nothing for an unparsable address or one without a name. Blocks.
std::optional<std::string> reverseLookup(const std::string& address);
// The "nameserver" addresses of a resolv.conf text.
std::set<std::string> nameservers(std::string_view resolvConf);
// The lookup, the servers of `resolvConf` and a thread per blocking call.
HostLookup make(std::filesystem::path resolvConf = "/etc/resolv.conf");

} // namespace LinuxHostLookup

} // namespace tavrick
