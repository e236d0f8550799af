#pragma once

#include "AIKit/AIProvider.h"
#include "AIKit/HTTPTransport.h"
#include "CoreKit/Keychain.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tavrick {

struct AIError {
    enum class Case { badBaseURL, http, refused, transport, onDevice, noAPIKey, noBaseURL, emptyResponse };
    Case kind;
    long status = 0;
    std::string text;

    static AIError of(Case kind) { return {kind, 0, std::string()}; }
    static AIError badBaseURL(std::string base) { return {Case::badBaseURL, 0, std::move(base)}; }
    static AIError http(long status, std::string message) { return {Case::http, status, std::move(message)}; }
    static AIError refused(std::string text) { return {Case::refused, 0, std::move(text)}; }
    static AIError transport(std::string text) { return {Case::transport, 0, std::move(text)}; }
    static AIError onDevice(std::string text) { return {Case::onDevice, 0, std::move(text)}; }

    // The words the result window shows. A rejected key's response body is never among them.
    std::string description() const;
    bool operator==(const AIError&) const = default;
};

template <class T>
using AIResult = std::variant<T, AIError>;

// The model that would run on the machine itself. This system has none.
namespace OnDeviceModel {
enum class Readiness { appleIntelligenceOff, notDownloaded, notEligible, unsupportedSystem, ready };
Readiness readiness();
std::string summary(Readiness readiness, std::string_view variant = {});
std::string explanation(Readiness readiness, std::string_view variant = {});
bool canBeFixedInSettings(Readiness readiness);
inline constexpr std::string_view settingsURL = "x-apple.systempreferences:com.apple.Siri-Settings.extension";
AIResult<std::string> answer(std::string_view instruction, std::string_view text, int maximumTokens);
} // namespace OnDeviceModel

// Sends one selected text with one instruction to a language model and returns a short plain
// answer. Stateless: several may run at once on different threads.
class AIClient {
public:
    static constexpr std::string_view systemPrompt =
        "You are answering about a fragment of text the user has selected on their screen. Be brief and concrete: "
        "a few sentences at most, no preamble, no restating the question. Plain text only — the answer is shown in "
        "a small popup, not a document.";
    static constexpr double answerTimeout = 60;
    static constexpr double modelsTimeout = 30;

    // An empty model takes the provider's default; the base is the provider's own except for a
    // custom provider, whose base is `baseURL` trimmed of blanks.
    AIClient(AIProvider provider, std::string model, const std::string& baseURL, int maxTokens,
             HTTPTransport& transport, const Keychain& keychain);

    const AIProvider& provider() const { return provider_; }
    const std::string& model() const { return model_; }
    const std::string& baseURL() const { return baseURL_; }

    // Blocks the calling thread for at most the request's time-out.
    AIResult<std::string> ask(std::string_view instruction, std::string_view text,
                              const CancellationFlag& cancelled = nullptr) const;
    AIResult<std::string> testConnection(const CancellationFlag& cancelled = nullptr) const;
    AIResult<std::vector<std::string>> listModels(const CancellationFlag& cancelled = nullptr) const;

    // ---- The wire, without a network ----
    static std::string prompt(std::string_view instruction, std::string_view text);
    static std::optional<std::string> endpoint(const AIProvider& provider, const std::string& model,
                                               const std::string& baseURL);
    static std::optional<std::string> modelsEndpoint(const AIProvider& provider, const std::string& baseURL);
    static std::string body(AIProvider::Family family, const std::string& model, int maxTokens,
                            std::string_view instruction, std::string_view text);
    static HTTPClientRequest request(const AIProvider& provider, const std::string& url, const std::string& key,
                               std::string body);
    static HTTPClientRequest modelsRequest(const AIProvider& provider, const std::string& url, const std::string& key);
    static AIResult<std::string> answer(std::string_view data, AIProvider::Family family);
    static std::string errorMessage(std::string_view data);
    static AIResult<std::vector<std::string>> models(std::string_view data, AIProvider::Family family);

private:
    // The key and the checks before anything is sent; an error, or the key.
    AIResult<std::string> credentials() const;

    AIProvider provider_;
    std::string model_;
    std::string baseURL_;
    int maxTokens_;
    HTTPTransport& transport_;
    const Keychain& keychain_;
};

} // namespace tavrick
