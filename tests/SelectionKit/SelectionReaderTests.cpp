#include "Platform/Simulated/SimulatedSelection.h"
#include "SelectionKit/SelectionReader.h"
#include "SelectionKit/SelectionWatcher.h"

#include "CoreKit/ManualScheduler.h"

#include <gtest/gtest.h>

namespace tavrick {
namespace {

using Element = SimulatedSelection::Element;

TEST(SelectionReaderTest, RoutesInTheirOrderWithTheirReasons) {
    const Rect box{{10, 20}, {30, 40}};
    struct Case {
        const char* name;
        std::optional<Element> element;
        std::optional<std::string> text;
        std::optional<Rect> bounds;
        std::string reason;
    };
    Element direct;
    direct.selectedText = "  hello";
    direct.hasRange = true;
    direct.bounds = box;
    Element markerWins;
    markerWins.selectedText = "";
    markerWins.hasMarkerRange = true;
    markerWins.markerText = "web text";
    markerWins.bounds = box;
    Element blanks;
    blanks.selectedText = " \n\t";
    Element rangeOnly;
    rangeOnly.hasRange = true;
    rangeOnly.rangeText = "ranged";
    Element noBounds;
    noBounds.selectedText = "x";
    Element markerNothing;
    markerNothing.hasMarkerRange = true;
    markerNothing.hasRange = true;
    markerNothing.rangeText = "  ";
    Element markerBlank;
    markerBlank.hasMarkerRange = true;
    markerBlank.markerText = "   ";
    markerBlank.hasRange = true;
    Element refusing;
    refusing.selectedText = "secret";
    refusing.hasMarkerRange = refusing.hasRange = true;
    refusing.refusesSelectedText = refusing.refusesMarkerRange = refusing.refusesRange = true;
    refusing.role = std::nullopt;
    Element refusesBounds = direct;
    refusesBounds.refusesBounds = true;

    const std::vector<Case> cases{
        {"nothing focused", std::nullopt, std::nullopt, std::nullopt, "nothing is focused system-wide"},
        {"direct keeps its leading blanks", direct, "  hello", box, ""},
        {"an empty selected text gives way to the marker", markerWins, "web text", box, ""},
        {"blanks are nothing", blanks, std::nullopt, std::nullopt,
         "AXTextArea: AXSelectedText empty; AXSelectedTextMarkerRange absent; AXSelectedTextRange absent"},
        {"range only", rangeOnly, "ranged", std::nullopt, ""},
        {"text without bounds", noBounds, "x", std::nullopt, ""},
        {"marker without a string, range of blanks", markerNothing, std::nullopt, std::nullopt,
         "AXTextArea: AXSelectedText absent; marker range present but resolved to nothing; AXSelectedTextRange 2 "
         "characters"},
        {"marker of blanks, unreadable range", markerBlank, std::nullopt, std::nullopt,
         "AXTextArea: AXSelectedText absent; marker range resolved to 3 characters; AXSelectedTextRange present, "
         "unreadable"},
        {"every read refused", refusing, std::nullopt, std::nullopt,
         "unknown role: AXSelectedText absent; AXSelectedTextMarkerRange absent; AXSelectedTextRange absent"},
        {"bounds refused", refusesBounds, "  hello", std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SimulatedSelection session;
        session.setFocused(c.element);
        auto reading = SelectionReader::readSynchronously(session, SelectionReader::timeout);
        EXPECT_EQ(reading.selection ? std::optional(reading.selection->text) : std::nullopt, c.text) << c.name;
        if (reading.selection) {
            EXPECT_EQ(reading.selection->bounds, c.bounds) << c.name;
        }
        EXPECT_EQ(reading.failureReason, c.reason) << c.name;
    }
}

TEST(SelectionReaderTest, ReadsOffTheMainQueueAndAnswersOnIt) {
    ManualScheduler scheduler;
    SimulatedSelection session;
    session.setFrontmostApplication("Notes");
    Element element;
    element.selectedText = "abc";
    session.setFocused(element);
    SelectionReader reader(session, scheduler);
    std::optional<SelectedText> got;
    bool called = false;
    reader.read([&](std::optional<SelectedText> selection) {
        called = true;
        got = selection;
    });
    EXPECT_FALSE(called);
    scheduler.runUntilIdle();
    ASSERT_TRUE(called);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->appName, std::optional<std::string>("Notes"));

    session.setFocused(std::nullopt);
    reader.read([&](std::optional<SelectedText> selection) { got = selection; });
    scheduler.runUntilIdle();
    EXPECT_FALSE(got);
    EXPECT_EQ(reader.lastFailureReason(), "nothing is focused system-wide");
}

TEST(SelectionReaderTest, TheProbeTellsLengthsAndNeverTheText) {
    SimulatedSelection session;
    session.setFrontmostApplication(std::nullopt);
    EXPECT_EQ(SelectionReader::describe(session, 0.3), "no frontmost app to ask");
    session.setFrontmostApplication("Safari");
    EXPECT_EQ(SelectionReader::describe(session, 0.3), "Safari: no focused element — is Accessibility granted?");

    Element element;
    element.selectedText = "";
    element.hasMarkerRange = true;
    element.markerText = "sécret";
    element.hasRange = true;
    session.setFocused(element);
    auto text = SelectionReader::describe(session, 0.3);
    EXPECT_EQ(text,
              "Safari: role=AXTextArea\n"
              "AXSelectedText=0 characters\n"
              "AXSelectedTextMarkerRange present, resolves to 6 characters\n"
              "AXSelectedTextRange present, but no string for it\n"
              "supports marker");
    EXPECT_EQ(text.find("cret"), std::string::npos);

    session.setFocused(Element{});
    EXPECT_EQ(SelectionReader::describe(session, 0.3),
              "Safari: role=AXTextArea\nAXSelectedText absent\nAXSelectedTextMarkerRange absent\n"
              "AXSelectedTextRange absent\nsupports no selection attributes at all (12 attributes)");
}

TEST(SelectionWatcherTest, Reactions) {
    using R = SelectionWatcher::Reaction;
    using T = EventType;
    const std::uint64_t shift = SelectionWatcher::shiftFlag;
    const std::uint64_t cmd = SelectionWatcher::commandFlag;
    struct Case {
        T type;
        std::uint64_t flags;
        std::int64_t keyCode;
        std::int64_t clicks;
        bool dragged;
        R expected;
    };
    const std::vector<Case> cases{
        {T::leftMouseDown, 0, 0, 1, false, R::dismiss},
        {T::scrollWheel, 0, 0, 0, false, R::dismiss},
        {T::leftMouseUp, 0, 0, 1, false, R::ignore},
        {T::leftMouseUp, 0, 0, 1, true, R::look},
        {T::leftMouseUp, 0, 0, 2, false, R::look},
        {T::leftMouseUp, shift, 0, 1, false, R::look},
        {T::keyDown, shift, 123, 0, false, R::look},
        {T::keyDown, shift, 121, 0, false, R::look},
        {T::keyDown, shift, 122, 0, false, R::dismiss},
        {T::keyDown, 0, 123, 0, false, R::dismiss},
        {T::keyDown, cmd, 0, 0, false, R::look},
        {T::keyDown, cmd, 8, 0, false, R::dismiss},
        {T::keyDown, shift, 0, 0, false, R::dismiss},
        {T::keyUp, shift, 123, 0, false, R::ignore},
        {T::rightMouseDown, 0, 0, 1, false, R::ignore},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SelectionWatcher::reaction(c.type, c.flags, c.keyCode, c.clicks, c.dragged), c.expected)
            << static_cast<int>(c.type) << " flags " << c.flags << " key " << c.keyCode;
    }
}

} // namespace
} // namespace tavrick
