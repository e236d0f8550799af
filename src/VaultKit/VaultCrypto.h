#pragma once

#include "VaultKit/VaultItem.h"

#include <nlohmann/json_fwd.hpp>

#include <array>
#include <optional>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavrick {

// Key derivation, authenticated encryption and the sealed record that the vault and the backup
// both carry. Pure functions: no state, no storage, no locking. Deriving a key takes seconds on
// purpose, so interactive callers run it off the main thread.
namespace VaultCrypto {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::int64_t iterations = 3000000;
inline constexpr std::size_t saltBytes = 16;
inline constexpr std::int64_t currentVersion = 1;
inline constexpr std::int64_t minimumIterations = 100000;
inline constexpr std::int64_t maximumIterations = 20000000;
inline constexpr std::string_view verifierPlaintext = "tavrick-vault-v1";
inline constexpr std::size_t nonceBytes = 12;
inline constexpr std::size_t tagBytes = 16;

enum class Protection { passphrase, unprotected };
std::string_view rawValue(Protection protection);

enum class Failure { wrongPassphrase, corrupt, derivationFailed, locked };
std::string_view description(Failure failure);

// Every failure of this namespace: `what()` is the sentence a user reads.
class Error : public std::runtime_error {
public:
    explicit Error(Failure failure) : std::runtime_error(std::string(description(failure))), failure_(failure) {}
    Failure failure() const { return failure_; }

private:
    Failure failure_;
};

// A 256-bit AES key. Its bytes are wiped when it goes, and it is never written anywhere.
class SymmetricKey {
public:
    SymmetricKey() = default;
    explicit SymmetricKey(const std::uint8_t* bytes);
    SymmetricKey(const SymmetricKey& other) = default;
    SymmetricKey& operator=(const SymmetricKey& other) = default;
    ~SymmetricKey();

    const std::uint8_t* data() const { return bytes_.data(); }
    static constexpr std::size_t size = 32;
    friend bool operator==(const SymmetricKey&, const SymmetricKey&) = default;

private:
    std::array<std::uint8_t, size> bytes_{};
};

struct Envelope {
    std::int64_t version = currentVersion;
    Bytes salt;
    std::int64_t iterations = 0;
    Bytes verifier;
    Bytes payload;
    Protection protection = Protection::passphrase;

    friend bool operator==(const Envelope&, const Envelope&) = default;
};

// The envelope's JSON object: binary fields in standard base64. A missing "protection" reads as
// a passphrase envelope, so older records still open; any other failure throws `Error(corrupt)`.
nlohmann::json toJSON(const Envelope& envelope);
Envelope envelopeFromJSON(const nlohmann::json& json);
std::string encode(const Envelope& envelope);
Envelope decodeEnvelope(std::string_view text);

std::string base64(const Bytes& bytes);
// Strict standard base64 (padding required); nothing for anything else.
std::optional<Bytes> fromBase64(std::string_view text);

// Bytes from the system's random source; a source that fails ends the process.
Bytes randomBytes(std::size_t count);
Bytes randomSalt();

SymmetricKey deriveKey(std::string_view passphrase, const Bytes& salt, std::int64_t iterations);
// The combined form: nonce, ciphertext, tag.
Bytes seal(const std::uint8_t* plaintext, std::size_t length, const SymmetricKey& key);
Bytes seal(const Bytes& plaintext, const SymmetricKey& key);
// The plaintext is returned in a buffer the caller should wipe when done with it.
Bytes open(const Bytes& box, const SymmetricKey& key);
SymmetricKey unlock(const Envelope& envelope, std::string_view passphrase);

std::pair<Envelope, SymmetricKey> seal(const std::vector<VaultItem>& items, std::string_view passphrase,
                                      std::int64_t rounds = iterations);
Envelope makeEnvelope(const std::vector<VaultItem>& items, std::string_view passphrase,
                      std::int64_t rounds = iterations);
Envelope makeUnprotectedEnvelope(const std::vector<VaultItem>& items);
std::vector<VaultItem> items(const Envelope& envelope, const SymmetricKey& key);
std::vector<VaultItem> unprotectedItems(const Envelope& envelope);
Envelope reseal(const std::vector<VaultItem>& items, const Envelope& envelope, const SymmetricKey& key);
Envelope sealed(const Bytes& content, std::string_view passphrase, std::int64_t rounds = iterations);
Bytes opened(const Envelope& envelope, std::string_view passphrase);

// Overwrites bytes that held a secret before they are released.
void wipe(Bytes& bytes);
void wipe(std::string& text);

} // namespace VaultCrypto

} // namespace tavrick
