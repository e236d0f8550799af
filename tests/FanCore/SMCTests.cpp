#include "FanCore/SMC.h"
#include "FanCore/FanReading.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <set>

using namespace tavrick;

namespace {

// A driver with a table of keys; counts calls so caching can be seen.
class TableDriver : public SMCDriver {
public:
    struct Key {
        std::string type;
        std::vector<std::uint8_t> bytes;
        int declaredSize = -1;  // the size the key info reports, when not the bytes' size
        std::uint8_t readResult = 0;
    };
    std::map<std::string, Key> keys;
    bool service = true;
    std::int32_t openResult = 0;
    int infoCalls = 0;
    int closes = 0;

    bool hasService() override { return service; }
    std::int32_t openService(std::uint32_t& connection) override {
        if (openResult == 0) connection = 7;
        return openResult;
    }
    std::int32_t callStruct(std::uint32_t connection, std::uint32_t selector, const SMCParamStruct& in,
                            SMCParamStruct& out) override {
        EXPECT_EQ(connection, 7u);
        EXPECT_EQ(selector, smcSelector);
        out = SMCParamStruct{};
        if (in.data8 == static_cast<std::uint8_t>(SMCCommand::keyAtIndex)) {
            auto it = keys.begin();
            if (in.data32 >= keys.size()) { out.result = 0x84; return 0; }
            std::advance(it, in.data32);
            out.key = *FourCC::pack(it->first);
            return 0;
        }
        if (in.data8 == static_cast<std::uint8_t>(SMCCommand::keyInfo)) ++infoCalls;
        auto it = keys.find(FourCC::unpack(in.key));
        if (it == keys.end()) { out.result = 0x84; return 0; }
        if (in.data8 == static_cast<std::uint8_t>(SMCCommand::keyInfo)) {
            out.keyInfoDataSize = static_cast<std::uint32_t>(it->second.declaredSize >= 0 ? it->second.declaredSize : it->second.bytes.size());
            out.keyInfoDataType = *FourCC::pack(it->second.type);
            return 0;
        }
        if (in.data8 == static_cast<std::uint8_t>(SMCCommand::readKey)) {
            out.result = it->second.readResult;
            std::memcpy(out.bytes, it->second.bytes.data(), std::min<std::size_t>(32, it->second.bytes.size()));
            return 0;
        }
        out.result = 0x99;
        return 0;
    }
    void closeService(std::uint32_t) override { ++closes; }

    void fan(int i, float ac, float mn, float mx, float tg, std::optional<std::uint8_t> mode, const char* modeKey = "md") {
        for (auto [suffix, v] : {std::pair{"Ac", ac}, {"Mn", mn}, {"Mx", mx}, {"Tg", tg}}) {
            keys["F" + std::to_string(i) + suffix] = {"flt ", SMCValue::encodeFloat(v)};
        }
        if (mode) keys["F" + std::to_string(i) + modeKey] = {"ui8 ", {*mode}};
    }
};

} // namespace

TEST(SMCLayoutTest, OffsetsAreTheDriversAndTheSummaryTellsThem) {
    EXPECT_TRUE(SMCLayout::isValid());
    EXPECT_EQ(SMCLayout::summary(), "80 bytes, keyInfo @28, result @40, data32 @44, bytes @48 (OK)");
    EXPECT_EQ(offsetof(SMCParamStruct, keyInfoDataType), 32u);
    EXPECT_EQ(offsetof(SMCParamStruct, data8), 42u);
    EXPECT_EQ(offsetof(SMCParamStruct, pLimitData), 12u);
}

TEST(FourCCTest, PacksExactlyFourByteScalars) {
    EXPECT_EQ(FourCC::pack("F0Ac"), 0x46304163u);
    EXPECT_EQ(FourCC::pack("F0A"), std::nullopt);
    EXPECT_EQ(FourCC::pack("F0Ace"), std::nullopt);
    EXPECT_EQ(FourCC::pack("F0A\u0100"), std::nullopt);  // a scalar above 255
    EXPECT_EQ(FourCC::pack("F0A\u00e9"), 0x463041E9u);   // é is one scalar below 256
    EXPECT_EQ(FourCC::unpack(0x666C7420), "flt ");
    EXPECT_EQ(FourCC::unpack(*FourCC::pack("F0A\u00e9")), "F0A\u00e9");
}

TEST(SMCErrorTest, TextsAndCodes) {
    EXPECT_STREQ(SMCError::kernel(static_cast<std::int32_t>(0xE00002BC)).what(), "The SMC call failed (IOKit 0xE00002BC).");
    EXPECT_STREQ(SMCError::firmware(0x0A).what(), "The SMC refused the call (result 0x0A).");
    EXPECT_STREQ(SMCError::unexpectedType("abcd").what(), "The SMC key holds an unexpected type (abcd).");
    EXPECT_FALSE(SMCError::fromKernReturn(0));
    EXPECT_EQ(SMCError::fromKernReturn(static_cast<std::int32_t>(0xE00002C1))->kind(), SMCError::Kind::notPrivileged);
    EXPECT_EQ(SMCError::fromKernReturn(5)->kind(), SMCError::Kind::kernel);
    struct Row { std::uint8_t result; std::optional<SMCError::Kind> kind; };
    for (auto row : std::vector<Row>{{0, std::nullopt},
                                     {0x82, SMCError::Kind::firmwareHoldingKey},
                                     {0x84, SMCError::Kind::keyNotFound},
                                     {0x85, SMCError::Kind::keyNotReadable},
                                     {0x86, SMCError::Kind::keyNotWritable},
                                     {0x87, SMCError::Kind::sizeMismatch},
                                     {0x83, SMCError::Kind::firmware}}) {
        auto error = SMCError::fromResult(row.result);
        ASSERT_EQ(error.has_value(), row.kind.has_value()) << int(row.result);
        if (error) { EXPECT_EQ(error->kind(), *row.kind) << int(row.result); }
    }
}

TEST(SMCValueTest, NumbersByTypeAndSize) {
    struct Row { std::string type; std::vector<std::uint8_t> bytes; std::optional<double> number; };
    std::vector<Row> rows{
        {"flt ", SMCValue::encodeFloat(1234.5f), 1234.5},
        {"flt ", {1, 2}, std::nullopt},
        {"ui8 ", {200}, 200},
        {"ui8 ", {1, 2}, std::nullopt},
        {"flag", {1}, 1},
        {"ui16", {0x01, 0x02}, 258},
        {"ui32", {0, 0, 1, 0}, 256},
        {"ui32", {0, 1, 0}, std::nullopt},
        {"fpe2", {0x17, 0x70}, 1500.0},
        {"fpe2", {0x17}, std::nullopt},
        {"sp78", {0x17, 0x70}, std::nullopt},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(SMCValue({row.type, row.bytes}).number(), row.number) << row.type << " " << row.bytes.size();
    }
}

TEST(SMCValueTest, FPE2EncodingBoundaries) {
    EXPECT_EQ(SMCValue::encodeFPE2(1500), (std::vector<std::uint8_t>{0x17, 0x70}));
    EXPECT_EQ(SMCValue::encodeFPE2(16383.75), (std::vector<std::uint8_t>{0xFF, 0xFF}));
    EXPECT_EQ(SMCValue::encodeFPE2(16384), std::nullopt);
    EXPECT_EQ(SMCValue::encodeFPE2(-1), std::nullopt);
    EXPECT_EQ(SMCValue::encodeFPE2(-0.0), (std::vector<std::uint8_t>{0, 0}));
    EXPECT_EQ(SMCValue::encodeFPE2(0.125), (std::vector<std::uint8_t>{0, 1}));  // 0.5 rounds away from zero
    EXPECT_EQ(SMCValue::encodeFPE2(std::nan("")), std::nullopt);
    EXPECT_EQ(SMCValue::decodeUnsigned({1, 2, 3}), std::nullopt);
    EXPECT_EQ(SMCValue::encode(std::uint32_t{0x01020304}), (std::vector<std::uint8_t>{1, 2, 3, 4}));
}

TEST(FanKeysTest, DiscoverFromAPredicate) {
    auto only = [](std::set<std::string> present) {
        return [present](const std::string& k) { return present.count(k) > 0; };
    };
    EXPECT_EQ(FanKeys::discover(std::nullopt, only({})), FanLayout::fanless());
    EXPECT_EQ(FanKeys::discover(0, only({"F0md"})), FanLayout::fanless());
    auto upper = FanKeys::discover(2, only({"F0Md"}));
    EXPECT_EQ(upper.fanCount, 2);
    EXPECT_EQ(upper.modeKey, FanLayout::ModeKey::uppercase);
    auto both = FanKeys::discover(2, only({"F0md", "F0Md", "Ftst"}));
    EXPECT_EQ(both.modeKey, FanLayout::ModeKey::lowercase);
    EXPECT_TRUE(both.hasFtst);
    auto none = FanKeys::discover(12, only({}));
    EXPECT_EQ(none.fanCount, 10);
    EXPECT_FALSE(none.modeKey);
}

TEST(SMCReaderTest, ReadsKeysAndFans) {
    TableDriver driver;
    driver.keys["FNum"] = {"ui8 ", {2}};
    driver.keys["#KEY"] = {"ui32", {0, 0, 0, 12}};
    driver.fan(0, 2400, 1200, 6000, 2400, 0);
    driver.fan(1, 2500, 1300, 6500, 2500, std::nullopt);
    SMCReader reader(driver);
    EXPECT_THROW(reader.read("FNum"), SMCError);  // not open
    reader.open();
    EXPECT_TRUE(reader.isOpen());
    EXPECT_EQ(reader.keyCount(), 12);
    auto layout = FanKeys::discover(reader);
    EXPECT_EQ(layout.fanCount, 2);
    auto fans = FanKeys::readFans(reader, layout);
    ASSERT_EQ(fans.size(), 2u);
    EXPECT_EQ(fans[0], (FanReading{0, 2400, 1200, 6000, 2400, 0}));
    EXPECT_EQ(fans[1].mode, std::nullopt);  // no mode key for fan 1: judged by speeds alone
    EXPECT_EQ(fans[1].maximum, 6500);
    EXPECT_FALSE(reader.key(0).empty());
    EXPECT_THROW(reader.key(-1), SMCError);
}

TEST(SMCReaderTest, FailuresAreTyped) {
    TableDriver driver;
    driver.service = false;
    SMCReader reader(driver);
    try { reader.open(); FAIL(); } catch (const SMCError& e) { EXPECT_EQ(e.kind(), SMCError::Kind::serviceUnavailable); }
    driver.service = true;
    driver.openResult = static_cast<std::int32_t>(0xE00002C1);
    try { reader.open(); FAIL(); } catch (const SMCError& e) { EXPECT_EQ(e.kind(), SMCError::Kind::notPrivileged); }
    driver.openResult = 0;
    reader.open();
    try { reader.read("F0A"); FAIL(); } catch (const SMCError& e) { EXPECT_EQ(e.kind(), SMCError::Kind::invalidKey); }
    EXPECT_FALSE(reader.exists("ZZZZ"));
    // A key of 33 bytes cannot fit the record, and is not cached.
    driver.keys["BIGK"] = {"ch8*", std::vector<std::uint8_t>(32, 1), 33};
    for (int i = 0; i < 2; ++i) {
        try { reader.keyInfo("BIGK"); FAIL(); } catch (const SMCError& e) { EXPECT_EQ(e.kind(), SMCError::Kind::sizeMismatch); }
    }
    EXPECT_EQ(driver.infoCalls, 3);  // ZZZZ once, BIGK twice
    // A cached key is not asked again; closing forgets the cache.
    driver.keys["FNum"] = {"ui8 ", {1}};
    reader.read("FNum");
    reader.read("FNum");
    EXPECT_EQ(driver.infoCalls, 4);
    reader.close();
    EXPECT_EQ(driver.closes, 1);
    reader.open();
    reader.read("FNum");
    EXPECT_EQ(driver.infoCalls, 5);
}

TEST(SMCReaderTest, FanlessAndBrokenLayouts) {
    TableDriver driver;
    SMCReader reader(driver);
    auto reopen = [&] { reader.close(); reader.open(); };  // closing forgets cached key info
    reader.open();
    EXPECT_EQ(FanKeys::discover(reader), FanLayout::fanless());  // no FNum at all
    driver.keys["FNum"] = {"ui8 ", {0}};
    reopen();
    EXPECT_EQ(FanKeys::discover(reader), FanLayout::fanless());
    driver.keys["FNum"] = {"ch8*", {1}};
    reopen();
    try { FanKeys::discover(reader); FAIL(); } catch (const SMCError& e) { EXPECT_EQ(e.kind(), SMCError::Kind::unexpectedType); }
    // One fan whose target changed to an unknown type fails the whole read.
    driver.keys["FNum"] = {"ui8 ", {1}};
    driver.fan(0, 2000, 1000, 5000, 2000, 1);
    driver.keys["F0Tg"] = {"sp78", {1, 2}};
    reopen();
    auto layout = FanKeys::discover(reader);
    try { FanKeys::readFans(reader, layout); FAIL(); } catch (const SMCError& e) {
        EXPECT_EQ(e.kind(), SMCError::Kind::unexpectedType);
        EXPECT_EQ(e.type(), "sp78");
    }
    // A read refused by the firmware passes through.
    driver.keys["F0Tg"] = {"flt ", SMCValue::encodeFloat(2000), -1, 0x85};
    reopen();
    try { FanKeys::readFans(reader, layout); FAIL(); } catch (const SMCError& e) { EXPECT_EQ(e.kind(), SMCError::Kind::keyNotReadable); }
}
