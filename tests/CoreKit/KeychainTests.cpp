#include "CoreKit/Keychain.h"

#include <gtest/gtest.h>

using namespace tavrick;

TEST(Keychain, SetTwiceLeavesOneItemWithTheLaterValue) {
    InMemorySecretStore store;
    Keychain keychain(store);
    EXPECT_TRUE(keychain.set("sk-first", std::string(Keychain::anthropicKeyAccount)));
    EXPECT_TRUE(keychain.set("sk-second", std::string(Keychain::anthropicKeyAccount)));
    EXPECT_EQ(store.count(), 1u);
    EXPECT_EQ(keychain.get("anthropic-api-key"), "sk-second");
    // Kept under the program's service, readable after the first unlock.
    EXPECT_EQ(store.copy("com.orvell.tavrick", "anthropic-api-key").data, "sk-second");
    EXPECT_EQ(store.accessibility("com.orvell.tavrick", "anthropic-api-key"), SecretAccessibility::afterFirstUnlock);
}

TEST(Keychain, MissingItemsAndDeletingNothingAnswerNoAndFalse) {
    InMemorySecretStore store;
    Keychain keychain(store);
    EXPECT_EQ(keychain.get("nobody"), std::nullopt);
    EXPECT_FALSE(keychain.remove("nobody"));
    keychain.set("value", "somebody");
    EXPECT_TRUE(keychain.remove("somebody"));
    EXPECT_FALSE(keychain.remove("somebody"));
    EXPECT_EQ(keychain.get("somebody"), std::nullopt);
}

TEST(Keychain, AnotherServicesItemsAreNotTouched) {
    InMemorySecretStore store;
    store.add("com.orvell.tavrick.vault", "envelope", "sealed", SecretAccessibility::whenUnlockedThisDeviceOnly);
    Keychain keychain(store);
    EXPECT_EQ(keychain.get("envelope"), std::nullopt);
    EXPECT_FALSE(keychain.remove("envelope"));
    EXPECT_EQ(store.count(), 1u);
}

TEST(Keychain, BytesThatAreNotTextReadAsNothing) {
    InMemorySecretStore store;
    store.add("com.orvell.tavrick", "binary", std::string("\xff\xfe\x00\x01", 4), SecretAccessibility::afterFirstUnlock);
    Keychain keychain(store);
    EXPECT_EQ(keychain.get("binary"), std::nullopt);
    // Text with a NUL or non-ASCII letters is still text.
    keychain.set(std::string("caf\xc3\xa9\0x", 7), "accented");
    EXPECT_EQ(keychain.get("accented"), std::string("caf\xc3\xa9\0x", 7));
}

TEST(Keychain, AStoreThatRefusesMakesSetFalseAndGetNothing) {
    InMemorySecretStore store;
    Keychain keychain(store);
    keychain.set("kept", "account");
    store.setFailure(SecretStatus::interactionNotAllowed);
    EXPECT_FALSE(keychain.set("new", "account"));
    EXPECT_EQ(keychain.get("account"), std::nullopt);
    EXPECT_FALSE(keychain.remove("account"));
    store.setFailure(std::nullopt);
    EXPECT_EQ(keychain.get("account"), "kept");
}

TEST(SecretStore, InMemoryAnswersLikeTheKeychain) {
    InMemorySecretStore store;
    EXPECT_EQ(store.update("s", "a", "x"), SecretStatus::itemNotFound);
    EXPECT_EQ(store.add("s", "a", "x", SecretAccessibility::afterFirstUnlock), SecretStatus::success);
    EXPECT_EQ(store.add("s", "a", "y", SecretAccessibility::afterFirstUnlock), SecretStatus::duplicateItem);
    EXPECT_EQ(store.update("s", "a", "z"), SecretStatus::success);
    EXPECT_EQ(store.copy("s", "a").data, "z");
    store.add("s", "b", "w", SecretAccessibility::afterFirstUnlock);
    store.add("t", "a", "v", SecretAccessibility::afterFirstUnlock);
    // Without an account, every item of the service goes, and only those.
    EXPECT_EQ(store.remove("s", std::nullopt), SecretStatus::success);
    EXPECT_EQ(store.count(), 1u);
    EXPECT_EQ(store.remove("s", std::nullopt), SecretStatus::itemNotFound);
    EXPECT_EQ(message(SecretStatus::itemNotFound), "The specified item could not be found in the keychain.");
    EXPECT_EQ(static_cast<int>(SecretStatus::interactionNotAllowed), -25308);
}
