#pragma once

#include "FanCore/FanPolicy.h"
#include "FanCore/FanReading.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

namespace FanHelperIdentity {
inline constexpr std::string_view label = "com.orvell.tavrick.fanhelper";
inline constexpr std::string_view machServiceName = "com.orvell.tavrick.fanhelper";
inline constexpr std::string_view signingIdentifier = "com.orvell.tavrick.fanhelper";
inline constexpr std::string_view plistName = "com.orvell.tavrick.fanhelper.plist";
inline constexpr std::string_view executableName = "TavrickFanHelper";
inline constexpr std::string_view bundleProgram = "Contents/MacOS/TavrickFanHelper";
inline constexpr std::string_view appIdentifier = "com.orvell.tavrick";
inline constexpr std::string_view teamPlaceholder = "__TEAM_ID__";
// On Linux the service name names the helper's Unix domain socket, and the helper's executable
// sits beside the application's.
inline constexpr std::string_view socketName = "com.orvell.tavrick.fanhelper.sock";
inline constexpr std::string_view linuxExecutableName = "tavrick-fanhelper";

std::optional<std::string> clientRequirement(const std::optional<std::string>& team, const std::string& minimumBuild);
std::optional<std::string> helperRequirement(const std::optional<std::string>& team);
} // namespace FanHelperIdentity

// A decoding failure, with the coding path where it happened.
class FanDecodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct FanReleaseReading {
    int index = 0;
    double target = 0;
    double actual = 0;
    std::optional<int> mode;
    // "fan 1 target 3000 actual – mode –"
    std::string summary() const;
    friend bool operator==(const FanReleaseReading&, const FanReleaseReading&) = default;
};

struct FanRelease {
    std::optional<FanReason> reason;
    double at = 0;  // seconds since 1970 in memory; since 2001 on the wire
    std::vector<int> fans;
    std::vector<FanReleaseReading> readings;
    int reassertions = 0;
    std::string reasonName() const;
    std::string readingsSummary() const;
    friend bool operator==(const FanRelease&, const FanRelease&) = default;
};

namespace FanHelperReply {
inline constexpr int protocolVersion = 1;
// Seconds from 1970 to 2001-01-01, the epoch of dates on the wire.
inline constexpr double referenceDateOffset = 978307200.0;

struct Hello {
    int protocolVersion = 0;
    std::optional<std::string> cdhash;
    std::string build;
    friend bool operator==(const Hello&, const Hello&) = default;
};

struct Status {
    enum class State { idle, boosting, safeHold, unknown };
    State state = State::idle;
    bool controlling = false;
    bool safeHold = false;
    std::optional<FanRequest> request;
    std::vector<FanReading> fans;
    std::optional<double> hottestDie;
    int sensorCount = 0;
    std::optional<FanReason> reason;
    bool recoveredOrphan = false;
    int clients = 0;
    std::optional<std::vector<int>> setByTavrick;
    std::optional<FanRelease> lastRelease;
    friend bool operator==(const Status&, const Status&) = default;
};
std::string_view rawValue(Status::State state);

struct ApplyResult {
    bool accepted = false;
    std::optional<FanReason> reason;
    Status status;
    friend bool operator==(const ApplyResult&, const ApplyResult&) = default;
};

struct ReleaseResult {
    bool released = false;
    std::vector<int> fans;
    std::optional<FanReason> reason;
    Status status;
    std::optional<std::vector<int>> unrecorded;
    friend bool operator==(const ReleaseResult&, const ReleaseResult&) = default;
};

// The JSON of each reply. Non-finite numbers are the strings "Infinity", "-Infinity", "NaN";
// dates are seconds since 2001; optional keys are left out. Decoding throws FanDecodingError.
std::string encode(const Hello& value);
std::string encode(const Status& value);
std::string encode(const ApplyResult& value);
std::string encode(const ReleaseResult& value);
template <class T>
T decode(std::string_view data);
} // namespace FanHelperReply

// A boost request in its JSON form: "level" then "isMax"; a non-finite level without "isMax" is
// an error with the text "A boost level must be a number".
FanRequest decodeFanRequest(const nlohmann::json& json);
nlohmann::json encodeFanRequest(const FanRequest& request);
nlohmann::json encodeFanReading(const FanReading& reading);
FanReading decodeFanReading(const nlohmann::json& json);

// The seven calls of the helper.
enum class FanHelperCall { hello, status, apply, handBack, releaseFans, releaseUnrecordedFans, exitForUpdate };
std::string_view rawValue(FanHelperCall call);
std::optional<FanHelperCall> fanHelperCallFromRaw(std::string_view raw);

// How calls and replies travel over the helper's socket: each message is a frame of a 4-byte
// big-endian length and that many bytes of JSON. A call is {"id", "call"} with "level" and
// "max" for apply; a reply is {"id", "data"} holding the reply's JSON, or {"id", "error"} with
// a word from FanWireError when the call could not be taken.
namespace FanWire {
inline constexpr std::size_t maximumFrame = 64 * 1024;
// The words of a call the helper could not take.
inline constexpr std::string_view malformed = "malformed";
inline constexpr std::string_view tooLarge = "tooLarge";
inline constexpr std::string_view unknownCall = "unknownCall";
inline constexpr std::string_view rateLimited = "rateLimited";
inline constexpr std::string_view busy = "busy";
inline constexpr std::string_view notTrusted = "notTrusted";

std::string frame(std::string_view payload);
// The length of the frame that begins `buffer`, once four bytes are there.
std::optional<std::uint32_t> frameLength(std::string_view buffer);

struct Call {
    std::uint64_t id = 0;
    FanHelperCall call = FanHelperCall::hello;
    double level = 0;
    bool max = false;
};
std::string encodeCall(const Call& call);
// Nothing for text that is no call; `unknown` is set when the call's name is not one of ours.
std::optional<Call> decodeCall(std::string_view payload, bool* unknown = nullptr, std::uint64_t* id = nullptr);

struct Reply {
    std::uint64_t id = 0;
    std::optional<std::string> data;   // the reply's JSON, as sent
    std::optional<std::string> error;  // a word above
};
std::string encodeReply(const Reply& reply);
std::optional<Reply> decodeReply(std::string_view payload);
} // namespace FanWire

// The shared logging of both sides.
namespace FanLog {
enum class Level { debug, info, standard, error, fault };
// Asked, reclaiming, sleeping and exiting are ordinary ends; every other reason is an error.
Level level(std::optional<FanReason> ending);
bool isPersisted(Level level);
} // namespace FanLog

} // namespace tavrick
