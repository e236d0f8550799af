#include "BackupKit/Archive.h"
#include "BackupKit/SettingsSnapshot.h"
#include "CoreKit/AppSettings.h"

#include <gtest/gtest.h>

#include <plist/plist.h>

namespace tavrick {
namespace {

PreferenceValue::Dictionary mixed() {
    return {
        {"appearance", "dark"},
        {"windowSnappingEnabled", false},
        {"servePort", 8443},
        {"networkLearningStartedAt", 1772366400.25},
        {"vaultLockSeconds", -1},
        {"networkMutedApps", PreferenceValue::Array{"com.a", "com.b"}},
        {"aiModelsByProvider", PreferenceValue::Dictionary{{"anthropic", "claude-opus-5"}}},
        {"selectionActions", PreferenceValue::data(std::string("[]\0x", 4))},
        {"aiBaseURL", "https://elsewhere.example/v1"},
        {"notACarriedKey", "kept home"},
    };
}

TEST(SettingsSnapshot, CapturesTheCarriedKeysWithTheirTypes) {
    InMemoryPreferenceStore defaults(mixed());
    const std::string bytes = SettingsSnapshot::capture(defaults);
    EXPECT_EQ(bytes.substr(0, 8), "bplist00");

    auto expected = mixed();
    expected.erase("aiBaseURL");
    expected.erase("notACarriedKey");
    EXPECT_EQ(SettingsSnapshot::read(bytes), expected);
    EXPECT_EQ(SettingsSnapshot::keys(bytes),
              (std::vector<std::string>{"aiModelsByProvider", "appearance", "networkLearningStartedAt", "networkMutedApps",
                                        "selectionActions", "servePort", "vaultLockSeconds", "windowSnappingEnabled"}));
    // An empty domain gives an empty dictionary, not nothing.
    InMemoryPreferenceStore empty;
    EXPECT_TRUE(SettingsSnapshot::read(SettingsSnapshot::capture(empty)).empty());
}

TEST(SettingsSnapshot, AppliesOnlyCarriedKeysAndSaysWhichSorted) {
    // A hand-edited snapshot may hold anything; only carried keys are written.
    const std::string bytes = SettingsSnapshot::write({
        {"translateInto", "Welsh"},
        {"aiBaseURL", "https://elsewhere.example/v1"},
        {"appearance", "light"},
        {"somethingNew", true},
    });
    InMemoryPreferenceStore defaults(PreferenceValue::Dictionary{{"aiBaseURL", "https://mine.example/v1"}});
    EXPECT_EQ(SettingsSnapshot::apply(bytes, defaults), (std::vector<std::string>{"appearance", "translateInto"}));
    EXPECT_EQ(defaults.object("aiBaseURL"), PreferenceValue("https://mine.example/v1"));
    EXPECT_EQ(defaults.object("translateInto"), PreferenceValue("Welsh"));
    EXPECT_FALSE(defaults.object("somethingNew").has_value());
    EXPECT_EQ(defaults.writeCount(), 2u);
}

std::string plistBytes(plist_t root, bool binary) {
    char* out = nullptr;
    std::uint32_t length = 0;
    if (binary) {
        plist_to_bin(root, &out, &length);
    } else {
        plist_to_xml(root, &out, &length);
    }
    std::string bytes(out, length);
    std::free(out);
    plist_free(root);
    return bytes;
}

TEST(SettingsSnapshot, RefusesWhatIsNotADictionaryBeforeWritingAnything) {
    plist_t array = plist_new_array();
    plist_array_append_item(array, plist_new_string("appearance"));
    plist_t withDate = plist_new_dict();
    plist_dict_set_item(withDate, "appearance", plist_new_string("dark"));
    plist_dict_set_item(withDate, "servePort", plist_new_date(100, 0));
    plist_t xml = plist_new_dict();
    plist_dict_set_item(xml, "appearance", plist_new_string("dark"));
    const std::string good = SettingsSnapshot::write({{"appearance", "dark"}});

    const std::vector<std::pair<const char*, std::string>> cases = {
        {"empty", ""},
        {"text", "appearance = dark"},
        {"JSON", R"({"appearance":"dark"})"},
        {"an array", plistBytes(array, true)},
        {"a date among the values", plistBytes(withDate, true)},
        {"the XML form", plistBytes(xml, false)},
        {"cut short", good.substr(0, good.size() - 5)},
        {"only the header", "bplist00"},
    };
    for (const auto& [label, bytes] : cases) {
        InMemoryPreferenceStore defaults(PreferenceValue::Dictionary{{"appearance", "light"}});
        try {
            SettingsSnapshot::apply(bytes, defaults);
            ADD_FAILURE() << label << ": applied";
        } catch (const ArchiveError& error) {
            EXPECT_EQ(error.kind(), ArchiveError::Case::damaged) << label;
        }
        EXPECT_EQ(defaults.writeCount(), 0u) << label;
        EXPECT_TRUE(SettingsSnapshot::keys(bytes).empty()) << label;
    }
}

TEST(SettingsSnapshot, CarriesEveryBackedUpKeyButTheServerAddress) {
    std::size_t carried = 0;
    for (const char* key : AppSettings::backedUpKeys) carried += SettingsSnapshot::carries(key) ? 1 : 0;
    EXPECT_EQ(carried, AppSettings::backedUpKeys.size() - 1);
    EXPECT_FALSE(SettingsSnapshot::carries("aiBaseURL"));
    EXPECT_FALSE(SettingsSnapshot::carries("fanBoostLevel"));
    EXPECT_FALSE(SettingsSnapshot::carries("lidObservations"));
}

} // namespace
} // namespace tavrick
