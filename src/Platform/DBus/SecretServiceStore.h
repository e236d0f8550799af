#pragma once

#include "CoreKit/SecretStore.h"
#include "Platform/Linux/FileSecretStore.h"

#include <functional>
#include <optional>
#include <string>

namespace sdbus {
class IConnection;
}

namespace tavrick {

class BusLoop;

// The keychain over the desktop's Secret Service (org.freedesktop.secrets: GNOME Keyring,
// KWallet...). Every item is one secret in the default collection with the attributes "service"
// and "account" (as `secret-tool lookup service S account A` finds it) and "accessible", the
// choice it was stored with. A locked collection or item answers `interactionNotAllowed` and
// nothing is changed: this program never prompts. A service that errs answers `ioFailure`, with
// the reason in the log.
class SecretServiceStore final : public SecretStore {
public:
    using Note = std::function<void(const std::string&)>;
    static constexpr const char* service = "org.freedesktop.secrets";

    SecretServiceStore(BusLoop& loop, sdbus::IConnection& session, Note note);
    ~SecretServiceStore() override;

    // Whether the session bus has a Secret Service now (or can start one).
    static bool isOffered(BusLoop& loop, sdbus::IConnection& session);

    Copy copy(const std::string& service, const std::string& account) const override;
    SecretStatus add(const std::string& service, const std::string& account, std::string_view data,
                     SecretAccessibility accessibility) override;
    SecretStatus update(const std::string& service, const std::string& account, std::string_view data) override;
    SecretStatus remove(const std::string& service, const std::optional<std::string>& account) override;

    // Carries the records of the file store into this one, once a record: one already here
    // (by service and account) is left as it is. The file is only read, never changed, so a run
    // without the Secret Service still finds everything. Returns how many were added, or nothing
    // when the file could not be read; a record refused here is noted and counted out.
    std::optional<std::size_t> importFrom(const FileSecretStore& file);

private:
    struct Found;
    Found search(const std::map<std::string, std::string>& attributes) const;
    std::string session() const;
    SecretStatus failed(const std::string& what, const std::exception& failure) const;

    BusLoop& loop_;
    sdbus::IConnection& bus_;
    Note note_;
    mutable std::string session_;
};

} // namespace tavrick
