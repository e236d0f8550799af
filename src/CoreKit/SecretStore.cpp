#include "CoreKit/SecretStore.h"

namespace tavrick {

std::string_view message(SecretStatus status) {
    switch (status) {
    case SecretStatus::success: return "No error.";
    case SecretStatus::ioFailure: return "I/O error.";
    case SecretStatus::duplicateItem: return "The specified item already exists in the keychain.";
    case SecretStatus::itemNotFound: return "The specified item could not be found in the keychain.";
    case SecretStatus::interactionNotAllowed: return "User interaction is not allowed.";
    case SecretStatus::decodeFailure: return "Unable to decode the provided data.";
    }
    return "no message";
}

SecretStore::Copy InMemorySecretStore::copy(const std::string& service, const std::string& account) const {
    std::lock_guard lock(mutex_);
    if (failure_) return {*failure_, std::nullopt};
    auto it = items_.find({service, account});
    if (it == items_.end()) return {SecretStatus::itemNotFound, std::nullopt};
    return {SecretStatus::success, it->second.data};
}

SecretStatus InMemorySecretStore::add(const std::string& service, const std::string& account, std::string_view data,
                                      SecretAccessibility accessibility) {
    std::lock_guard lock(mutex_);
    if (failure_) return *failure_;
    auto [it, inserted] = items_.try_emplace({service, account}, Item{std::string(data), accessibility});
    return inserted ? SecretStatus::success : SecretStatus::duplicateItem;
}

SecretStatus InMemorySecretStore::update(const std::string& service, const std::string& account,
                                         std::string_view data) {
    std::lock_guard lock(mutex_);
    if (failure_) return *failure_;
    auto it = items_.find({service, account});
    if (it == items_.end()) return SecretStatus::itemNotFound;
    it->second.data = std::string(data);
    return SecretStatus::success;
}

SecretStatus InMemorySecretStore::remove(const std::string& service, const std::optional<std::string>& account) {
    std::lock_guard lock(mutex_);
    if (failure_) return *failure_;
    std::size_t removed = 0;
    for (auto it = items_.begin(); it != items_.end();) {
        if (it->first.first == service && (!account || it->first.second == *account)) {
            it = items_.erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    return removed ? SecretStatus::success : SecretStatus::itemNotFound;
}

void InMemorySecretStore::setFailure(std::optional<SecretStatus> status) {
    std::lock_guard lock(mutex_);
    failure_ = status;
}

std::size_t InMemorySecretStore::count() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

std::optional<SecretAccessibility> InMemorySecretStore::accessibility(const std::string& service,
                                                                      const std::string& account) const {
    std::lock_guard lock(mutex_);
    auto it = items_.find({service, account});
    if (it == items_.end()) return std::nullopt;
    return it->second.accessibility;
}

} // namespace tavrick
