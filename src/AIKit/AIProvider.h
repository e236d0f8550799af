#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// The language-model services the selection bar can ask, and how each is spoken to.
class AIProvider {
public:
    enum class Case { anthropic, openAI, gemini, openRouter, xAI, custom, onDevice };
    enum class Family { anthropic, openAICompatible, gemini, onDevice };

    AIProvider(Case provider) : case_(provider) {}
    Case kind() const { return case_; }

    static std::optional<AIProvider> fromRaw(std::string_view raw);
    static const std::vector<AIProvider>& allCases();

    // The raw value, which is what the "aiProvider" setting stores.
    std::string_view id() const;
    std::string_view displayName() const;
    Family family() const;
    // The secret store account of the provider's key. The first provider's has no "api-key-"
    // prefix because it predates the others and existing keys must still be found.
    std::string_view keychainAccount() const;
    // The provider's fixed API base; empty for custom (the user's) and the on-device model.
    std::string_view baseURL() const;

    bool needsAPIKey() const { return case_ != Case::onDevice; }
    bool isFree() const { return case_ == Case::onDevice; }
    bool needsBaseURL() const { return case_ == Case::custom; }
    std::string defaultModel() const;
    std::vector<std::string> fallbackModels() const;
    std::string keyHint() const;
    std::optional<std::string_view> keyURL() const;
    std::string_view note() const;

    friend bool operator==(const AIProvider&, const AIProvider&) = default;

private:
    Case case_;
};

} // namespace tavrick
