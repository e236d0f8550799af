#include "NetCore/NetFilterProtocol.h"

#include <nlohmann/json.hpp>

namespace tavrick {

namespace NetFilterIdentity {

std::string machServiceName(std::string_view team) {
    return std::string(team) + "." + std::string(bundleIdentifier);
}

std::string bundlePath(std::string_view appPath) {
    std::string path(appPath);
    if (!path.empty() && path.back() != '/') path += '/';
    return path + "Contents/Library/SystemExtensions/" + std::string(bundleName);
}

} // namespace NetFilterIdentity

namespace NetFilterReply {

namespace {
using nlohmann::json;

template <class T>
void optionalTo(json& j, const char* key, const std::optional<T>& value) {
    if (value) j[key] = *value;
}

template <class T>
void optionalFrom(const json& j, const char* key, std::optional<T>& value) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) {
        value.reset();
    } else {
        value = it->template get<T>();
    }
}
} // namespace

void to_json(json& j, const Hello& v) {
    j = json{{"protocolVersion", v.protocolVersion}, {"build", v.build}, {"shortVersion", v.shortVersion}};
    optionalTo(j, "cdHash", v.cdHash);
}
void from_json(const json& j, Hello& v) {
    j.at("protocolVersion").get_to(v.protocolVersion);
    j.at("build").get_to(v.build);
    j.at("shortVersion").get_to(v.shortVersion);
    optionalFrom(j, "cdHash", v.cdHash);
}

void to_json(json& j, const Flow& v) {
    j = json{{"pid", v.pid},
             {"processStartedAt", v.processStartedAt},
             {"executablePath", v.executablePath},
             {"processName", v.processName},
             {"isVerified", v.isVerified},
             {"localAddress", v.localAddress},
             {"localPort", v.localPort},
             {"remoteAddress", v.remoteAddress},
             {"remotePort", v.remotePort},
             {"isIPv6", v.isIPv6},
             {"isUDP", v.isUDP},
             {"firstSeen", v.firstSeen},
             {"lastSeen", v.lastSeen},
             {"bytesIn", v.bytesIn},
             {"bytesOut", v.bytesOut},
             {"token", v.token}};
    optionalTo(j, "signingIdentifier", v.signingIdentifier);
    optionalTo(j, "teamIdentifier", v.teamIdentifier);
    optionalTo(j, "remoteHostname", v.remoteHostname);
}
void from_json(const json& j, Flow& v) {
    j.at("pid").get_to(v.pid);
    j.at("processStartedAt").get_to(v.processStartedAt);
    j.at("executablePath").get_to(v.executablePath);
    j.at("processName").get_to(v.processName);
    optionalFrom(j, "signingIdentifier", v.signingIdentifier);
    optionalFrom(j, "teamIdentifier", v.teamIdentifier);
    j.at("isVerified").get_to(v.isVerified);
    j.at("localAddress").get_to(v.localAddress);
    j.at("localPort").get_to(v.localPort);
    j.at("remoteAddress").get_to(v.remoteAddress);
    j.at("remotePort").get_to(v.remotePort);
    optionalFrom(j, "remoteHostname", v.remoteHostname);
    j.at("isIPv6").get_to(v.isIPv6);
    j.at("isUDP").get_to(v.isUDP);
    j.at("firstSeen").get_to(v.firstSeen);
    j.at("lastSeen").get_to(v.lastSeen);
    j.at("bytesIn").get_to(v.bytesIn);
    j.at("bytesOut").get_to(v.bytesOut);
    j.at("token").get_to(v.token);
}

void to_json(json& j, const Flows& v) {
    j = json{{"flows", v.flows}, {"token", v.token}, {"droppedOlder", v.droppedOlder}};
}
void from_json(const json& j, Flows& v) {
    j.at("flows").get_to(v.flows);
    j.at("token").get_to(v.token);
    j.at("droppedOlder").get_to(v.droppedOlder);
}

void to_json(json& j, const Status& v) {
    j = json{{"flowsSeen", v.flowsSeen}, {"startedAt", v.startedAt}, {"canBlock", v.canBlock}};
    optionalTo(j, "secondsSinceLastFlow", v.secondsSinceLastFlow);
}
void from_json(const json& j, Status& v) {
    optionalFrom(j, "secondsSinceLastFlow", v.secondsSinceLastFlow);
    j.at("flowsSeen").get_to(v.flowsSeen);
    j.at("startedAt").get_to(v.startedAt);
    j.at("canBlock").get_to(v.canBlock);
}

tavrick::Flow Flow::toFlow() const {
    tavrick::Flow flow;
    flow.pid = pid;
    flow.processStartedAt = processStartedAt;
    flow.name = processName;
    flow.executablePath = executablePath;
    flow.local = Endpoint{localAddress, static_cast<std::uint16_t>(localPort), isIPv6};
    flow.remote = Endpoint{remoteAddress, static_cast<std::uint16_t>(remotePort), isIPv6};
    flow.state = isUDP ? FlowState::datagram : FlowState::established;
    flow.firstSeen = firstSeen;
    flow.lastSeen = lastSeen;
    return flow;
}

template <class T>
std::optional<T> decode(std::string_view data) {
    try {
        return json::parse(data).get<T>();
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

template <class T>
std::string encode(const T& value) {
    return json(value).dump();
}

template std::optional<Hello> decode<Hello>(std::string_view);
template std::optional<Flows> decode<Flows>(std::string_view);
template std::optional<Status> decode<Status>(std::string_view);
template std::string encode<Hello>(const Hello&);
template std::string encode<Flows>(const Flows&);
template std::string encode<Status>(const Status&);

} // namespace NetFilterReply

} // namespace tavrick
