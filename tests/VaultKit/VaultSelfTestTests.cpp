#include "VaultKit/VaultCrypto.h"
#include "VaultKit/VaultKeychain.h"

#include "Platform/Linux/FileSecretStore.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace tavrick {
namespace {

TEST(VaultSelfTest, LeavesARecordThatAnotherProcessCannotReadWithoutThePassphrase) {
    testing::TempDir root;
    auto result = testing::runProcess({TAVRICK_BINARY, "--vault-selftest"}, testing::isolatedEnvironment(root.path()), 110);
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("\u2713 the stored bytes contain no secret, no name and no kind\n"), std::string::npos);
    EXPECT_NE(result.output.find("\u2713 a wrong passphrase is refused\n\u2713 the right one gives the value back\n"),
              std::string::npos);
    EXPECT_EQ(result.output.find("\u2717"), std::string::npos) << result.output;
    const std::string verdict = "\u2713 the payload is plain text, as an unprotected vault should be\n";
    EXPECT_EQ(result.output.substr(result.output.size() - verdict.size()), verdict);

    // This process plays the second one: the record is there, private, and opaque.
    const auto file = root.path() / "data" / "com.orvell.tavrick" / "secrets.json";
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0) << result.output;
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    FileSecretStore store(file);
    const auto copy = store.copy("com.orvell.tavrick.selftest.vault", "envelope");
    ASSERT_EQ(copy.status, SecretStatus::success);
    EXPECT_EQ(copy.data->find("sk-test-"), std::string::npos);
    EXPECT_EQ(copy.data->find("apiKey"), std::string::npos);
    const auto envelope = VaultCrypto::decodeEnvelope(*copy.data);
    EXPECT_EQ(envelope.iterations, VaultCrypto::iterations);
    EXPECT_THROW(VaultCrypto::unlock(envelope, "selftest-passphrasf"), VaultCrypto::Error);
}

TEST(VaultSelfTest, TouchIDProbeSaysNoSensorAndWritesNothing) {
    testing::TempDir root;
    auto result = testing::runProcess({TAVRICK_BINARY, "--touchid-probe"}, testing::isolatedEnvironment(root.path()));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output.rfind("can ask for biometrics: false\ncan ask for password:   false\n"
                                  "  biometrics unavailable: no way to authenticate on this Mac\nbiometry type: none\n",
                                  0),
              0u)
        << result.output;
    EXPECT_NE(result.output.find("\u2717 No keychain shape will hold a guarded item in this app.\n"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(root.path() / "data" / "com.orvell.tavrick" / "secrets.json"));
}

} // namespace
} // namespace tavrick
