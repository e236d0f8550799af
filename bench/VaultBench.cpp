// Key derivation against OpenSSL's own PBKDF2 called bare, and sealing and opening a vault of
// 100 entries with the key already derived.
#include "VaultKit/VaultCrypto.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

namespace {

using namespace tavrick;

const VaultCrypto::Bytes salt = VaultCrypto::randomSalt();

void BM_DeriveKeyThroughVaultCrypto(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(VaultCrypto::deriveKey("a passphrase of ours", salt, VaultCrypto::iterations));
}
BENCHMARK(BM_DeriveKeyThroughVaultCrypto)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_DeriveKeyOpenSSLBare(benchmark::State& state) {
    unsigned char out[32];
    const std::string passphrase = "a passphrase of ours";
    for (auto _ : state) {
        PKCS5_PBKDF2_HMAC(passphrase.data(), static_cast<int>(passphrase.size()), salt.data(),
                          static_cast<int>(salt.size()), static_cast<int>(VaultCrypto::iterations), EVP_sha256(), 32, out);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_DeriveKeyOpenSSLBare)->Unit(benchmark::kMillisecond)->Iterations(3);

std::vector<VaultItem> hundredEntries() {
    std::vector<VaultItem> items;
    for (int i = 0; i < 100; ++i) {
        VaultItem item;
        item.kind = VaultKind::card;
        item.title = "Card number " + std::to_string(i);
        item.set("number", "4111 1111 1111 " + std::to_string(1000 + i));
        item.set("cvv", "123");
        item.set("cardholder", "A. Person");
        item.set("note", "A note of a reasonable length for an entry, kept with the card.");
        item.updated = 1763251200;
        items.push_back(std::move(item));
    }
    return items;
}

void BM_ResealHundredEntries(benchmark::State& state) {
    const auto items = hundredEntries();
    auto [envelope, key] = VaultCrypto::seal({}, "pw", 1);
    for (auto _ : state) benchmark::DoNotOptimize(VaultCrypto::reseal(items, envelope, key));
}
BENCHMARK(BM_ResealHundredEntries)->Unit(benchmark::kMicrosecond);

void BM_OpenHundredEntries(benchmark::State& state) {
    auto [envelope, key] = VaultCrypto::seal(hundredEntries(), "pw", 1);
    for (auto _ : state) benchmark::DoNotOptimize(VaultCrypto::items(envelope, key));
}
BENCHMARK(BM_OpenHundredEntries)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
