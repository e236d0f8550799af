#include "FanCore/FanProtocol.h"

#include "SigningCore/CodeIdentity.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>

namespace tavrick {

using nlohmann::json;

namespace FanHelperIdentity {
std::optional<std::string> clientRequirement(const std::optional<std::string>& team, const std::string& minimumBuild) {
    return CodeIdentity::clientRequirement(team, std::string(appIdentifier), minimumBuild);
}
std::optional<std::string> helperRequirement(const std::optional<std::string>& team) {
    return CodeIdentity::identifierRequirement(team, std::string(signingIdentifier));
}
} // namespace FanHelperIdentity

namespace {

// Numbers: integral values without a fraction, non-finite ones as their strings.
json number(double value) {
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
    if (value == std::floor(value) && std::fabs(value) < 9.0e15) return static_cast<std::int64_t>(value);
    return value;
}

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    throw FanDecodingError(what + " at \"" + path + "\"");
}

const json& required(const json& object, const char* key) {
    if (!object.is_object()) fail(key, "Expected an object");
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) fail(key, "Missing key");
    return *it;
}

bool has(const json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && !it->is_null();
}

double readNumber(const json& value, const char* key) {
    if (value.is_number()) return value.get<double>();
    if (value.is_string()) {
        const auto& text = value.get_ref<const std::string&>();
        if (text == "NaN") return std::numeric_limits<double>::quiet_NaN();
        if (text == "Infinity") return std::numeric_limits<double>::infinity();
        if (text == "-Infinity") return -std::numeric_limits<double>::infinity();
    }
    fail(key, "Expected a number");
}

long long readInteger(const json& value, const char* key) {
    if (value.is_number_integer()) return value.get<long long>();
    if (value.is_number_float()) {
        double d = value.get<double>();
        if (d == std::floor(d) && std::fabs(d) < 9.0e15) return static_cast<long long>(d);
    }
    fail(key, "Expected an integer");
}

bool readBool(const json& value, const char* key) {
    if (!value.is_boolean()) fail(key, "Expected a boolean");
    return value.get<bool>();
}

std::string readString(const json& value, const char* key) {
    if (!value.is_string()) fail(key, "Expected a string");
    return value.get<std::string>();
}

std::vector<int> readIntegers(const json& value, const char* key) {
    if (!value.is_array()) fail(key, "Expected an array");
    std::vector<int> out;
    for (const auto& item : value) out.push_back(static_cast<int>(readInteger(item, key)));
    return out;
}

json integers(const std::vector<int>& values) {
    json out = json::array();
    for (int v : values) out.push_back(v);
    return out;
}

json encodeReleaseReading(const FanReleaseReading& r) {
    json out{{"index", r.index}, {"target", number(r.target)}, {"actual", number(r.actual)}};
    if (r.mode) out["mode"] = *r.mode;
    return out;
}

FanReleaseReading decodeReleaseReading(const json& j) {
    FanReleaseReading r;
    r.index = static_cast<int>(readInteger(required(j, "index"), "index"));
    r.target = readNumber(required(j, "target"), "target");
    r.actual = readNumber(required(j, "actual"), "actual");
    if (has(j, "mode")) r.mode = static_cast<int>(readInteger(j["mode"], "mode"));
    return r;
}

json encodeRelease(const FanRelease& r) {
    json out{{"at", number(r.at - FanHelperReply::referenceDateOffset)},
             {"fans", integers(r.fans)},
             {"reassertions", r.reassertions}};
    json readings = json::array();
    for (const auto& reading : r.readings) readings.push_back(encodeReleaseReading(reading));
    out["readings"] = readings;
    if (r.reason) out["reason"] = std::string(rawValue(*r.reason));
    return out;
}

FanRelease decodeRelease(const json& j) {
    FanRelease r;
    if (has(j, "reason")) r.reason = fanReasonFromRaw(readString(j["reason"], "reason"));
    r.at = readNumber(required(j, "at"), "at") + FanHelperReply::referenceDateOffset;
    r.fans = readIntegers(required(j, "fans"), "fans");
    const auto& readings = required(j, "readings");
    if (!readings.is_array()) fail("readings", "Expected an array");
    for (const auto& item : readings) r.readings.push_back(decodeReleaseReading(item));
    r.reassertions = static_cast<int>(readInteger(required(j, "reassertions"), "reassertions"));
    return r;
}

json encodeStatus(const FanHelperReply::Status& s) {
    json fans = json::array();
    for (const auto& f : s.fans) fans.push_back(encodeFanReading(f));
    json out{{"state", std::string(FanHelperReply::rawValue(s.state))},
             {"controlling", s.controlling},
             {"safeHold", s.safeHold},
             {"fans", fans},
             {"sensorCount", s.sensorCount},
             {"recoveredOrphan", s.recoveredOrphan},
             {"clients", s.clients}};
    if (s.request) out["request"] = encodeFanRequest(*s.request);
    if (s.hottestDie) out["hottestDie"] = number(*s.hottestDie);
    if (s.reason) out["reason"] = std::string(rawValue(*s.reason));
    if (s.setByTavrick) out["setByTavrick"] = integers(*s.setByTavrick);
    if (s.lastRelease) out["lastRelease"] = encodeRelease(*s.lastRelease);
    return out;
}

FanHelperReply::Status::State stateFromRaw(const std::string& raw) {
    using State = FanHelperReply::Status::State;
    if (raw == "idle") return State::idle;
    if (raw == "boosting") return State::boosting;
    if (raw == "safeHold") return State::safeHold;
    return State::unknown;
}

FanHelperReply::Status decodeStatus(const json& j) {
    FanHelperReply::Status s;
    s.state = stateFromRaw(readString(required(j, "state"), "state"));
    s.controlling = readBool(required(j, "controlling"), "controlling");
    s.safeHold = readBool(required(j, "safeHold"), "safeHold");
    if (has(j, "request")) s.request = decodeFanRequest(j["request"]);
    const auto& fans = required(j, "fans");
    if (!fans.is_array()) fail("fans", "Expected an array");
    for (const auto& f : fans) s.fans.push_back(decodeFanReading(f));
    if (has(j, "hottestDie")) s.hottestDie = readNumber(j["hottestDie"], "hottestDie");
    s.sensorCount = static_cast<int>(readInteger(required(j, "sensorCount"), "sensorCount"));
    if (has(j, "reason")) s.reason = fanReasonFromRaw(readString(j["reason"], "reason"));
    s.recoveredOrphan = readBool(required(j, "recoveredOrphan"), "recoveredOrphan");
    s.clients = static_cast<int>(readInteger(required(j, "clients"), "clients"));
    if (has(j, "setByTavrick")) s.setByTavrick = readIntegers(j["setByTavrick"], "setByTavrick");
    if (has(j, "lastRelease")) s.lastRelease = decodeRelease(j["lastRelease"]);
    return s;
}

json parse(std::string_view data) {
    try {
        return json::parse(data);
    } catch (const json::exception& error) {
        throw FanDecodingError(std::string("The data is not JSON: ") + error.what());
    }
}

std::string dumped(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string wholeOrDash(double value) {
    if (!std::isfinite(value) || !(std::fabs(value) < 1e9)) return "–";
    return std::to_string(static_cast<long long>(std::llround(value)));
}

} // namespace

json encodeFanReading(const FanReading& f) {
    json out{{"index", f.index},
             {"actual", number(f.actual)},
             {"minimum", number(f.minimum)},
             {"maximum", number(f.maximum)},
             {"target", number(f.target)}};
    if (f.mode) out["mode"] = *f.mode;
    return out;
}

FanReading decodeFanReading(const json& j) {
    FanReading f;
    f.index = static_cast<int>(readInteger(required(j, "index"), "index"));
    f.actual = readNumber(required(j, "actual"), "actual");
    f.minimum = readNumber(required(j, "minimum"), "minimum");
    f.maximum = readNumber(required(j, "maximum"), "maximum");
    f.target = readNumber(required(j, "target"), "target");
    if (has(j, "mode")) f.mode = static_cast<int>(readInteger(j["mode"], "mode"));
    return f;
}

json encodeFanRequest(const FanRequest& request) {
    return json{{"level", number(request.level)}, {"isMax", request.isMax}};
}

FanRequest decodeFanRequest(const json& j) {
    const double level = readNumber(required(j, "level"), "level");
    const bool isMax = readBool(required(j, "isMax"), "isMax");
    auto request = FanRequest::make(level, isMax);
    if (!request) throw FanDecodingError("A boost level must be a number");
    return *request;
}

std::string FanReleaseReading::summary() const {
    return "fan " + std::to_string(index) + " target " + wholeOrDash(target) + " actual " + wholeOrDash(actual) +
           " mode " + (mode ? std::to_string(*mode) : std::string("–"));
}

std::string FanRelease::reasonName() const { return reason ? std::string(rawValue(*reason)) : "asked"; }

std::string FanRelease::readingsSummary() const {
    std::string out;
    for (const auto& r : readings) {
        if (!out.empty()) out += "; ";
        out += r.summary();
    }
    return out;
}

namespace FanHelperReply {

std::string_view rawValue(Status::State state) {
    switch (state) {
    case Status::State::idle: return "idle";
    case Status::State::boosting: return "boosting";
    case Status::State::safeHold: return "safeHold";
    case Status::State::unknown: return "unknown";
    }
    return "unknown";
}

std::string encode(const Hello& v) {
    json out{{"protocolVersion", v.protocolVersion}, {"build", v.build}};
    if (v.cdhash) out["cdhash"] = *v.cdhash;
    return dumped(out);
}
std::string encode(const Status& v) { return dumped(encodeStatus(v)); }
std::string encode(const ApplyResult& v) {
    json out{{"accepted", v.accepted}, {"status", encodeStatus(v.status)}};
    if (v.reason) out["reason"] = std::string(tavrick::rawValue(*v.reason));
    return dumped(out);
}
std::string encode(const ReleaseResult& v) {
    json out{{"released", v.released}, {"fans", integers(v.fans)}, {"status", encodeStatus(v.status)}};
    if (v.reason) out["reason"] = std::string(tavrick::rawValue(*v.reason));
    if (v.unrecorded) out["unrecorded"] = integers(*v.unrecorded);
    return dumped(out);
}

template <>
Hello decode<Hello>(std::string_view data) {
    auto j = parse(data);
    Hello h;
    h.protocolVersion = static_cast<int>(readInteger(required(j, "protocolVersion"), "protocolVersion"));
    if (has(j, "cdhash")) h.cdhash = readString(j["cdhash"], "cdhash");
    h.build = readString(required(j, "build"), "build");
    return h;
}
template <>
Status decode<Status>(std::string_view data) {
    return decodeStatus(parse(data));
}
template <>
ApplyResult decode<ApplyResult>(std::string_view data) {
    auto j = parse(data);
    ApplyResult r;
    r.accepted = readBool(required(j, "accepted"), "accepted");
    if (has(j, "reason")) r.reason = fanReasonFromRaw(readString(j["reason"], "reason"));
    r.status = decodeStatus(required(j, "status"));
    return r;
}
template <>
ReleaseResult decode<ReleaseResult>(std::string_view data) {
    auto j = parse(data);
    ReleaseResult r;
    r.released = readBool(required(j, "released"), "released");
    r.fans = readIntegers(required(j, "fans"), "fans");
    if (has(j, "reason")) r.reason = fanReasonFromRaw(readString(j["reason"], "reason"));
    r.status = decodeStatus(required(j, "status"));
    if (has(j, "unrecorded")) r.unrecorded = readIntegers(j["unrecorded"], "unrecorded");
    return r;
}

} // namespace FanHelperReply

namespace {
constexpr std::string_view callNames[] = {"hello", "status", "apply", "handBack",
                                          "releaseFans", "releaseUnrecordedFans", "exitForUpdate"};
}

std::string_view rawValue(FanHelperCall call) { return callNames[static_cast<int>(call)]; }

std::optional<FanHelperCall> fanHelperCallFromRaw(std::string_view raw) {
    for (int i = 0; i < 7; ++i) {
        if (callNames[i] == raw) return static_cast<FanHelperCall>(i);
    }
    return std::nullopt;
}

namespace FanWire {

std::string frame(std::string_view payload) {
    const auto n = static_cast<std::uint32_t>(payload.size());
    std::string out;
    out.reserve(payload.size() + 4);
    out.push_back(static_cast<char>((n >> 24) & 0xFF));
    out.push_back(static_cast<char>((n >> 16) & 0xFF));
    out.push_back(static_cast<char>((n >> 8) & 0xFF));
    out.push_back(static_cast<char>(n & 0xFF));
    out.append(payload);
    return out;
}

std::optional<std::uint32_t> frameLength(std::string_view buffer) {
    if (buffer.size() < 4) return std::nullopt;
    auto b = [&](int i) { return static_cast<std::uint32_t>(static_cast<unsigned char>(buffer[static_cast<std::size_t>(i)])); };
    return (b(0) << 24) | (b(1) << 16) | (b(2) << 8) | b(3);
}

std::string encodeCall(const Call& call) {
    json out{{"id", call.id}, {"call", std::string(rawValue(call.call))}};
    if (call.call == FanHelperCall::apply) {
        out["level"] = number(call.level);
        out["max"] = call.max;
    }
    return dumped(out);
}

std::optional<Call> decodeCall(std::string_view payload, bool* unknown, std::uint64_t* id) {
    if (unknown) *unknown = false;
    json j = json::parse(payload, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return std::nullopt;
    Call call;
    auto idValue = j.find("id");
    if (idValue == j.end() || !idValue->is_number_unsigned()) return std::nullopt;
    call.id = idValue->get<std::uint64_t>();
    if (id) *id = call.id;
    auto name = j.find("call");
    if (name == j.end() || !name->is_string()) return std::nullopt;
    auto which = fanHelperCallFromRaw(name->get<std::string>());
    if (!which) {
        if (unknown) *unknown = true;
        return std::nullopt;
    }
    call.call = *which;
    if (call.call == FanHelperCall::apply) {
        try {
            call.level = readNumber(required(j, "level"), "level");
            call.max = readBool(required(j, "max"), "max");
        } catch (const FanDecodingError&) {
            return std::nullopt;
        }
    }
    return call;
}

std::string encodeReply(const Reply& reply) {
    json out{{"id", reply.id}};
    if (reply.data) out["data"] = json::parse(*reply.data);
    if (reply.error) out["error"] = *reply.error;
    return dumped(out);
}

std::optional<Reply> decodeReply(std::string_view payload) {
    json j = json::parse(payload, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return std::nullopt;
    Reply reply;
    auto id = j.find("id");
    if (id == j.end() || !id->is_number_unsigned()) return std::nullopt;
    reply.id = id->get<std::uint64_t>();
    if (auto data = j.find("data"); data != j.end()) reply.data = dumped(*data);
    if (auto error = j.find("error"); error != j.end() && error->is_string()) reply.error = error->get<std::string>();
    if (!reply.data && !reply.error) return std::nullopt;
    return reply;
}

} // namespace FanWire

namespace FanLog {
Level level(std::optional<FanReason> ending) {
    if (!ending || *ending == FanReason::reclaiming || *ending == FanReason::sleeping || *ending == FanReason::exiting) {
        return Level::standard;
    }
    return Level::error;
}
bool isPersisted(Level level) { return level == Level::standard || level == Level::error || level == Level::fault; }
} // namespace FanLog

} // namespace tavrick
