#include "VaultKit/VaultCrypto.h"

#include <nlohmann/json.hpp>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tavrick::VaultCrypto {

namespace {

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

CipherContext newContext() { return CipherContext(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free); }

// The items' JSON as bytes; the text it was built in is wiped on the way.
Bytes encodedItems(const std::vector<VaultItem>& items) {
    std::string text = encodeItems(items);
    Bytes bytes(text.begin(), text.end());
    wipe(text);
    return bytes;
}

Bytes verifierBytes() { return Bytes(verifierPlaintext.begin(), verifierPlaintext.end()); }

std::vector<VaultItem> decodedItems(Bytes& plaintext) {
    try {
        auto items = decodeItems(std::string_view(reinterpret_cast<const char*>(plaintext.data()), plaintext.size()));
        wipe(plaintext);
        return items;
    } catch (const std::exception&) {
        wipe(plaintext);
        throw Error(Failure::corrupt);
    }
}

} // namespace

std::string_view rawValue(Protection protection) {
    return protection == Protection::passphrase ? "passphrase" : "unprotected";
}

std::string_view description(Failure failure) {
    switch (failure) {
    case Failure::wrongPassphrase: return "That passphrase does not open this vault.";
    case Failure::corrupt: return "The stored vault could not be read. It may be damaged.";
    case Failure::derivationFailed: return "This Mac could not derive a key from that passphrase.";
    case Failure::locked: return "The vault is locked. Unlock it and try again.";
    }
    return "The stored vault could not be read. It may be damaged.";
}

SymmetricKey::SymmetricKey(const std::uint8_t* bytes) { std::copy(bytes, bytes + size, bytes_.begin()); }

SymmetricKey::~SymmetricKey() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

void wipe(Bytes& bytes) {
    if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
    bytes.clear();
}

void wipe(std::string& text) {
    if (!text.empty()) OPENSSL_cleanse(text.data(), text.size());
    text.clear();
}

std::string base64(const Bytes& bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3), '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes.data(),
                                        static_cast<int>(bytes.size()));
    out.resize(static_cast<std::size_t>(written));
    return out;
}

std::optional<Bytes> fromBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool alphabet = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
                              c == '/';
        if (c == '=') {
            if (i + 2 < text.size()) return std::nullopt;
            ++padding;
        } else if (!alphabet || padding > 0) {
            return std::nullopt;
        }
    }
    Bytes out(text.size() / 4 * 3);
    if (text.empty()) return out;
    const int written = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                        static_cast<int>(text.size()));
    if (written < 0) return std::nullopt;
    out.resize(static_cast<std::size_t>(written) - padding);
    return out;
}

nlohmann::json toJSON(const Envelope& envelope) {
    return {{"version", envelope.version},     {"salt", base64(envelope.salt)},
            {"iterations", envelope.iterations}, {"verifier", base64(envelope.verifier)},
            {"payload", base64(envelope.payload)}, {"protection", std::string(rawValue(envelope.protection))}};
}

Envelope envelopeFromJSON(const nlohmann::json& json) {
    if (!json.is_object()) throw Error(Failure::corrupt);
    auto integer = [&](const char* key) {
        auto it = json.find(key);
        if (it == json.end() || !it->is_number_integer()) throw Error(Failure::corrupt);
        return it->get<std::int64_t>();
    };
    auto bytes = [&](const char* key) {
        auto it = json.find(key);
        if (it == json.end() || !it->is_string()) throw Error(Failure::corrupt);
        auto decoded = fromBase64(it->get_ref<const std::string&>());
        if (!decoded) throw Error(Failure::corrupt);
        return *decoded;
    };
    Envelope envelope;
    envelope.version = integer("version");
    envelope.salt = bytes("salt");
    envelope.iterations = integer("iterations");
    envelope.verifier = bytes("verifier");
    envelope.payload = bytes("payload");
    if (auto it = json.find("protection"); it != json.end()) {
        if (*it == "passphrase") {
            envelope.protection = Protection::passphrase;
        } else if (*it == "unprotected") {
            envelope.protection = Protection::unprotected;
        } else {
            throw Error(Failure::corrupt);
        }
    }
    return envelope;
}

std::string encode(const Envelope& envelope) { return toJSON(envelope).dump(); }

Envelope decodeEnvelope(std::string_view text) {
    auto json = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    if (json.is_discarded()) throw Error(Failure::corrupt);
    return envelopeFromJSON(json);
}

Bytes randomBytes(std::size_t count) {
    Bytes out(count);
    if (count > 0 && RAND_bytes(out.data(), static_cast<int>(count)) != 1) {
        // Sealing with predictable bytes would be worse than not running at all.
        std::fputs("tavrick: the system's random source failed\n", stderr);
        std::abort();
    }
    return out;
}

Bytes randomSalt() { return randomBytes(saltBytes); }

SymmetricKey deriveKey(std::string_view passphrase, const Bytes& salt, std::int64_t rounds) {
    if (rounds < 1 || rounds > maximumIterations) throw Error(Failure::corrupt);
    std::array<std::uint8_t, SymmetricKey::size> buffer{};
    const int status = PKCS5_PBKDF2_HMAC(passphrase.data(), static_cast<int>(passphrase.size()), salt.data(),
                                         static_cast<int>(salt.size()), static_cast<int>(rounds), EVP_sha256(),
                                         static_cast<int>(buffer.size()), buffer.data());
    if (status != 1) {
        OPENSSL_cleanse(buffer.data(), buffer.size());
        throw Error(Failure::derivationFailed);
    }
    SymmetricKey key(buffer.data());
    OPENSSL_cleanse(buffer.data(), buffer.size());
    return key;
}

Bytes seal(const std::uint8_t* plaintext, std::size_t length, const SymmetricKey& key) {
    Bytes box = randomBytes(nonceBytes);
    box.resize(nonceBytes + length + tagBytes);
    auto context = newContext();
    int written = 0, final = 0;
    if (!context || EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), box.data()) != 1 ||
        EVP_EncryptUpdate(context.get(), box.data() + nonceBytes, &written, plaintext, static_cast<int>(length)) != 1 ||
        EVP_EncryptFinal_ex(context.get(), box.data() + nonceBytes + written, &final) != 1 ||
        static_cast<std::size_t>(written + final) != length ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(tagBytes),
                            box.data() + nonceBytes + length) != 1) {
        wipe(box);
        throw Error(Failure::corrupt);
    }
    return box;
}

Bytes seal(const Bytes& plaintext, const SymmetricKey& key) { return seal(plaintext.data(), plaintext.size(), key); }

Bytes open(const Bytes& box, const SymmetricKey& key) {
    if (box.size() < nonceBytes + tagBytes) throw Error(Failure::corrupt);
    const std::size_t length = box.size() - nonceBytes - tagBytes;
    Bytes plaintext(length);
    auto context = newContext();
    int written = 0, final = 0;
    std::array<std::uint8_t, tagBytes> tag{};
    std::copy(box.end() - tagBytes, box.end(), tag.begin());
    if (!context || EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), box.data()) != 1 ||
        EVP_DecryptUpdate(context.get(), plaintext.data(), &written, box.data() + nonceBytes,
                          static_cast<int>(length)) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(tagBytes), tag.data()) != 1) {
        wipe(plaintext);
        throw Error(Failure::corrupt);
    }
    if (EVP_DecryptFinal_ex(context.get(), plaintext.data() + written, &final) != 1) {
        wipe(plaintext);
        throw Error(Failure::wrongPassphrase);
    }
    return plaintext;
}

SymmetricKey unlock(const Envelope& envelope, std::string_view passphrase) {
    if (envelope.protection != Protection::passphrase) throw Error(Failure::corrupt);
    SymmetricKey key = deriveKey(passphrase, envelope.salt, envelope.iterations);
    Bytes plaintext = open(envelope.verifier, key);
    const bool matches = plaintext == verifierBytes();
    wipe(plaintext);
    if (!matches) throw Error(Failure::wrongPassphrase);
    return key;
}

std::pair<Envelope, SymmetricKey> seal(const std::vector<VaultItem>& items, std::string_view passphrase,
                                      std::int64_t rounds) {
    Envelope envelope;
    envelope.salt = randomSalt();
    SymmetricKey key = deriveKey(passphrase, envelope.salt, rounds);
    envelope.verifier = seal(verifierBytes(), key);
    Bytes content = encodedItems(items);
    envelope.payload = seal(content, key);
    wipe(content);
    envelope.version = currentVersion;
    envelope.iterations = rounds;
    envelope.protection = Protection::passphrase;
    return {std::move(envelope), key};
}

Envelope makeEnvelope(const std::vector<VaultItem>& items, std::string_view passphrase, std::int64_t rounds) {
    return seal(items, passphrase, rounds).first;
}

Envelope makeUnprotectedEnvelope(const std::vector<VaultItem>& items) {
    Envelope envelope;
    try {
        envelope.payload = encodedItems(items);
    } catch (const std::exception&) {
        throw Error(Failure::corrupt);
    }
    envelope.version = 1;
    envelope.iterations = 0;
    envelope.protection = Protection::unprotected;
    return envelope;
}

std::vector<VaultItem> items(const Envelope& envelope, const SymmetricKey& key) {
    Bytes plaintext;
    try {
        plaintext = open(envelope.payload, key);
    } catch (const Error&) {
        // Once the verifier has accepted the key, a payload that won't open is damage.
        throw Error(Failure::corrupt);
    }
    return decodedItems(plaintext);
}

std::vector<VaultItem> unprotectedItems(const Envelope& envelope) {
    if (envelope.protection != Protection::unprotected) throw Error(Failure::wrongPassphrase);
    Bytes copy = envelope.payload;
    return decodedItems(copy);
}

Envelope reseal(const std::vector<VaultItem>& items, const Envelope& envelope, const SymmetricKey& key) {
    Bytes content = encodedItems(items);
    Envelope copy = envelope;
    try {
        copy.payload = seal(content, key);
    } catch (...) {
        wipe(content);
        throw;
    }
    wipe(content);
    return copy;
}

Envelope sealed(const Bytes& content, std::string_view passphrase, std::int64_t rounds) {
    Envelope envelope;
    envelope.salt = randomSalt();
    SymmetricKey key = deriveKey(passphrase, envelope.salt, rounds);
    envelope.verifier = seal(verifierBytes(), key);
    envelope.payload = seal(content, key);
    envelope.version = currentVersion;
    envelope.iterations = rounds;
    envelope.protection = Protection::passphrase;
    return envelope;
}

Bytes opened(const Envelope& envelope, std::string_view passphrase) {
    SymmetricKey key = unlock(envelope, passphrase);
    try {
        return open(envelope.payload, key);
    } catch (const Error&) {
        throw Error(Failure::corrupt);
    }
}

} // namespace tavrick::VaultCrypto
