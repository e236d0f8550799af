#include "AIKit/AIProvider.h"

#include <array>

namespace tavrick {

namespace {

struct Row {
    AIProvider::Case provider;
    std::string_view id;
    std::string_view displayName;
    AIProvider::Family family;
    std::string_view account;
    std::string_view base;
    std::string_view keyURL;
    std::string_view note;
};

constexpr std::array<Row, 7> rows{{
    {AIProvider::Case::anthropic, "anthropic", "Anthropic", AIProvider::Family::anthropic, "anthropic-api-key",
     "https://api.anthropic.com", "https://console.anthropic.com/settings/keys", ""},
    {AIProvider::Case::openAI, "openAI", "OpenAI", AIProvider::Family::openAICompatible, "api-key-openAI",
     "https://api.openai.com/v1", "https://platform.openai.com/api-keys", ""},
    {AIProvider::Case::gemini, "gemini", "Google AI Studio", AIProvider::Family::gemini, "api-key-gemini",
     "https://generativelanguage.googleapis.com/v1beta", "https://aistudio.google.com/app/apikey", ""},
    {AIProvider::Case::openRouter, "openRouter", "OpenRouter", AIProvider::Family::openAICompatible,
     "api-key-openRouter", "https://openrouter.ai/api/v1", "https://openrouter.ai/keys",
     "One key for many models. Model ids are prefixed, like anthropic/claude-opus-5."},
    {AIProvider::Case::xAI, "xAI", "xAI (Grok)", AIProvider::Family::openAICompatible, "api-key-xAI",
     "https://api.x.ai/v1", "https://console.x.ai", ""},
    {AIProvider::Case::custom, "custom", "Custom (OpenAI-compatible)", AIProvider::Family::openAICompatible,
     "api-key-custom", "", "",
     "Anything that speaks OpenAI's /chat/completions — a gateway, a router, or a model on your own machine. Give "
     "the base URL up to and including /v1."},
    {AIProvider::Case::onDevice, "onDevice", "Apple on-device model", AIProvider::Family::onDevice,
     "api-key-onDevice", "", "",
     "Apple's model, running on this Mac. No key, no account, nothing sent anywhere. Good at summarising, "
     "explaining, rewriting and translating a selection; Apple says to avoid it for maths, code and reasoning "
     "puzzles."},
}};

const Row& rowOf(AIProvider::Case provider) { return rows[static_cast<std::size_t>(provider)]; }

} // namespace

std::optional<AIProvider> AIProvider::fromRaw(std::string_view raw) {
    for (const auto& row : rows)
        if (row.id == raw) return AIProvider(row.provider);
    return std::nullopt;
}

const std::vector<AIProvider>& AIProvider::allCases() {
    static const std::vector<AIProvider> cases{Case::anthropic,  Case::openAI, Case::gemini,  Case::openRouter,
                                               Case::xAI,        Case::custom, Case::onDevice};
    return cases;
}

std::string_view AIProvider::id() const { return rowOf(case_).id; }
std::string_view AIProvider::displayName() const { return rowOf(case_).displayName; }
AIProvider::Family AIProvider::family() const { return rowOf(case_).family; }
std::string_view AIProvider::keychainAccount() const { return rowOf(case_).account; }
std::string_view AIProvider::baseURL() const { return rowOf(case_).base; }
std::string_view AIProvider::note() const { return rowOf(case_).note; }

std::vector<std::string> AIProvider::fallbackModels() const {
    if (case_ == Case::anthropic) return {"claude-opus-5", "claude-sonnet-5", "claude-haiku-4-5"};
    return {};
}

std::string AIProvider::defaultModel() const {
    auto models = fallbackModels();
    return models.empty() ? std::string() : models.front();
}

std::string AIProvider::keyHint() const {
    if (case_ == Case::custom) return "The key your endpoint expects";
    return "Paste your " + std::string(displayName()) + " key";
}

std::optional<std::string_view> AIProvider::keyURL() const {
    auto url = rowOf(case_).keyURL;
    if (url.empty()) return std::nullopt;
    return url;
}

} // namespace tavrick
