#pragma once

#include "NetCore/Flow.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// The names the app and the filter extension agree on.
namespace NetFilterIdentity {
inline constexpr std::string_view bundleIdentifier = "com.orvell.tavrick.netfilter";
inline constexpr std::string_view bundleName = "com.orvell.tavrick.netfilter.systemextension";
inline constexpr std::string_view executableName = "TavrickNetFilter";
inline constexpr std::string_view providerClass = "TavrickNetFilter.FilterProvider";
inline constexpr std::string_view providerKey = "com.apple.networkextension.filter-data";
inline constexpr std::string_view appIdentifier = "com.orvell.tavrick";
inline constexpr std::string_view teamPlaceholder = "__TEAM_ID__";

std::string machServiceName(std::string_view team);
// "<app>/Contents/Library/SystemExtensions/<bundleName>".
std::string bundlePath(std::string_view appPath);
} // namespace NetFilterIdentity

// The methods of the extension's interface, by the names they travel under.
namespace NetFilterMethod {
inline constexpr std::string_view hello = "helloWithReply:";
inline constexpr std::string_view flowsSinceToken = "flowsSinceToken:reply:";
inline constexpr std::string_view status = "statusWithReply:";
} // namespace NetFilterMethod

// Every reply is one blob of JSON. A reply that does not decode counts as no reply.
namespace NetFilterReply {

inline constexpr int currentProtocolVersion = 1;

struct Hello {
    int protocolVersion = currentProtocolVersion;
    std::string build;
    std::string shortVersion;
    std::optional<std::string> cdHash;
    bool operator==(const Hello&) const = default;
};

struct Flow {
    std::int32_t pid = 0;
    double processStartedAt = 0;
    std::string executablePath;
    std::string processName;
    std::optional<std::string> signingIdentifier;
    std::optional<std::string> teamIdentifier;
    bool isVerified = false;
    std::string localAddress;
    std::int64_t localPort = 0;
    std::string remoteAddress;
    std::int64_t remotePort = 0;
    std::optional<std::string> remoteHostname;
    bool isIPv6 = false;
    bool isUDP = false;
    double firstSeen = 0;
    double lastSeen = 0;
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    std::int64_t token = 0;
    bool operator==(const Flow&) const = default;

    // The app's own value of the connection.
    tavrick::Flow toFlow() const;
};

struct Flows {
    std::vector<Flow> flows;
    std::int64_t token = 0;
    bool droppedOlder = false;
    bool operator==(const Flows&) const = default;
};

struct Status {
    std::optional<double> secondsSinceLastFlow;
    std::int64_t flowsSeen = 0;
    double startedAt = 0;
    bool canBlock = false;
    bool operator==(const Status&) const = default;
};

template <class T>
std::optional<T> decode(std::string_view data);
template <class T>
std::string encode(const T& value);

} // namespace NetFilterReply

} // namespace tavrick
