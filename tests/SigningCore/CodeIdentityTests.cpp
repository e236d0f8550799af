#include "FanCore/FanProtocol.h"
#include "SigningCore/CodeIdentity.h"

#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

using namespace tavrick;

TEST(CodeIdentityTest, TeamsAndBuildsAreChecked) {
    const std::string app = "com.orvell.tavrick";
    struct Row { std::optional<std::string> team; std::string build; bool ok; };
    for (const auto& r : std::vector<Row>{{"K7M2Q9X4LP", "", true}, {"K7M2Q9X4LP", "12.3", true},
                                          {"K7M2Q9X4L", "", false}, {"K7M2Q9X4LPQ", "", false},
                                          {"k7M2Q9X4LP", "", false}, {std::nullopt, "", false},
                                          {"K7M2Q9X4LP", "12.a", false}, {"K7M2Q9X4LP", "1..2", false},
                                          {"K7M2Q9X4LP", ".1", false}, {"K7M2Q9X4LP", "1.", false}}) {
        EXPECT_EQ(CodeIdentity::clientRequirement(r.team, app, r.build).has_value(), r.ok)
            << r.team.value_or("none") << " " << r.build;
    }
    EXPECT_FALSE(CodeIdentity::identifierRequirement("K7M2Q9X4LP", "com.orvell\" or true"));
    EXPECT_FALSE(CodeIdentity::identifierRequirement("K7M2Q9X4LP", "com orvell"));
    EXPECT_FALSE(CodeIdentity::identifierRequirement("K7M2Q9X4LP", ""));
}

TEST(CodeIdentityTest, TheTextsAsBuilt) {
    auto helper = FanHelperIdentity::helperRequirement(std::string("K7M2Q9X4LP"));
    ASSERT_TRUE(helper);
    EXPECT_EQ(*helper,
              "anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6] exists and certificate "
              "leaf[field.1.2.840.113635.100.6.1.13] exists and certificate leaf[subject.OU] = \"K7M2Q9X4LP\" and "
              "identifier \"com.orvell.tavrick.fanhelper\"");
    EXPECT_TRUE(CodeIdentity::isValidRequirement(*helper));
    auto client = FanHelperIdentity::clientRequirement(std::string("K7M2Q9X4LP"), "12.3");
    ASSERT_TRUE(client);
    EXPECT_TRUE(client->ends_with(" and identifier \"com.orvell.tavrick\" and info[CFBundleVersion] >= \"12.3\""));
    auto parsed = CodeIdentity::parseRequirement(*client);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed, (CodeIdentity::Requirement{"K7M2Q9X4LP", "com.orvell.tavrick", "12.3"}));
    for (std::string bad : {std::string("anchor apple"), *helper + " or true", helper->substr(0, helper->size() - 1)}) {
        EXPECT_FALSE(CodeIdentity::isValidRequirement(bad)) << bad;
    }
}

TEST(CodeIdentityTest, HashesAndTeamsOfFiles) {
    tavrick::testing::TempDir dir;
    tavrick::testing::writeFile(dir / "a", "abc");
    EXPECT_EQ(CodeIdentity::cdHash(dir / "a"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(CodeIdentity::cdHash(dir / "missing"), std::nullopt);
    auto own = CodeIdentity::ownCDHash();
    ASSERT_TRUE(own);
    EXPECT_EQ(CodeIdentity::cdHash(CodeIdentity::ownExecutable()), own);
    auto team = CodeIdentity::ownTeamID();
    ASSERT_TRUE(team);
    EXPECT_TRUE(CodeIdentity::isValidTeam(*team));
    char expected[16];
    std::snprintf(expected, sizeof expected, "%010u", static_cast<unsigned>(::geteuid()));
    EXPECT_EQ(CodeIdentity::teamOfExecutable(dir / "a"), std::string(expected));  // the account that wrote it
}
