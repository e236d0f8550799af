#include "Platform/DBus/SecretServiceStore.h"

#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/BusNames.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>

namespace tavrick {

namespace {

constexpr const char* servicePath = "/org/freedesktop/secrets";
constexpr const char* serviceInterface = "org.freedesktop.Secret.Service";
constexpr const char* itemInterface = "org.freedesktop.Secret.Item";
constexpr const char* collectionInterface = "org.freedesktop.Secret.Collection";
constexpr auto timeout = std::chrono::seconds(10);

using Secret = sdbus::Struct<sdbus::ObjectPath, std::vector<std::uint8_t>, std::vector<std::uint8_t>, std::string>;

std::string_view accessibilityName(SecretAccessibility accessibility) {
    return accessibility == SecretAccessibility::whenUnlockedThisDeviceOnly ? "whenUnlockedThisDeviceOnly" : "afterFirstUnlock";
}

bool isLockedError(const sdbus::Error& failure) {
    return failure.getName() == "org.freedesktop.Secret.Error.IsLocked";
}

} // namespace

struct SecretServiceStore::Found {
    std::vector<sdbus::ObjectPath> unlocked;
    std::vector<sdbus::ObjectPath> locked;
};

SecretServiceStore::SecretServiceStore(BusLoop& loop, sdbus::IConnection& session, Note note)
    : loop_(loop), bus_(session), note_(std::move(note)) {}

SecretServiceStore::~SecretServiceStore() {
    if (session_.empty() || !loop_.isAlive(bus_)) return;
    try {
        loop_.sync([this] {
            auto proxy = sdbus::createProxy(bus_, service, session_);
            proxy->callMethod("Close").onInterface("org.freedesktop.Secret.Session").withTimeout(std::chrono::seconds(2));
        });
    } catch (const sdbus::Error&) {
    }
}

bool SecretServiceStore::isOffered(BusLoop& loop, sdbus::IConnection& session) {
    bool offered = false;
    loop.sync([&] { offered = BusNames::isOffered(session, service); });
    return offered;
}

std::string SecretServiceStore::session() const {
    if (!session_.empty()) return session_;
    auto proxy = sdbus::createProxy(bus_, service, servicePath);
    sdbus::Variant output;
    sdbus::ObjectPath path;
    proxy->callMethod("OpenSession")
        .onInterface(serviceInterface)
        .withTimeout(timeout)
        .withArguments(std::string("plain"), sdbus::Variant(std::string()))
        .storeResultsTo(output, path);
    session_ = path;
    return session_;
}

SecretServiceStore::Found SecretServiceStore::search(const std::map<std::string, std::string>& attributes) const {
    auto proxy = sdbus::createProxy(bus_, service, servicePath);
    Found found;
    proxy->callMethod("SearchItems")
        .onInterface(serviceInterface)
        .withTimeout(timeout)
        .withArguments(attributes)
        .storeResultsTo(found.unlocked, found.locked);
    return found;
}

SecretStatus SecretServiceStore::failed(const std::string& what, const std::exception& failure) const {
    if (auto* bus = dynamic_cast<const sdbus::Error*>(&failure)) {
        if (isLockedError(*bus)) return SecretStatus::interactionNotAllowed;
        note_("the Secret Service failed to " + what + ": " + bus->getName() + ": " + bus->getMessage());
    } else {
        note_("the Secret Service failed to " + what + ": " + failure.what());
    }
    // A session the service forgot is opened again next time.
    session_.clear();
    return SecretStatus::ioFailure;
}

SecretStore::Copy SecretServiceStore::copy(const std::string& serviceName, const std::string& account) const {
    Copy result;
    if (!loop_.isAlive(bus_)) return {SecretStatus::ioFailure, std::nullopt};
    loop_.sync([&] {
        try {
            auto found = search({{"service", serviceName}, {"account", account}});
            if (found.unlocked.empty()) {
                result.status = found.locked.empty() ? SecretStatus::itemNotFound : SecretStatus::interactionNotAllowed;
                return;
            }
            auto item = sdbus::createProxy(bus_, service, found.unlocked.front());
            Secret secret;
            item->callMethod("GetSecret").onInterface(itemInterface).withTimeout(timeout).withArguments(
                sdbus::ObjectPath(session())).storeResultsTo(secret);
            const auto& bytes = std::get<2>(secret);
            result.status = SecretStatus::success;
            result.data = std::string(bytes.begin(), bytes.end());
        } catch (const std::exception& failure) {
            result.status = failed("read an item", failure);
        }
    });
    return result;
}

SecretStatus SecretServiceStore::add(const std::string& serviceName, const std::string& account, std::string_view data,
                                     SecretAccessibility accessibility) {
    SecretStatus status = SecretStatus::ioFailure;
    if (!loop_.isAlive(bus_)) return status;
    loop_.sync([&] {
        try {
            auto found = search({{"service", serviceName}, {"account", account}});
            if (!found.unlocked.empty() || !found.locked.empty()) {
                status = SecretStatus::duplicateItem;
                return;
            }
            auto secrets = sdbus::createProxy(bus_, service, servicePath);
            sdbus::ObjectPath collection;
            secrets->callMethod("ReadAlias").onInterface(serviceInterface).withTimeout(timeout).withArguments(
                std::string("default")).storeResultsTo(collection);
            if (collection == "/") {
                note_("the Secret Service has no default keyring to keep “" + serviceName + "” in");
                status = SecretStatus::ioFailure;
                return;
            }
            auto target = sdbus::createProxy(bus_, service, collection);
            if (target->getProperty("Locked").onInterface(collectionInterface).get<bool>()) {
                status = SecretStatus::interactionNotAllowed;
                return;
            }
            std::map<std::string, sdbus::Variant> properties{
                {"org.freedesktop.Secret.Item.Label", sdbus::Variant("Tavrick: " + serviceName + " — " + account)},
                {"org.freedesktop.Secret.Item.Attributes",
                 sdbus::Variant(std::map<std::string, std::string>{{"service", serviceName},
                                                                   {"account", account},
                                                                   {"accessible", std::string(accessibilityName(accessibility))}})},
            };
            Secret secret(sdbus::ObjectPath(session()), std::vector<std::uint8_t>{},
                          std::vector<std::uint8_t>(data.begin(), data.end()), std::string("text/plain"));
            sdbus::ObjectPath item, prompt;
            target->callMethod("CreateItem").onInterface(collectionInterface).withTimeout(timeout).withArguments(
                properties, secret, false).storeResultsTo(item, prompt);
            // A prompt means the keyring wants the user first; this program never shows one.
            status = item == "/" ? SecretStatus::interactionNotAllowed : SecretStatus::success;
        } catch (const std::exception& failure) {
            status = failed("store an item", failure);
        }
    });
    return status;
}

SecretStatus SecretServiceStore::update(const std::string& serviceName, const std::string& account, std::string_view data) {
    SecretStatus status = SecretStatus::ioFailure;
    if (!loop_.isAlive(bus_)) return status;
    loop_.sync([&] {
        try {
            auto found = search({{"service", serviceName}, {"account", account}});
            if (found.unlocked.empty()) {
                status = found.locked.empty() ? SecretStatus::itemNotFound : SecretStatus::interactionNotAllowed;
                return;
            }
            auto item = sdbus::createProxy(bus_, service, found.unlocked.front());
            Secret secret(sdbus::ObjectPath(session()), std::vector<std::uint8_t>{},
                          std::vector<std::uint8_t>(data.begin(), data.end()), std::string("text/plain"));
            item->callMethod("SetSecret").onInterface(itemInterface).withTimeout(timeout).withArguments(secret);
            status = SecretStatus::success;
        } catch (const std::exception& failure) {
            status = failed("update an item", failure);
        }
    });
    return status;
}

SecretStatus SecretServiceStore::remove(const std::string& serviceName, const std::optional<std::string>& account) {
    SecretStatus status = SecretStatus::ioFailure;
    if (!loop_.isAlive(bus_)) return status;
    loop_.sync([&] {
        try {
            std::map<std::string, std::string> attributes{{"service", serviceName}};
            if (account) attributes["account"] = *account;
            auto found = search(attributes);
            // All or nothing: with any match locked, none is removed.
            if (!found.locked.empty()) {
                status = SecretStatus::interactionNotAllowed;
                return;
            }
            if (found.unlocked.empty()) {
                status = SecretStatus::itemNotFound;
                return;
            }
            status = SecretStatus::success;
            for (const auto& path : found.unlocked) {
                auto item = sdbus::createProxy(bus_, service, path);
                sdbus::ObjectPath prompt;
                item->callMethod("Delete").onInterface(itemInterface).withTimeout(timeout).storeResultsTo(prompt);
                if (prompt != "/") status = SecretStatus::interactionNotAllowed;
            }
        } catch (const std::exception& failure) {
            status = failed("remove an item", failure);
        }
    });
    return status;
}

} // namespace tavrick

namespace tavrick {

std::optional<std::size_t> SecretServiceStore::importFrom(const FileSecretStore& file) {
    auto records = file.records();
    if (!records) return std::nullopt;
    std::size_t added = 0;
    for (const auto& record : *records) {
        const auto status = add(record.service, record.account, record.data, record.accessibility);
        if (status == SecretStatus::success) {
            ++added;
        } else if (status != SecretStatus::duplicateItem) {
            note_("a keychain record of " + record.service + " stays in " + file.file().filename().string() + " only (" +
                  std::string(message(status)) + ")");
        }
    }
    return added;
}

} // namespace tavrick
