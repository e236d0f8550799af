#include "VaultKit/VaultCrypto.h"

#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>

namespace tavrick {
namespace {

using namespace VaultCrypto;

Bytes hex(std::string_view text) {
    Bytes out;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    return out;
}

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes keyBytes(const SymmetricKey& key) { return Bytes(key.data(), key.data() + SymmetricKey::size); }

Failure failureOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const Error& error) {
        return error.failure();
    }
    ADD_FAILURE() << "expected a failure";
    return Failure::locked;
}

// Low round counts keep the suite fast; the production count is exercised in the benchmark.
constexpr std::int64_t testRounds = 1000;

VaultItem apiKeyItem() {
    VaultItem item;
    item.kind = VaultKind::apiKey;
    item.title = "Stripe live";
    item.set("key", "sk_live_0123456789abcdef");
    item.updated = 1763251200.5;
    return item;
}

TEST(VaultCrypto, DerivesThePublishedPBKDF2HMACSHA256Vectors) {
    // RFC 7914, section 11: the first 32 bytes of each 64-byte result.
    struct Case {
        std::string_view passphrase, salt;
        std::int64_t rounds;
        std::string_view expected;
    } cases[] = {
        {"passwd", "salt", 1, "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"},
        {"Password", "NaCl", 80000, "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"},
    };
    for (const auto& c : cases) EXPECT_EQ(keyBytes(deriveKey(c.passphrase, bytes(c.salt), c.rounds)), hex(c.expected));
}

TEST(VaultCrypto, RoundCountsOutsideOneToTwentyMillionAreCorruptBeforeHashing) {
    EXPECT_EQ(failureOf([] { deriveKey("x", randomSalt(), 0); }), Failure::corrupt);
    EXPECT_EQ(failureOf([] { deriveKey("x", randomSalt(), -5); }), Failure::corrupt);
    // 20000001 would take many seconds if it were hashed; it must be refused at once.
    EXPECT_EQ(failureOf([] { deriveKey("x", randomSalt(), maximumIterations + 1); }), Failure::corrupt);
    EXPECT_NO_THROW(deriveKey("x", randomSalt(), 1));
    EXPECT_NO_THROW(deriveKey("", randomSalt(), 1));
}

TEST(VaultCrypto, OpensThePublishedAES256GCMVectors) {
    // The published GCM test vectors, cases 13 and 14: a zero key and nonce, no additional data.
    const SymmetricKey key(Bytes(32, 0).data());
    Bytes empty = hex("000000000000000000000000530f8afbc74536b9a963b4f1c4cb738b");
    EXPECT_EQ(open(empty, key), Bytes{});
    Bytes block = hex("000000000000000000000000cea7403d4d606b6e074ec5d3baf39d18d0d1c8a799996bf0265b98b5d48ab919");
    EXPECT_EQ(open(block, key), Bytes(16, 0));
    // Every flipped bit, in nonce, ciphertext or tag, is refused as a wrong key would be.
    for (std::size_t bit = 0; bit < block.size() * 8; bit += 7) {
        Bytes tampered = block;
        tampered[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
        EXPECT_EQ(failureOf([&] { open(tampered, key); }), Failure::wrongPassphrase) << "bit " << bit;
    }
}

TEST(VaultCrypto, BoxesHaveTheCombinedLayoutAndFreshNonces) {
    const SymmetricKey key = deriveKey("k", bytes("salt"), 1);
    EXPECT_EQ(failureOf([&] { open(Bytes(27, 0), key); }), Failure::corrupt);
    const Bytes emptyBox = seal(Bytes{}, key);
    EXPECT_EQ(emptyBox.size(), 28u);
    EXPECT_EQ(open(emptyBox, key), Bytes{});

    const Bytes content = bytes("same content, sealed twice");
    const Bytes a = seal(content, key), b = seal(content, key);
    ASSERT_EQ(a.size(), 12 + content.size() + 16);
    EXPECT_NE(Bytes(a.begin(), a.begin() + 12), Bytes(b.begin(), b.begin() + 12));
    EXPECT_NE(Bytes(a.begin() + 12, a.end()), Bytes(b.begin() + 12, b.end()));
    EXPECT_EQ(open(a, key), content);
    EXPECT_EQ(open(b, key), content);
}

TEST(VaultCrypto, UnlockAndItemsTellAWrongPassphraseFromDamage) {
    auto [envelope, key] = seal({apiKeyItem()}, "correct horse", testRounds);
    EXPECT_EQ(envelope.iterations, testRounds);
    EXPECT_EQ(envelope.salt.size(), saltBytes);
    EXPECT_EQ(keyBytes(unlock(envelope, "correct horse")), keyBytes(key));
    auto opened = items(envelope, key);
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].value("key"), "sk_live_0123456789abcdef");
    EXPECT_EQ(opened[0].updated, 1763251200.5);

    EXPECT_EQ(failureOf([&] { unlock(envelope, "correct horse!"); }), Failure::wrongPassphrase);
    const SymmetricKey wrong = deriveKey("correct horse!", envelope.salt, testRounds);
    EXPECT_EQ(failureOf([&] { items(envelope, wrong); }), Failure::corrupt);

    Envelope damaged = envelope;
    damaged.payload.back() ^= 1;
    EXPECT_NO_THROW(unlock(damaged, "correct horse"));  // the payload isn't the verifier's business
    EXPECT_EQ(failureOf([&] { items(damaged, key); }), Failure::corrupt);
    Envelope badVerifier = envelope;
    badVerifier.verifier[3] ^= 0x40;
    EXPECT_EQ(failureOf([&] { unlock(badVerifier, "correct horse"); }), Failure::wrongPassphrase);
    Envelope truncated = envelope;
    truncated.verifier.resize(20);
    EXPECT_EQ(failureOf([&] { unlock(truncated, "correct horse"); }), Failure::corrupt);
    Envelope absurd = envelope;
    absurd.iterations = maximumIterations + 1;
    EXPECT_EQ(failureOf([&] { unlock(absurd, "correct horse"); }), Failure::corrupt);
    Envelope otherSalt = envelope;
    otherSalt.salt[0] ^= 1;
    EXPECT_EQ(failureOf([&] { unlock(otherSalt, "correct horse"); }), Failure::wrongPassphrase);
}

TEST(VaultCrypto, ProtectionDecidesWhichReaderAccepts) {
    const Envelope open = makeUnprotectedEnvelope({apiKeyItem()});
    EXPECT_EQ(open.salt, Bytes{});
    EXPECT_EQ(open.iterations, 0);
    EXPECT_EQ(open.verifier, Bytes{});
    EXPECT_EQ(failureOf([&] { unlock(open, "anything"); }), Failure::corrupt);
    EXPECT_EQ(unprotectedItems(open).at(0).value("key"), "sk_live_0123456789abcdef");

    const Envelope closed = makeEnvelope({apiKeyItem()}, "pw", testRounds);
    EXPECT_EQ(failureOf([&] { unprotectedItems(closed); }), Failure::wrongPassphrase);

    Envelope garbage = open;
    garbage.payload = bytes("[{\"id\":1}]");
    EXPECT_EQ(failureOf([&] { unprotectedItems(garbage); }), Failure::corrupt);
    Envelope unknownKind = open;
    std::string text(open.payload.begin(), open.payload.end());
    text.replace(text.find("\"apiKey\""), 8, "\"seedPhrase\"");
    unknownKind.payload = bytes(text);
    EXPECT_EQ(failureOf([&] { unprotectedItems(unknownKind); }), Failure::corrupt);
}

TEST(VaultCrypto, ResealChangesOnlyThePayload) {
    auto [envelope, key] = seal({}, "pw", testRounds);
    VaultItem added = apiKeyItem();
    const Envelope next = reseal({added}, envelope, key);
    EXPECT_EQ(next.salt, envelope.salt);
    EXPECT_EQ(next.iterations, envelope.iterations);
    EXPECT_EQ(next.verifier, envelope.verifier);
    EXPECT_EQ(next.version, envelope.version);
    EXPECT_EQ(next.protection, envelope.protection);
    EXPECT_NE(next.payload, envelope.payload);
    EXPECT_EQ(items(next, unlock(next, "pw")).size(), 1u);
}

TEST(VaultCrypto, PassphrasesAreNotNormalised) {
    const Bytes salt = bytes("fixed salt bytes");
    EXPECT_NE(keyBytes(deriveKey("caf\u00e9", salt, 1)), keyBytes(deriveKey("cafe\u0301", salt, 1)));
    EXPECT_NE(keyBytes(deriveKey(" pw", salt, 1)), keyBytes(deriveKey("pw", salt, 1)));
}

TEST(VaultCrypto, EnvelopeJSONIsStrictButAcceptsAMissingProtection) {
    const Envelope envelope = makeEnvelope({}, "pw", testRounds);
    auto json = toJSON(envelope);
    EXPECT_EQ(json["protection"], "passphrase");
    EXPECT_EQ(envelopeFromJSON(json), envelope);
    json.erase("protection");
    EXPECT_EQ(envelopeFromJSON(json).protection, Protection::passphrase);

    struct Case {
        const char* name;
        std::function<void(nlohmann::json&)> spoil;
    } cases[] = {
        {"unknown protection", [](auto& j) { j["protection"] = "none"; }},
        {"missing payload", [](auto& j) { j.erase("payload"); }},
        {"missing version", [](auto& j) { j.erase("version"); }},
        {"salt not base64", [](auto& j) { j["salt"] = "***"; }},
        {"salt unpadded", [](auto& j) { j["salt"] = "YWJ"; }},
        {"iterations as text", [](auto& j) { j["iterations"] = "3000000"; }},
        {"not an object", [](auto& j) { j = nlohmann::json::array(); }},
    };
    for (const auto& c : cases) {
        auto spoiled = toJSON(envelope);
        c.spoil(spoiled);
        EXPECT_EQ(failureOf([&] { envelopeFromJSON(spoiled); }), Failure::corrupt) << c.name;
    }
    EXPECT_EQ(failureOf([] { decodeEnvelope("{\"version\": 1,"); }), Failure::corrupt);
    EXPECT_EQ(fromBase64("YQ=="), bytes("a"));
    EXPECT_EQ(fromBase64("YWI="), bytes("ab"));
    EXPECT_EQ(fromBase64(""), Bytes{});
    EXPECT_EQ(fromBase64("Y=Q="), std::nullopt);
}

TEST(VaultCrypto, BytesSealedHereAndByNodeOpenOnTheOtherSide) {
    const char* candidates[] = {"/usr/bin/node", "/usr/bin/nodejs", "/usr/local/bin/node"};
    std::string node;
    for (const char* path : candidates)
        if (std::filesystem::exists(path)) node = path;
    if (node.empty()) GTEST_SKIP() << "node is not installed; scripts/setup installs it";

    // Node opens ours: derive with its own PBKDF2, check the verifier, print the payload.
    const Envelope ours = sealed(bytes("secret from C++"), "pässword", testRounds);
    const std::string openScript = R"(
const c = require('crypto'); const e = JSON.parse(process.argv[1]);
const key = c.pbkdf2Sync(Buffer.from(process.argv[2], 'utf8'), Buffer.from(e.salt, 'base64'), e.iterations, 32, 'sha256');
const open = (b64) => { const b = Buffer.from(b64, 'base64');
  const d = c.createDecipheriv('aes-256-gcm', key, b.subarray(0, 12)); d.setAuthTag(b.subarray(b.length - 16));
  return Buffer.concat([d.update(b.subarray(12, b.length - 16)), d.final()]).toString('utf8'); };
process.stdout.write(open(e.verifier) + '|' + open(e.payload));)";
    auto result = testing::runProcess({node, "-e", openScript, encode(ours), "pässword"}, {{"PATH", "/usr/bin:/bin"}});
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output, "tavrick-vault-v1|secret from C++");

    // We open Node's: its own salt, nonces and rounds.
    const std::string sealScript = R"(
const c = require('crypto'); const salt = c.randomBytes(16); const rounds = 2000;
const key = c.pbkdf2Sync(Buffer.from(process.argv[1], 'utf8'), salt, rounds, 32, 'sha256');
const seal = (t) => { const n = c.randomBytes(12); const e = c.createCipheriv('aes-256-gcm', key, n);
  const ct = Buffer.concat([e.update(Buffer.from(t, 'utf8')), e.final()]);
  return Buffer.concat([n, ct, e.getAuthTag()]).toString('base64'); };
process.stdout.write(JSON.stringify({version: 1, salt: salt.toString('base64'), iterations: rounds,
  verifier: seal('tavrick-vault-v1'), payload: seal('secret from Node')}));)";
    result = testing::runProcess({node, "-e", sealScript, "pässword"}, {{"PATH", "/usr/bin:/bin"}});
    ASSERT_EQ(result.status, 0) << result.output;
    const Envelope theirs = decodeEnvelope(result.output);
    EXPECT_EQ(theirs.protection, Protection::passphrase);
    EXPECT_EQ(opened(theirs, "pässword"), bytes("secret from Node"));
    EXPECT_EQ(failureOf([&] { opened(theirs, "passsword"); }), Failure::wrongPassphrase);
}

} // namespace
} // namespace tavrick
