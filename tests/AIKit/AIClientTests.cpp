#include "AIKit/AIClient.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>

namespace tavrick {
namespace {

using P = AIProvider::Case;
using F = AIProvider::Family;

// Answers from a table and remembers what it was sent.
class ScriptedTransport final : public HTTPTransport {
public:
    Result send(const HTTPClientRequest& request, const CancellationFlag&) override {
        sent.push_back(request);
        return next;
    }
    Result next = HTTPClientResponse{200, R"({"choices":[{"message":{"content":" hi "}}]})"};
    std::vector<HTTPClientRequest> sent;
};

TEST(AIClientTest, EndpointsPerFamilyWithOrWithoutATrailingSlash) {
    struct Case {
        AIProvider provider;
        std::string base;
        std::optional<std::string> endpoint;
        std::optional<std::string> models;
    };
    const std::vector<Case> cases{
        {P::anthropic, "https://api.test", "https://api.test/v1/messages", "https://api.test/v1/models"},
        {P::anthropic, "https://api.test/", "https://api.test/v1/messages", "https://api.test/v1/models"},
        {P::gemini, "https://g.test/v1beta/", "https://g.test/v1beta/models/m-1:generateContent",
         "https://g.test/v1beta/models"},
        {P::custom, "http://127.0.0.1:8080/v1", "http://127.0.0.1:8080/v1/chat/completions",
         "http://127.0.0.1:8080/v1/models"},
        {P::custom, "not a url", std::nullopt, std::nullopt},
        {P::custom, "ftp://x.test/v1", std::nullopt, std::nullopt},
        {P::onDevice, "https://x.test", std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(AIClient::endpoint(c.provider, "m-1", c.base), c.endpoint) << c.base;
        EXPECT_EQ(AIClient::modelsEndpoint(c.provider, c.base), c.models) << c.base;
    }
}

TEST(AIClientTest, RequestsCarryTheirFamilysHeadersAndBody) {
    auto anthropic = AIClient::request(P::anthropic, "https://a.test/v1/messages", "KEY",
                                       AIClient::body(F::anthropic, "claude-x", 1024, "Explain.", "a<b"));
    EXPECT_EQ(anthropic.method, "POST");
    EXPECT_EQ(anthropic.timeoutSeconds, 60);
    const std::vector<std::pair<std::string, std::string>> anthropicHeaders{
        {"Content-Type", "application/json"},
        {"x-api-key", "KEY"},
        {"anthropic-version", "2023-06-01"},
        {"anthropic-beta", "server-side-fallback-2026-07-01"}};
    EXPECT_EQ(anthropic.headers, anthropicHeaders);
    auto body = nlohmann::json::parse(anthropic.body);
    EXPECT_EQ(body["model"], "claude-x");
    EXPECT_EQ(body["max_tokens"], 1024);
    EXPECT_EQ(body["fallbacks"], "default");
    EXPECT_EQ(body["system"], std::string(AIClient::systemPrompt));
    EXPECT_EQ(body["messages"][0]["content"], "Explain.\n\n<selection>\na<b\n</selection>");

    auto openAI = nlohmann::json::parse(AIClient::body(F::openAICompatible, "gpt", 1024, "I", "T"));
    EXPECT_EQ(openAI["max_completion_tokens"], 1024);
    EXPECT_EQ(openAI["messages"][0]["role"], "system");
    EXPECT_EQ(openAI["messages"][1]["content"], "I\n\n<selection>\nT\n</selection>");
    EXPECT_EQ(AIClient::request(P::xAI, "https://x", "K", "{}").headers.back(),
              (std::pair<std::string, std::string>{"Authorization", "Bearer K"}));

    auto gemini = nlohmann::json::parse(AIClient::body(F::gemini, "g", 7, "I", "T"));
    EXPECT_EQ(gemini["generationConfig"]["maxOutputTokens"], 7);
    EXPECT_EQ(gemini["systemInstruction"]["parts"][0]["text"], std::string(AIClient::systemPrompt));
    EXPECT_EQ(gemini["contents"][0]["parts"][0]["text"], "I\n\n<selection>\nT\n</selection>");
    EXPECT_EQ(AIClient::request(P::gemini, "https://g", "K", "{}").headers.back(),
              (std::pair<std::string, std::string>{"x-goog-api-key", "K"}));
    EXPECT_EQ(AIClient::modelsRequest(P::gemini, "https://g", "K").timeoutSeconds, 30);

    // Invalid UTF-8 in the selection still makes a request.
    EXPECT_NO_THROW(nlohmann::json::parse(AIClient::body(F::anthropic, "m", 1, "I", "bad \xff\xfe")));
    // The redacted form names no key.
    auto redacted = anthropic.redactedDescription();
    EXPECT_EQ(redacted.find("KEY"), std::string::npos) << redacted;
    EXPECT_EQ(redacted.find("a<b"), std::string::npos) << redacted;
}

TEST(AIClientTest, AnswersFromRecordedBodies) {
    struct Case {
        F family;
        std::string body;
        std::variant<std::string, std::string> expected;  // answer, or error description
    };
    using Ok = std::variant<std::string, std::string>;
    auto ok = [](std::string text) { return Ok(std::in_place_index<0>, std::move(text)); };
    auto failed = [](std::string text) { return Ok(std::in_place_index<1>, std::move(text)); };
    const std::vector<Case> cases{
        {F::openAICompatible, R"({"choices":[{"message":{"content":"  Paris.\n"}}]})", ok("Paris.")},
        {F::openAICompatible, R"({"choices":[{"message":{"content":[{"type":"text","text":"a"},{"text":"b"}]}}]})", ok("ab")},
        {F::openAICompatible, R"({"choices":[]})", failed("The model returned nothing.")},
        {F::anthropic,
         R"({"content":[{"type":"text","text":"one "},{"type":"thinking","thinking":"hmm"},{"type":"text","text":"two"}]})",
         ok("one two")},
        {F::anthropic, R"({"stop_reason":"refusal"})", failed("The model declined to answer that.")},
        {F::anthropic, R"({"stop_reason":"refusal","stop_details":{"explanation":"Not that."}})", failed("Not that.")},
        {F::gemini, R"({"candidates":[{"content":{"parts":[{"text":"x"},{"text":"y"}]}}]})", ok("xy")},
        {F::gemini, R"({"promptFeedback":{"blockReason":"SAFETY"}})", failed("Blocked: SAFETY")},
        {F::gemini, R"({})", failed("The model returned nothing.")},
        {F::gemini, "<html>oops</html>", failed("The model returned nothing.")},
        {F::anthropic, "", failed("The model returned nothing.")},
        {F::anthropic, "[1,2]", failed("The model returned nothing.")},
        {F::onDevice, "{}", failed("The on-device model does not answer over HTTP.")},
    };
    for (const auto& c : cases) {
        auto result = AIClient::answer(c.body, c.family);
        Ok got = std::holds_alternative<std::string>(result)
                     ? ok(std::get<std::string>(result))
                     : failed(std::get<AIError>(result).description());
        EXPECT_EQ(got, c.expected) << c.body;
    }
}

TEST(AIClientTest, ErrorMessagesAndStatusWords) {
    const std::string html = "<html>" + std::string(294, 'x');
    const std::vector<std::pair<std::string, std::string>> messages{
        {R"({"error":{"message":"boom","status":"X"}})", "boom"},
        {R"({"error":{"status":"RESOURCE_EXHAUSTED"}})", "RESOURCE_EXHAUSTED"},
        {R"({"error":"plain"})", "plain"},
        {R"({"message":"top"})", "top"},
        {html, html.substr(0, 200)},
        {std::string(199, 'a') + "é", std::string(199, 'a')},  // not cut inside a character
        {"", "unreadable response"},
    };
    for (const auto& [body, message] : messages) EXPECT_EQ(AIClient::errorMessage(body), message) << body.substr(0, 30);

    const std::vector<std::pair<AIError, std::string>> words{
        {AIError::http(401, "secret body"), "The key was rejected (401). Check it in Settings › Selection."},
        {AIError::http(403, "x"), "The key was rejected (403). Check it in Settings › Selection."},
        {AIError::http(404, "no model"), "Not found (404) — usually the model id or the base URL: no model"},
        {AIError::http(429, "slow down"), "Rate limited or out of credit (429): slow down"},
        {AIError::http(500, "boom"), "The API returned 500: boom"},
        {AIError::badBaseURL("x"), "That base URL cannot be used: x"},
        {AIError::of(AIError::Case::noAPIKey), "No API key for this provider. Add one in Settings › Selection."},
        {AIError::of(AIError::Case::noBaseURL),
         "This provider needs a base URL — the address up to and including /v1."},
    };
    for (const auto& [error, text] : words) EXPECT_EQ(error.description(), text);
}

TEST(AIClientTest, AskChecksKeyAndBaseBeforeSendingAndMapsStatuses) {
    InMemorySecretStore secrets;
    Keychain keychain(secrets);
    ScriptedTransport transport;

    // No key for any provider but the on-device one, custom included.
    for (auto provider : {P::anthropic, P::openAI, P::gemini, P::openRouter, P::xAI, P::custom}) {
        AIClient client(provider, "", "http://127.0.0.1:1/v1", 1024, transport, keychain);
        auto result = client.ask("I", "T");
        ASSERT_TRUE(std::holds_alternative<AIError>(result));
        EXPECT_EQ(std::get<AIError>(result).kind, AIError::Case::noAPIKey) << AIProvider(provider).id();
    }
    keychain.set("   ", "api-key-custom");
    EXPECT_EQ(std::get<AIError>(AIClient(P::custom, "", "x", 1024, transport, keychain).ask("I", "T")).kind,
              AIError::Case::noAPIKey);
    keychain.set("k-custom", "api-key-custom");
    EXPECT_EQ(std::get<AIError>(AIClient(P::custom, "", "  ", 1024, transport, keychain).ask("I", "T")).kind,
              AIError::Case::noBaseURL);
    EXPECT_EQ(std::get<AIError>(AIClient(P::custom, "", "nope", 1024, transport, keychain).ask("I", "T")).description(),
              "That base URL cannot be used: nope");
    EXPECT_TRUE(transport.sent.empty());

    // The first provider's key is found under its old account name.
    keychain.set("k-anthropic", "anthropic-api-key");
    AIClient anthropic(P::anthropic, "", "ignored", 1024, transport, keychain);
    EXPECT_EQ(anthropic.model(), "claude-opus-5");
    EXPECT_EQ(anthropic.baseURL(), "https://api.anthropic.com");
    transport.next = HTTPClientResponse{200, R"({"content":[{"type":"text","text":"OK"}]})"};
    EXPECT_EQ(std::get<std::string>(anthropic.testConnection()), "OK");
    EXPECT_EQ(transport.sent.back().url, "https://api.anthropic.com/v1/messages");
    EXPECT_NE(transport.sent.back().body.find("Reply with the single word OK."), std::string::npos);

    AIClient custom(P::custom, "local", " http://127.0.0.1:9/v1/ ", 1024, transport, keychain);
    transport.next = HTTPClientResponse{401, R"({"error":{"message":"bad key k-custom"}})"};
    auto rejected = std::get<AIError>(custom.ask("I", "T"));
    EXPECT_EQ(rejected.description(), "The key was rejected (401). Check it in Settings › Selection.");
    transport.next = HTTPClientResponse{500, R"({"error":{"message":"boom"}})"};
    EXPECT_EQ(std::get<AIError>(custom.ask("I", "T")).description(), "The API returned 500: boom");
    transport.next = std::string("Connection refused");
    EXPECT_EQ(std::get<AIError>(custom.ask("I", "T")).description(), "Connection refused");
    EXPECT_EQ(transport.sent.back().url, "http://127.0.0.1:9/v1/chat/completions");

    transport.next = HTTPClientResponse{200, R"({"data":[{"id":"b"},{"id":"a"},{"x":1}]})"};
    EXPECT_EQ(std::get<std::vector<std::string>>(custom.listModels()), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(transport.sent.back().method, "GET");

    // The on-device model needs no key and sends nothing.
    auto before = transport.sent.size();
    AIClient onDevice(P::onDevice, "", "", 1024, transport, keychain);
    EXPECT_EQ(std::get<AIError>(onDevice.ask("I", "T")).description(), "The on-device model needs macOS 26 or later.");
    EXPECT_EQ(transport.sent.size(), before);
}

TEST(AIClientTest, GeminiModelListKeepsOnlyGeneratorsWithoutThePrefix) {
    auto models = AIClient::models(
        R"({"models":[{"name":"models/gemini-b","supportedGenerationMethods":["generateContent"]},
                      {"name":"models/embed","supportedGenerationMethods":["embedContent"]},
                      {"name":"gemini-a","supportedGenerationMethods":["countTokens","generateContent"]}]})",
        F::gemini);
    EXPECT_EQ(std::get<std::vector<std::string>>(models), (std::vector<std::string>{"gemini-a", "gemini-b"}));
}

TEST(AIProviderTest, AccountsAndHints) {
    EXPECT_EQ(AIProvider(P::anthropic).keychainAccount(), "anthropic-api-key");
    EXPECT_EQ(AIProvider(P::openRouter).keychainAccount(), "api-key-openRouter");
    EXPECT_EQ(AIProvider(P::gemini).keyHint(), "Paste your Google AI Studio key");
    EXPECT_EQ(AIProvider(P::custom).keyHint(), "The key your endpoint expects");
    EXPECT_FALSE(AIProvider(P::custom).keyURL());
    EXPECT_FALSE(AIProvider::fromRaw("openai"));
    EXPECT_EQ(AIProvider::fromRaw("openAI"), AIProvider(P::openAI));
    for (const auto& provider : AIProvider::allCases()) {
        EXPECT_EQ(provider.needsAPIKey(), provider.kind() != P::onDevice);
        auto base = std::string(provider.baseURL());
        if (provider.kind() == P::custom || provider.kind() == P::onDevice) {
            EXPECT_TRUE(base.empty());
        } else {
            EXPECT_EQ(base.rfind("https://", 0), 0u) << base;
        }
    }
    EXPECT_TRUE(std::string(AIProvider(P::openAI).baseURL()).ends_with("/v1"));
    EXPECT_TRUE(std::string(AIProvider(P::gemini).baseURL()).ends_with("/v1beta"));
    EXPECT_TRUE(std::string(AIProvider(P::openRouter).baseURL()).ends_with("/api/v1"));
}

} // namespace
} // namespace tavrick
