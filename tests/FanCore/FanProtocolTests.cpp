#include "FanCore/FanJournal.h"
#include "FanCore/FanProtocol.h"

#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>

using namespace tavrick;
using nlohmann::json;
namespace Reply = FanHelperReply;

namespace {
const char* minimalStatus =
    R"({"state":"idle","controlling":false,"safeHold":false,"fans":[],"sensorCount":0,"recoveredOrphan":false,"clients":0})";
}

TEST(FanProtocolTest, StatusRoundTripsWithNonFiniteNumbersAndDates) {
    Reply::Status status;
    status.state = Reply::Status::State::boosting;
    status.controlling = true;
    status.request = FanRequest{0.5, false};
    status.fans = {FanReading{0, 2400.5, 1200, 6000, INFINITY, 1}, FanReading{1, 0, 1200, 6000, 3000, std::nullopt}};
    status.hottestDie = std::nan("");
    status.sensorCount = 6;
    status.reason = FanReason::sleeping;
    status.clients = 2;
    status.setByTavrick = std::vector<int>{0, 1};
    status.lastRelease = FanRelease{std::nullopt, 978307200.0 + 10, {0}, {{0, 3000, 2999.6, 0}}, 2};
    auto text = Reply::encode(status);
    auto j = json::parse(text);
    EXPECT_EQ(j["fans"][0]["target"], "Infinity");
    EXPECT_EQ(j["fans"][1]["target"].dump(), "3000");  // integral numbers without a fraction
    EXPECT_FALSE(j["fans"][1].contains("mode"));      // optional keys left out
    EXPECT_EQ(j["hottestDie"], "NaN");
    EXPECT_EQ(j["lastRelease"]["at"].dump(), "10");     // seconds since 2001
    EXPECT_FALSE(j["lastRelease"].contains("reason"));
    auto back = Reply::decode<Reply::Status>(text);
    EXPECT_TRUE(std::isnan(*back.hottestDie));
    back.hottestDie = status.hottestDie = 0;
    EXPECT_EQ(back, status);
}

TEST(FanProtocolTest, TolerantWhereANewerHelperAddsThings) {
    auto s = Reply::decode<Reply::Status>(minimalStatus);
    EXPECT_EQ(s.setByTavrick, std::nullopt);  // not reported, which is not "none set"
    auto withEmpty = json::parse(minimalStatus);
    withEmpty["setByTavrick"] = json::array();
    withEmpty["state"] = "someNewThing";
    withEmpty["reason"] = "someNewThing";
    withEmpty["extra"] = {{"anything", 1}};
    auto t = Reply::decode<Reply::Status>(withEmpty.dump());
    EXPECT_EQ(t.setByTavrick, std::vector<int>{});
    EXPECT_EQ(t.state, Reply::Status::State::unknown);
    EXPECT_EQ(t.reason, FanReason::unknown);
}

TEST(FanProtocolTest, MismatchesAreDecodingErrors) {
    for (const char* key : {"state", "controlling", "fans", "clients", "sensorCount"}) {
        auto j = json::parse(minimalStatus);
        j.erase(key);
        EXPECT_THROW(Reply::decode<Reply::Status>(j.dump()), FanDecodingError) << key;
    }
    EXPECT_THROW(Reply::decode<Reply::Hello>("not json"), FanDecodingError);
    EXPECT_THROW(Reply::decode<Reply::Hello>(R"({"protocolVersion":"1","build":"3"})"), FanDecodingError);
    auto hello = Reply::decode<Reply::Hello>(R"({"protocolVersion":1,"build":"3"})");
    EXPECT_EQ(hello, (Reply::Hello{1, std::nullopt, "3"}));
}

TEST(FanProtocolTest, FanRequestDecoding) {
    EXPECT_EQ(decodeFanRequest(json::parse(R"({"level":"NaN","isMax":true})")), FanRequest::max());
    EXPECT_EQ(decodeFanRequest(json::parse(R"({"level":7,"isMax":false})")), (FanRequest{1.0, false}));
    try {
        decodeFanRequest(json::parse(R"({"level":"NaN","isMax":false})"));
        FAIL();
    } catch (const FanDecodingError& e) {
        EXPECT_STREQ(e.what(), "A boost level must be a number");
    }
    EXPECT_THROW(decodeFanRequest(json::parse(R"({"isMax":false})")), FanDecodingError);
}

TEST(FanProtocolTest, ReleaseTexts) {
    FanReleaseReading r{1, 3000.4, INFINITY, std::nullopt};
    EXPECT_EQ(r.summary(), "fan 1 target 3000 actual – mode –");
    EXPECT_EQ((FanReleaseReading{0, 2999.5, 1e9, 0}).summary(), "fan 0 target 3000 actual – mode 0");
    FanRelease release;
    EXPECT_EQ(release.reasonName(), "asked");
    release.reason = FanReason::fanFault;
    release.readings = {{0, 1, 2, 0}, {1, 3, 4, 3}};
    EXPECT_EQ(release.reasonName(), "fanFault");
    EXPECT_EQ(release.readingsSummary(), "fan 0 target 1 actual 2 mode 0; fan 1 target 3 actual 4 mode 3");
    auto decoded = Reply::decode<Reply::ReleaseResult>(
        Reply::encode(Reply::ReleaseResult{true, {0, 1}, std::nullopt, {}, std::vector<int>{0}}));
    EXPECT_EQ(decoded.unrecorded, std::vector<int>{0});
    auto apply = Reply::decode<Reply::ApplyResult>(Reply::encode(Reply::ApplyResult{false, FanReason::anotherApp, {}}));
    EXPECT_EQ(apply.reason, FanReason::anotherApp);
}

TEST(FanWireTest, CallsAndReplies) {
    FanWire::Call call{42, FanHelperCall::apply, 0.25, false};
    auto decoded = FanWire::decodeCall(FanWire::encodeCall(call));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->id, 42u);
    EXPECT_EQ(decoded->call, FanHelperCall::apply);
    EXPECT_EQ(decoded->level, 0.25);
    bool unknown = false;
    std::uint64_t id = 0;
    EXPECT_FALSE(FanWire::decodeCall(R"({"id":7,"call":"format"})", &unknown, &id));
    EXPECT_TRUE(unknown);
    EXPECT_EQ(id, 7u);
    for (const char* bad : {"", "{", "[]", R"({"call":"hello"})", R"({"id":-1,"call":"hello"})",
                            R"({"id":1,"call":"apply"})", R"({"id":1,"call":"apply","level":"x","max":false})"}) {
        EXPECT_FALSE(FanWire::decodeCall(bad, &unknown)) << bad;
        EXPECT_FALSE(unknown) << bad;
    }
    auto frame = FanWire::frame("abc");
    EXPECT_EQ(frame.size(), 7u);
    EXPECT_EQ(FanWire::frameLength(frame), 3u);
    EXPECT_EQ(FanWire::frameLength("\x00\x01"), std::nullopt);
    EXPECT_EQ(FanWire::frameLength(std::string("\x01\x00\x00\x00", 4)), 0x01000000u);
    auto reply = FanWire::decodeReply(FanWire::encodeReply({9, std::string(minimalStatus), std::nullopt}));
    ASSERT_TRUE(reply && reply->data);
    EXPECT_EQ(Reply::decode<Reply::Status>(*reply->data).clients, 0);
    EXPECT_FALSE(FanWire::decodeReply(R"({"id":1})"));
}

TEST(FanLogTest, OrdinaryEndsAtTheDefaultLevel) {
    EXPECT_EQ(FanLog::level(std::nullopt), FanLog::Level::standard);
    for (auto r : {FanReason::reclaiming, FanReason::sleeping, FanReason::exiting}) EXPECT_EQ(FanLog::level(r), FanLog::Level::standard);
    for (auto r : {FanReason::fanFault, FanReason::anotherWriter, FanReason::unknown}) EXPECT_EQ(FanLog::level(r), FanLog::Level::error);
    EXPECT_FALSE(FanLog::isPersisted(FanLog::Level::info));
    EXPECT_TRUE(FanLog::isPersisted(FanLog::Level::fault));
}

TEST(FanJournalTest, WritesReadsAndMovesAsideAnUnreadableOne) {
    tavrick::testing::TempDir dir;
    FanJournal journal(dir / "state" / "journal.json");
    bool unreadable = true;
    EXPECT_EQ(journal.read(&unreadable), std::nullopt);
    EXPECT_FALSE(unreadable);
    ASSERT_TRUE(journal.write({{0, 1}, 12.5}));
    EXPECT_EQ(journal.read(), (FanJournal::Entry{{0, 1}, 12.5}));
    tavrick::testing::writeFile(journal.path(), "{\"fans\": [0, \"x\"]}");
    EXPECT_EQ(journal.read(&unreadable), std::nullopt);
    EXPECT_TRUE(unreadable);
    EXPECT_FALSE(std::filesystem::exists(journal.path()));
    int asideCount = 0;
    for (auto& entry : std::filesystem::directory_iterator(dir / "state")) {
        asideCount += entry.path().filename().string().rfind("journal.json.corrupt-", 0) == 0;
    }
    EXPECT_EQ(asideCount, 1);  // kept, never deleted
    EXPECT_TRUE(journal.remove());
    // A folder that cannot be written: the journal says so, and the fans must be left alone.
    FanJournal blocked(dir / "state" / "journal.json" / "x");
    tavrick::testing::writeFile(dir / "state" / "journal.json", "file in the way");
    std::string error;
    EXPECT_FALSE(blocked.write({{0}, 1}, &error));
    EXPECT_FALSE(error.empty());
}
