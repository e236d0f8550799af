#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedPasteboard.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tavrick;
using namespace tavrick::testing;

TEST(SimulatedPasteboard, EveryChangeMovesTheCounterAndTheStateShowsIt) {
    SimulatedPasteboard pasteboard;
    std::vector<std::int64_t> told;
    pasteboard.setOnChange([&](std::int64_t count, const std::vector<std::string>&) { told.push_back(count); });
    auto state = [&] { return nlohmann::json{{"pasteboard", pasteboard.stateSection()}}; };
    EXPECT_EQ(state(), nlohmann::json::parse(R"({"pasteboard":{"changeCount":0,"types":[]}})"));

    pasteboard.copy({{Pasteboard::plainTextType, "private words"}, {"org.nspasteboard.ConcealedType", ""}});
    EXPECT_EQ(pasteboard.types(), (std::vector<std::string>{"public.utf8-plain-text", "org.nspasteboard.ConcealedType"}));
    EXPECT_EQ(pasteboard.string(), "private words");
    EXPECT_EQ(pasteboard.string("public.png"), std::nullopt);
    EXPECT_EQ(state()["pasteboard"]["changeCount"], 1);
    EXPECT_EQ(state().dump().find("private"), std::string::npos);

    // A clear and a write are one change, as when a program copies.
    EXPECT_EQ(pasteboard.clearContents(), 2);
    EXPECT_TRUE(pasteboard.setString("mine"));
    EXPECT_EQ(pasteboard.types(), (std::vector<std::string>{"public.utf8-plain-text"}));
    EXPECT_EQ(state(), nlohmann::json::parse(R"({"pasteboard":{"changeCount":2,"types":["public.utf8-plain-text"]}})"));

    pasteboard.setRefusesWrites(true);
    EXPECT_FALSE(pasteboard.setString("refused"));
    EXPECT_EQ(pasteboard.string(), "mine");
    EXPECT_EQ(told, (std::vector<std::int64_t>{1, 2, 2}));
}

TEST(SimulatedPasteboard, TheBridgeCarriesCopiesFromAnotherProcess) {
    TempDir root;
    SimulatedSession session;
    SimulatedPasteboard pasteboard;
    auto bridge = SessionBridge::listen(session, nullptr, root / "s.sock", &pasteboard);
    ASSERT_TRUE(bridge);

    const std::string multiLine = "first line\nsecond line\n\ttabbed \xF0\x9F\x98\x80";
    EXPECT_EQ(SessionBridge::sendCopy(root / "s.sock", multiLine), std::nullopt);
    EXPECT_EQ(pasteboard.string(), multiLine);
    EXPECT_EQ(pasteboard.changeCount(), 1);

    // An image copy: a type and no text.
    EXPECT_EQ(SessionBridge::sendCopy(root / "s.sock", "", {"public.png"}), std::nullopt);
    EXPECT_EQ(pasteboard.types(), (std::vector<std::string>{"public.png"}));
    EXPECT_EQ(pasteboard.changeCount(), 2);

    // A large copy arrives whole.
    const std::string large(300000, 'z');
    EXPECT_EQ(SessionBridge::sendCopy(root / "s.sock", large), std::nullopt);
    EXPECT_EQ(pasteboard.string(), large);

    // Keys still work beside copies, and a session without a pasteboard says so.
    EXPECT_EQ(SessionBridge::handleCopy(nullptr, "copy", "x"), "error this session has no pasteboard\n");
    EXPECT_EQ(SessionBridge::handle(session, "copyx"), "error unknown request\n");
}
