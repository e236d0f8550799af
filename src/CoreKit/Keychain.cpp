#include "CoreKit/Keychain.h"

#include <unicode/ustring.h>

namespace tavrick {

namespace {
bool isValidUTF8(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    std::int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, text.data(), static_cast<std::int32_t>(text.size()), &status);
    return status != U_INVALID_CHAR_FOUND && status != U_ILLEGAL_ARGUMENT_ERROR;
}
} // namespace

bool Keychain::set(std::string_view value, const std::string& account) {
    const std::string name(service);
    // Delete first, then add: an update would keep the old item's access rules.
    store_.remove(name, account);
    return store_.add(name, account, value, SecretAccessibility::afterFirstUnlock) == SecretStatus::success;
}

std::optional<std::string> Keychain::get(const std::string& account) const {
    auto result = store_.copy(std::string(service), account);
    // Bytes that are not text (another program's item) read as nothing.
    if (result.status != SecretStatus::success || !result.data || !isValidUTF8(*result.data)) return std::nullopt;
    return result.data;
}

bool Keychain::remove(const std::string& account) {
    return store_.remove(std::string(service), account) == SecretStatus::success;
}

} // namespace tavrick
