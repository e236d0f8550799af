#include "AIKit/AIClient.h"

#include "CoreKit/UnicodeText.h"

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>

namespace tavrick {

namespace {

using nlohmann::json;

std::string trimmed(std::string_view text) { return std::string(UnicodeText::trimmed(text)); }

std::string withoutOneTrailingSlash(std::string base) {
    if (!base.empty() && base.back() == '/') base.pop_back();
    return base;
}

// libcurl decides whether the address can be fetched at all.
bool isFetchable(const std::string& url) {
    struct Deleter {
        void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
    };
    std::unique_ptr<CURLU, Deleter> handle(curl_url());
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return false;
    char* scheme = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK || !scheme) return false;
    std::string text(scheme);
    curl_free(scheme);
    return text == "http" || text == "https";
}

std::optional<json> parseObject(std::string_view data) {
    try {
        auto value = json::parse(data);
        if (value.is_object()) return value;
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

const json* member(const json& object, const char* key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

std::string textOf(const json* value) { return value && value->is_string() ? value->get<std::string>() : ""; }

// The UTF-8 prefix of at most `limit` bytes, backed off to a character boundary.
std::optional<std::string> utf8Prefix(std::string_view data, std::size_t limit) {
    std::string_view prefix = data.substr(0, limit);
    for (int backOff = 0; backOff < 4 && !prefix.empty(); ++backOff) {
        if (UnicodeText::isValidUTF8(prefix)) return std::string(prefix);
        prefix.remove_suffix(1);
    }
    return std::nullopt;
}

} // namespace

std::string AIError::description() const {
    switch (kind) {
    case Case::badBaseURL: return "That base URL cannot be used: " + text;
    case Case::http:
        if (status == 401 || status == 403)
            return "The key was rejected (" + std::to_string(status) + "). Check it in Settings › Selection.";
        if (status == 404) return "Not found (404) — usually the model id or the base URL: " + text;
        if (status == 429) return "Rate limited or out of credit (429): " + text;
        return "The API returned " + std::to_string(status) + ": " + text;
    case Case::refused: return text.empty() ? "The model declined to answer that." : text;
    case Case::transport:
    case Case::onDevice: return text;
    case Case::noAPIKey: return "No API key for this provider. Add one in Settings › Selection.";
    case Case::noBaseURL: return "This provider needs a base URL — the address up to and including /v1.";
    case Case::emptyResponse: return "The model returned nothing.";
    }
    return text;
}

// ---- On-device model ----

namespace OnDeviceModel {

// There is no on-device model on this system, so the answer is always the same.
Readiness readiness() { return Readiness::unsupportedSystem; }

std::string explanation(Readiness readiness, std::string_view variant) {
    switch (readiness) {
    case Readiness::appleIntelligenceOff:
        return "Apple Intelligence is switched off. Turn it on in System Settings › Apple Intelligence & Siri, and "
               "the model downloads itself.";
    case Readiness::notDownloaded:
        return "The model is not on this Mac yet. If Apple Intelligence is on it is still downloading and will "
               "arrive by itself; if it is off, switching it on in System Settings is what starts the download.";
    case Readiness::notEligible:
        return "This Mac cannot run Apple's on-device model. It needs Apple silicon and a supported language and "
               "region.";
    case Readiness::unsupportedSystem: return "The on-device model needs macOS 26 or later.";
    case Readiness::ready: return std::string(variant) + ", running on this Mac. Nothing is sent anywhere.";
    }
    return "";
}

std::string summary(Readiness readiness, std::string_view variant) {
    switch (readiness) {
    case Readiness::appleIntelligenceOff: return "Apple Intelligence is off";
    case Readiness::notDownloaded: return "Not downloaded yet";
    case Readiness::notEligible: return "Not available on this Mac";
    case Readiness::unsupportedSystem: return explanation(readiness);
    case Readiness::ready: return std::string(variant);
    }
    return "";
}

bool canBeFixedInSettings(Readiness readiness) {
    return readiness == Readiness::appleIntelligenceOff || readiness == Readiness::notDownloaded;
}

AIResult<std::string> answer(std::string_view, std::string_view, int) {
    return AIError::onDevice(explanation(Readiness::unsupportedSystem));
}

} // namespace OnDeviceModel

// ---- Client ----

AIClient::AIClient(AIProvider provider, std::string model, const std::string& baseURL, int maxTokens,
                   HTTPTransport& transport, const Keychain& keychain)
    : provider_(provider),
      model_(model.empty() ? provider.defaultModel() : std::move(model)),
      baseURL_(provider.kind() == AIProvider::Case::custom ? trimmed(baseURL) : std::string(provider.baseURL())),
      maxTokens_(maxTokens),
      transport_(transport),
      keychain_(keychain) {}

std::string AIClient::prompt(std::string_view instruction, std::string_view text) {
    // The selection is fenced so that the model reads it as data.
    return std::string(instruction) + "\n\n<selection>\n" + std::string(text) + "\n</selection>";
}

std::optional<std::string> AIClient::endpoint(const AIProvider& provider, const std::string& model,
                                              const std::string& baseURL) {
    std::string base = withoutOneTrailingSlash(baseURL);
    std::string url;
    switch (provider.family()) {
    case AIProvider::Family::anthropic: url = base + "/v1/messages"; break;
    case AIProvider::Family::gemini: url = base + "/models/" + model + ":generateContent"; break;
    case AIProvider::Family::openAICompatible: url = base + "/chat/completions"; break;
    case AIProvider::Family::onDevice: return std::nullopt;
    }
    if (!isFetchable(url)) return std::nullopt;
    return url;
}

std::optional<std::string> AIClient::modelsEndpoint(const AIProvider& provider, const std::string& baseURL) {
    std::string base = withoutOneTrailingSlash(baseURL);
    std::string url;
    switch (provider.family()) {
    case AIProvider::Family::anthropic: url = base + "/v1/models"; break;
    case AIProvider::Family::gemini:
    case AIProvider::Family::openAICompatible: url = base + "/models"; break;
    case AIProvider::Family::onDevice: return std::nullopt;
    }
    if (!isFetchable(url)) return std::nullopt;
    return url;
}

std::string AIClient::body(AIProvider::Family family, const std::string& model, int maxTokens,
                           std::string_view instruction, std::string_view text) {
    // Invalid UTF-8 in a selection becomes U+FFFD rather than a request that cannot be written.
    const std::string content = UnicodeText::repairedUTF8(prompt(instruction, text));
    const std::string system(systemPrompt);
    json object = json::object();
    switch (family) {
    case AIProvider::Family::anthropic:
        object = {{"model", model},
                  {"max_tokens", maxTokens},
                  {"fallbacks", "default"},
                  {"system", system},
                  {"messages", json::array({{{"role", "user"}, {"content", content}}})}};
        break;
    case AIProvider::Family::openAICompatible:
        object = {{"model", model},
                  {"max_completion_tokens", maxTokens},
                  {"messages", json::array({{{"role", "system"}, {"content", system}},
                                            {{"role", "user"}, {"content", content}}})}};
        break;
    case AIProvider::Family::gemini:
        object = {{"systemInstruction", {{"parts", json::array({{{"text", system}}})}}},
                  {"contents", json::array({{{"role", "user"}, {"parts", json::array({{{"text", content}}})}}})},
                  {"generationConfig", {{"maxOutputTokens", maxTokens}}}};
        break;
    case AIProvider::Family::onDevice: break;
    }
    return object.dump();
}

namespace {

void addAuthentication(HTTPClientRequest& request, const AIProvider& provider, const std::string& key) {
    switch (provider.family()) {
    case AIProvider::Family::anthropic:
        request.headers.emplace_back("x-api-key", key);
        request.headers.emplace_back("anthropic-version", "2023-06-01");
        request.headers.emplace_back("anthropic-beta", "server-side-fallback-2026-07-01");
        break;
    case AIProvider::Family::gemini: request.headers.emplace_back("x-goog-api-key", key); break;
    case AIProvider::Family::openAICompatible: request.headers.emplace_back("Authorization", "Bearer " + key); break;
    case AIProvider::Family::onDevice: break;
    }
}

} // namespace

HTTPClientRequest AIClient::request(const AIProvider& provider, const std::string& url, const std::string& key,
                              std::string body) {
    HTTPClientRequest request;
    request.method = "POST";
    request.url = url;
    request.headers.emplace_back("Content-Type", "application/json");
    addAuthentication(request, provider, key);
    request.body = std::move(body);
    request.timeoutSeconds = answerTimeout;
    return request;
}

HTTPClientRequest AIClient::modelsRequest(const AIProvider& provider, const std::string& url, const std::string& key) {
    HTTPClientRequest request;
    request.method = "GET";
    request.url = url;
    addAuthentication(request, provider, key);
    request.timeoutSeconds = modelsTimeout;
    return request;
}

AIResult<std::string> AIClient::answer(std::string_view data, AIProvider::Family family) {
    auto object = parseObject(data);
    if (!object) return AIError::of(AIError::Case::emptyResponse);
    std::string text;
    switch (family) {
    case AIProvider::Family::openAICompatible: {
        const json* choices = member(*object, "choices");
        if (choices && choices->is_array() && !choices->empty()) {
            const json* message = member(choices->at(0), "message");
            const json* content = message ? member(*message, "content") : nullptr;
            if (content && content->is_string()) {
                text = content->get<std::string>();
            } else if (content && content->is_array()) {
                for (const auto& part : *content) text += textOf(member(part, "text"));
            }
        }
        break;
    }
    case AIProvider::Family::anthropic: {
        if (textOf(member(*object, "stop_reason")) == "refusal") {
            const json* details = member(*object, "stop_details");
            return AIError::refused(details ? textOf(member(*details, "explanation")) : "");
        }
        if (const json* content = member(*object, "content"); content && content->is_array()) {
            for (const auto& block : *content) {
                if (textOf(member(block, "type")) == "text") text += textOf(member(block, "text"));
            }
        }
        break;
    }
    case AIProvider::Family::gemini: {
        if (const json* feedback = member(*object, "promptFeedback")) {
            if (const json* reason = member(*feedback, "blockReason"); reason && !reason->is_null()) {
                return AIError::refused("Blocked: " + (reason->is_string() ? reason->get<std::string>() : reason->dump()));
            }
        }
        const json* candidates = member(*object, "candidates");
        if (candidates && candidates->is_array() && !candidates->empty()) {
            if (const json* content = member(candidates->at(0), "content")) {
                if (const json* parts = member(*content, "parts"); parts && parts->is_array()) {
                    for (const auto& part : *parts) text += textOf(member(part, "text"));
                }
            }
        }
        break;
    }
    case AIProvider::Family::onDevice: return AIError::onDevice("The on-device model does not answer over HTTP.");
    }
    text = trimmed(text);
    if (text.empty()) return AIError::of(AIError::Case::emptyResponse);
    return text;
}

std::string AIClient::errorMessage(std::string_view data) {
    if (auto object = parseObject(data)) {
        if (const json* error = member(*object, "error")) {
            if (error->is_object()) {
                if (auto message = textOf(member(*error, "message")); !message.empty()) return message;
                if (auto status = textOf(member(*error, "status")); !status.empty()) return status;
            } else if (error->is_string()) {
                return error->get<std::string>();
            }
        }
        if (auto message = textOf(member(*object, "message")); !message.empty()) return message;
    }
    if (!data.empty()) {
        if (auto prefix = utf8Prefix(data, 200)) return *prefix;
    }
    return "unreadable response";
}

AIResult<std::vector<std::string>> AIClient::models(std::string_view data, AIProvider::Family family) {
    auto object = parseObject(data);
    if (!object) return AIError::of(AIError::Case::emptyResponse);
    std::vector<std::string> names;
    if (family == AIProvider::Family::gemini) {
        if (const json* list = member(*object, "models"); list && list->is_array()) {
            for (const auto& entry : *list) {
                const json* methods = member(entry, "supportedGenerationMethods");
                bool generates = methods && methods->is_array() &&
                                 std::any_of(methods->begin(), methods->end(),
                                             [](const json& m) { return m.is_string() && m == "generateContent"; });
                if (!generates) continue;
                std::string name = textOf(member(entry, "name"));
                if (name.rfind("models/", 0) == 0) name.erase(0, 7);
                if (!name.empty()) names.push_back(name);
            }
        }
    } else if (const json* list = member(*object, "data"); list && list->is_array()) {
        for (const auto& entry : *list) {
            if (auto id = textOf(member(entry, "id")); !id.empty()) names.push_back(id);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

AIResult<std::string> AIClient::credentials() const {
    auto key = keychain_.get(std::string(provider_.keychainAccount()));
    if (provider_.needsAPIKey() && (!key || trimmed(*key).empty())) return AIError::of(AIError::Case::noAPIKey);
    if (provider_.kind() == AIProvider::Case::custom && baseURL_.empty()) return AIError::of(AIError::Case::noBaseURL);
    return key.value_or("");
}

AIResult<std::string> AIClient::ask(std::string_view instruction, std::string_view text,
                                    const CancellationFlag& cancelled) const {
    if (provider_.family() == AIProvider::Family::onDevice) {
        auto readiness = OnDeviceModel::readiness();
        if (readiness != OnDeviceModel::Readiness::ready)
            return AIError::onDevice(OnDeviceModel::explanation(readiness));
        auto answer = OnDeviceModel::answer(instruction, text, maxTokens_);
        if (auto* value = std::get_if<std::string>(&answer)) return trimmed(*value);
        return answer;
    }
    auto key = credentials();
    if (auto* error = std::get_if<AIError>(&key)) return *error;
    auto url = endpoint(provider_, model_, baseURL_);
    if (!url) return AIError::badBaseURL(baseURL_);
    auto sent = transport_.send(
        request(provider_, *url, std::get<std::string>(key), body(provider_.family(), model_, maxTokens_, instruction, text)),
        cancelled);
    if (auto* failure = std::get_if<std::string>(&sent)) return AIError::transport(*failure);
    const auto& response = std::get<HTTPClientResponse>(sent);
    if (response.status == 200) return answer(response.body, provider_.family());
    return AIError::http(response.status, errorMessage(response.body));
}

AIResult<std::string> AIClient::testConnection(const CancellationFlag& cancelled) const {
    return ask("Reply with the single word OK.", "connection test", cancelled);
}

AIResult<std::vector<std::string>> AIClient::listModels(const CancellationFlag& cancelled) const {
    if (provider_.family() == AIProvider::Family::onDevice) return std::vector<std::string>{};
    auto key = credentials();
    if (auto* error = std::get_if<AIError>(&key)) return *error;
    auto url = modelsEndpoint(provider_, baseURL_);
    if (!url) return AIError::badBaseURL(baseURL_);
    auto sent = transport_.send(modelsRequest(provider_, *url, std::get<std::string>(key)), cancelled);
    if (auto* failure = std::get_if<std::string>(&sent)) return AIError::transport(*failure);
    const auto& response = std::get<HTTPClientResponse>(sent);
    if (response.status == 200) return models(response.body, provider_.family());
    return AIError::http(response.status, errorMessage(response.body));
}

// ---- Requests in logs ----

std::string HTTPClientRequest::redactedDescription() const {
    std::string text = method + " " + url;
    for (const auto& [name, value] : headers) {
        std::string lower = name;
        std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
        bool secret = lower == "authorization" || lower == "x-api-key" || lower == "x-goog-api-key";
        text += "\n" + name + ": " + (secret ? std::string("•••") : value);
    }
    text += "\n(" + std::to_string(body.size()) + " bytes of body)";
    return text;
}

} // namespace tavrick
