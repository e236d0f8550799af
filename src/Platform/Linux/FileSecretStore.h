#pragma once

#include "CoreKit/SecretStore.h"

#include <filesystem>
#include <mutex>
#include <vector>

namespace tavrick {

// Secrets in one file readable only by the user: mode 0600 from the moment it exists, replaced
// atomically on every change, one record per service and account, the bytes in base64:
//
//   {"format": 1, "items": [{"account": "anthropic-api-key", "accessible": "afterFirstUnlock",
//                            "data": "c2stYW50LTEyMw==", "service": "com.orvell.tavrick"}]}
//
// The file is read afresh on every call, so another process's change is seen at once. A file
// that cannot be read as this format is answered with `decodeFailure` and left alone; the first
// write after that moves it aside (never deletes it) and starts a new one. Records this build
// does not understand are kept as they are.
class FileSecretStore final : public SecretStore {
public:
    explicit FileSecretStore(std::filesystem::path file);

    // "secrets.json" in the support directory.
    static std::filesystem::path defaultFile();
    const std::filesystem::path& file() const { return file_; }

    // Every readable record, in file order, for carrying them to another store; a record that
    // cannot be read is left out. Nothing when the file cannot be read at all. Reads only.
    struct Record {
        std::string service;
        std::string account;
        std::string data;
        SecretAccessibility accessibility = SecretAccessibility::afterFirstUnlock;
    };
    std::optional<std::vector<Record>> records() const;

    Copy copy(const std::string& service, const std::string& account) const override;
    SecretStatus add(const std::string& service, const std::string& account, std::string_view data,
                     SecretAccessibility accessibility) override;
    SecretStatus update(const std::string& service, const std::string& account, std::string_view data) override;
    SecretStatus remove(const std::string& service, const std::optional<std::string>& account) override;

private:
    std::filesystem::path file_;
    mutable std::mutex mutex_;
};

} // namespace tavrick
