#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tavrick {

// How a secret store answers, numbered as the keychain numbers its statuses so that a message
// read by a person matches what the platform would have said.
enum class SecretStatus : std::int32_t {
    success = 0,
    ioFailure = -36,
    duplicateItem = -25299,
    itemNotFound = -25300,
    interactionNotAllowed = -25308,
    decodeFailure = -26275,
};

// The store's own words for a status: "The specified item already exists in the keychain." ...
std::string_view message(SecretStatus status);

// When an item may be read: after the first unlock since start, or only while unlocked and never
// on another device. A store that has no such notion keeps the choice with the item.
enum class SecretAccessibility { afterFirstUnlock, whenUnlockedThisDeviceOnly };

// A per-user store of small secrets, each addressed by service and account, holding bytes.
// Implementations are safe from any thread.
class SecretStore {
public:
    virtual ~SecretStore() = default;

    // The item's bytes, or `itemNotFound`, or why it could not be read.
    struct Copy {
        SecretStatus status = SecretStatus::itemNotFound;
        std::optional<std::string> data;
    };
    virtual Copy copy(const std::string& service, const std::string& account) const = 0;
    // `duplicateItem` when the account already holds one.
    virtual SecretStatus add(const std::string& service, const std::string& account, std::string_view data,
                             SecretAccessibility accessibility) = 0;
    // `itemNotFound` when there is nothing to update.
    virtual SecretStatus update(const std::string& service, const std::string& account, std::string_view data) = 0;
    // With an account, that item; without, every item of the service. `itemNotFound` when
    // nothing matched.
    virtual SecretStatus remove(const std::string& service, const std::optional<std::string>& account) = 0;
};

// A store held in memory: for tests, and for a run that must leave no secret behind. It can be
// told to answer every call with one status, as a locked or broken keychain would.
class InMemorySecretStore final : public SecretStore {
public:
    Copy copy(const std::string& service, const std::string& account) const override;
    SecretStatus add(const std::string& service, const std::string& account, std::string_view data,
                     SecretAccessibility accessibility) override;
    SecretStatus update(const std::string& service, const std::string& account, std::string_view data) override;
    SecretStatus remove(const std::string& service, const std::optional<std::string>& account) override;

    // Every call answers `status` without touching the items, until given nothing.
    void setFailure(std::optional<SecretStatus> status);
    std::size_t count() const;
    std::optional<SecretAccessibility> accessibility(const std::string& service, const std::string& account) const;

private:
    struct Item {
        std::string data;
        SecretAccessibility accessibility;
    };
    mutable std::mutex mutex_;
    std::map<std::pair<std::string, std::string>, Item> items_;
    std::optional<SecretStatus> failure_;
};

} // namespace tavrick
