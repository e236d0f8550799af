#pragma once

#include "CoreKit/SecretStore.h"

#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// Text secrets of the program itself, such as AI provider keys, under the service
// "com.orvell.tavrick". Calls are synchronous and safe from any thread.
class Keychain {
public:
    static constexpr std::string_view service = "com.orvell.tavrick";
    static constexpr std::string_view anthropicKeyAccount = "anthropic-api-key";

    explicit Keychain(SecretStore& store) : store_(store) {}

    // Replaces whatever the account held. True when the store kept it.
    bool set(std::string_view value, const std::string& account);
    // Nothing when there is no item or it cannot be read.
    std::optional<std::string> get(const std::string& account) const;
    // True only when an item was there and is gone, so removing nothing answers false.
    bool remove(const std::string& account);

private:
    SecretStore& store_;
};

} // namespace tavrick
