#pragma once

#include "CoreKit/RawValue.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tavrick {

// One end of a connection, by number: no names here.
struct Endpoint {
    std::string address;
    std::uint16_t port = 0;
    bool isIPv6 = false;

    const std::string& host() const { return address; }
    // "[2001:db8::1]:443" or "1.2.3.4:80".
    std::string display() const;
    bool isPrivate() const { return isPrivateAddress(address); }
    // Whether an address is off the public internet; text that is no address at all is not.
    static bool isPrivateAddress(std::string_view address);
    // A name for a well-known port.
    static std::optional<std::string_view> service(std::uint16_t port);

    bool operator==(const Endpoint&) const = default;
};

void to_json(nlohmann::json& json, const Endpoint& endpoint);
void from_json(const nlohmann::json& json, Endpoint& endpoint);

enum class FlowState { established, listening, datagram };
std::string_view rawValue(FlowState state);
template <>
std::optional<FlowState> fromRaw<FlowState>(std::string_view raw);

// Two sightings with the same key are the same connection; the start time tells apart a
// process id that the system has handed out again.
struct FlowKey {
    std::int32_t pid = 0;
    double processStartedAt = 0;
    std::uint16_t localPort = 0;
    std::string remoteAddress;
    std::uint16_t remotePort = 0;

    bool operator==(const FlowKey&) const = default;
};

struct Flow {
    std::int32_t pid = 0;
    double processStartedAt = 0;
    std::string name;
    std::string executablePath;
    Endpoint local;
    Endpoint remote;
    FlowState state = FlowState::established;
    double firstSeen = 0;
    double lastSeen = 0;

    FlowKey id() const { return {pid, processStartedAt, local.port, remote.address, remote.port}; }
    // How long the connection has been known, never negative.
    double age(double time) const { return time > firstSeen ? time - firstSeen : 0; }

    bool operator==(const Flow&) const = default;
};

// A program, by its executable: a process that renames itself stays one app. The fallback name
// only speaks when the path says nothing, and takes no part in equality.
struct AppKey {
    std::string executablePath;
    std::string fallbackName;

    bool operator==(const AppKey& other) const { return executablePath == other.executablePath; }
    // What names the app across runs: its path, or its name when the path says nothing.
    const std::string& stableIdentifier() const { return executablePath.empty() ? fallbackName : executablePath; }
};

void to_json(nlohmann::json& json, const AppKey& key);
void from_json(const nlohmann::json& json, AppKey& key);

// What a source can see.
struct FlowScope {
    // This user's processes, read every so many seconds.
    struct OwnUserPolled {
        int seconds = 3;
        bool operator==(const OwnUserPolled&) const = default;
    };
    // Every connection of the machine, as it opens.
    struct SystemWideLive {
        bool operator==(const SystemWideLive&) const = default;
    };
    static FlowScope ownUserPolled(int seconds) { return {OwnUserPolled{seconds}}; }
    static FlowScope systemWideLive() { return {SystemWideLive{}}; }
    bool isOwnUserPolled() const { return std::holds_alternative<OwnUserPolled>(value); }

    std::variant<OwnUserPolled, SystemWideLive> value;
    bool operator==(const FlowScope&) const = default;
};

// Where flows come from. `start` throws a `std::runtime_error` whose text tells the user why
// the source could not start. `onFlows` may be called on any thread.
class FlowSource {
public:
    using FlowsCallback = std::function<void(const std::vector<Flow>&)>;
    virtual ~FlowSource() = default;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;
    virtual FlowScope scope() const = 0;
    // Whether the source could refuse a connection; none of ours can.
    virtual bool canBlock() const { return false; }
    virtual void setOnFlows(FlowsCallback callback) = 0;
};

// Naming a process the way a person knows it.
namespace ProcessIdentity {
// The enclosing app's name, else the process name, else "Unknown".
std::string displayName(std::string_view executablePath, std::string_view processName);
// The outermost "X.app" component of the path, without ".app".
std::optional<std::string> owningApp(std::string_view path);
bool isSystemPath(std::string_view path);
std::optional<std::string> lastComponent(std::string_view path);
} // namespace ProcessIdentity

} // namespace tavrick

template <>
struct std::hash<tavrick::Endpoint> {
    std::size_t operator()(const tavrick::Endpoint& e) const noexcept;
};
template <>
struct std::hash<tavrick::FlowKey> {
    std::size_t operator()(const tavrick::FlowKey& k) const noexcept;
};
template <>
struct std::hash<tavrick::AppKey> {
    std::size_t operator()(const tavrick::AppKey& k) const noexcept {
        return std::hash<std::string>{}(k.executablePath);
    }
};
