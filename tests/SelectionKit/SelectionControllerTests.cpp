#include "SelectionKit/SelectionController.h"

#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PreferenceStore.h"
#include "Platform/Simulated/SimulatedPasteboard.h"
#include "Platform/Simulated/SimulatedSelection.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace tavrick {
namespace {

using A = SelectionAction::Case;
using Element = SimulatedSelection::Element;

class RecordingLauncher final : public DesktopLauncher {
public:
    std::optional<std::string> applicationURL(const std::string&) const override { return std::nullopt; }
    void openApplication(const std::string&, std::function<void(std::optional<std::string>)> done) override {
        done(std::string("no"));
    }
    std::optional<std::string> open(const URL& url) override {
        opened.push_back(url.absoluteString);
        return std::nullopt;
    }
    std::optional<std::string> reveal(const std::filesystem::path& path) override {
        revealed.push_back(path.string());
        return std::nullopt;
    }
    std::vector<std::string> opened;
    std::vector<std::string> revealed;
};

class SelectionControllerTest : public ::testing::Test {
protected:
    SelectionControllerTest() {
        defaults.set("selectionActionsGeneration", std::int64_t{1});
        settings = std::make_unique<AppSettings>(defaults, *log);
        Element element;
        selection.setFocused(element);
        selection.setFrontmostApplication("Notes");
    }

    SelectionController& make(std::function<void(const std::string&, std::function<void(std::optional<SelectionPathKind>)>)>
                                  kindOfItem = nullptr) {
        controller = std::make_unique<SelectionController>(
            *settings, *log, scheduler,
            SelectionController::Ports{selection, session, pasteboard, launcher, home.path().string(),
                                       [this] { return mouse; }, nullptr, std::move(kindOfItem)});
        return *controller;
    }

    void select(const std::string& text, std::optional<Rect> bounds = Rect{{100, 300}, {200, 20}}) {
        Element element;
        element.selectedText = text;
        element.hasRange = true;
        element.bounds = bounds;
        selection.setFocused(element);
    }

    std::vector<std::string> shownIds() const {
        std::vector<std::string> ids;
        for (const auto& action : controller->bar().actions) ids.push_back(action.id());
        return ids;
    }

    std::string notes() { return log->contents(); }

    tavrick::testing::TempDir directory;
    tavrick::testing::TempDir home;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(directory.path(), scheduler);
    InMemoryPreferenceStore defaults;
    std::unique_ptr<AppSettings> settings;
    SimulatedSelection selection;
    SimulatedSession session;
    SimulatedPasteboard pasteboard;
    RecordingLauncher launcher;
    Point mouse{50, 50};
    std::unique_ptr<SelectionController> controller;
};

TEST_F(SelectionControllerTest, ALookWaitsToSettleThenShowsTheButtonsThatApplyInTheUsersOrder) {
    settings->selectionActionStore.set(SelectionActionList({A::sum, A::openLink, A::copy, A::askAI, A::revealInFinder}));
    auto& c = make();
    select("costs 12 and 30, see https://a.test");
    c.present("asked for");
    scheduler.advance(0.11);
    EXPECT_FALSE(c.bar().isVisible);
    EXPECT_EQ(selection.reads(), 0u);
    scheduler.advance(0.02);
    EXPECT_TRUE(c.bar().isVisible);
    EXPECT_EQ(shownIds(), (std::vector<std::string>{"sum", "openLink", "copy", "askAI"}));
    // Above the selection, with the gap.
    EXPECT_EQ(c.bar().frame.origin.y + c.bar().frame.size.height, 300 - SelectionPlacement::barGap);
    auto text = notes();
    EXPECT_NE(text.find("[selection] bar shown (35 characters in Notes, 4 actions)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("not copying automatically — “Copy every selection automatically” is off"), std::string::npos);
    EXPECT_EQ(text.find("https://a.test"), std::string::npos) << "the selection reached the log";
}

TEST_F(SelectionControllerTest, ALateSelectionIsFoundByTheOneRetryAndAnEmptyAppIsNotedOnce) {
    auto& c = make();
    selection.setFocused(Element{});
    c.present("drag=40");
    scheduler.advance(0.12);
    scheduler.runUntilIdle();
    EXPECT_FALSE(c.bar().isVisible);
    select("hello");
    scheduler.advance(0.28);
    scheduler.runUntilIdle();
    EXPECT_TRUE(c.bar().isVisible);

    // Nothing on both tries, twice: one note.
    selection.setFocused(Element{});
    for (int i = 0; i < 2; ++i) {
        c.present("drag=40");
        scheduler.advance(1);
    }
    auto text = notes();
    const std::string line =
        "Notes published no selection — AXTextArea: AXSelectedText absent; AXSelectedTextMarkerRange absent; "
        "AXSelectedTextRange absent\n";
    auto first = text.find(line);
    ASSERT_NE(first, std::string::npos) << text;
    EXPECT_EQ(text.find(line, first + 1), std::string::npos) << text;
    EXPECT_EQ(selection.reads(), 6u);
}

TEST_F(SelectionControllerTest, OnlyTheNewestLookShowsABar) {
    auto& c = make();
    select("first");
    c.present("drag=10");
    scheduler.advance(0.05);
    select("second one");
    c.present("drag=10");
    scheduler.advance(1);
    EXPECT_EQ(c.bar().text, "second one");
    EXPECT_EQ(selection.reads(), 1u);
    // A hide while a read is on its way drops it.
    c.present("drag=10");
    scheduler.advance(0.12);
    c.hide();
    scheduler.runUntilIdle();
    EXPECT_FALSE(c.bar().isVisible);
}

TEST_F(SelectionControllerTest, CopyOnSelectOnlyInAutomaticModeAndNeverWhileSuspended) {
    settings->copyOnSelect.set(true);
    settings->selectionMode.set(SelectionMode::automatic);
    auto& c = make();
    select("copy me");
    c.present("drag=10");
    scheduler.advance(1);
    EXPECT_EQ(pasteboard.string(), std::optional<std::string>("copy me"));
    EXPECT_TRUE(c.bar().alreadyCopied);
    EXPECT_EQ(barButtonLabel(SelectionAction(A::copy), SelectionBarLabels::text, c.bar().alreadyCopied), "Copied");
    EXPECT_NE(notes().find("copied on select (7 characters)"), std::string::npos);

    c.setSuspended(true);
    EXPECT_FALSE(c.bar().isVisible);
    select("vault secret");
    c.present("drag=10");
    scheduler.advance(1);
    EXPECT_FALSE(c.bar().isVisible);
    EXPECT_EQ(pasteboard.string(), std::optional<std::string>("copy me"));
    c.setSuspended(true);
    c.setSuspended(false);
    auto text = notes();
    EXPECT_NE(text.find("[selection] not looking while the vault is open\n"), std::string::npos);
    EXPECT_NE(text.find("[selection] looking again\n"), std::string::npos);
    EXPECT_EQ(text.find("not looking while the vault is open", text.find("not looking") + 1), std::string::npos);
}

TEST_F(SelectionControllerTest, OpenInFinderWaitsForTheDiskButNotForever) {
    settings->selectionActionStore.set(SelectionActionList({A::copy, A::revealInFinder}));
    std::function<void(std::optional<SelectionPathKind>)> pending;
    auto& c = make([&](const std::string&, std::function<void(std::optional<SelectionPathKind>)> done) {
        pending = std::move(done);
    });
    select("/Volumes/Sleepy/file.txt");
    c.present("drag=10");
    scheduler.advance(0.12 + 0.49);
    EXPECT_FALSE(c.bar().isVisible);
    scheduler.advance(0.02);
    EXPECT_EQ(shownIds(), std::vector<std::string>{"copy"});
    // The disk's late answer is dropped.
    pending(SelectionPathKind::file);
    scheduler.runUntilIdle();
    EXPECT_EQ(shownIds(), std::vector<std::string>{"copy"});

    // An answer in time brings the button.
    select("/Volumes/Sleepy/file.txt");
    c.present("drag=10");
    scheduler.advance(0.13);
    pending(SelectionPathKind::file);
    scheduler.runUntilIdle();
    EXPECT_EQ(shownIds(), (std::vector<std::string>{"copy", "revealInFinder"}));
}

TEST_F(SelectionControllerTest, EachButtonActs) {
    std::filesystem::create_directory(home.path() / "Docs");
    std::ofstream(home.path() / "Docs" / "a b.txt") << "x";
    settings->searchEngine.set(SearchEngine::Case::wikipedia);
    settings->selectionActionStore.set(SelectionActionList(
        {A::copy, A::search, A::lookUp, A::sum, A::sendToNotepad, A::revealInFinder, A::openLink,
         SelectionAction::custom("Broken", "::{text}"), SelectionAction::custom("Maps", "https://m.test/?q={text}")}));
    std::vector<std::string> sentToNote;
    auto& c = make();
    c.onSendToNotepad = [&](const std::string& text) { sentToNote.push_back(text); };

    auto showAndPress = [&](const std::string& text, const std::string& id) {
        select(text);
        c.present("asked for");
        scheduler.advance(1);
        scheduler.runUntilIdle();
        return c.press(id);
    };
    EXPECT_TRUE(showAndPress("a&b", "search"));
    EXPECT_EQ(launcher.opened.back(), "https://en.wikipedia.org/w/index.php?search=a%26b");
    EXPECT_FALSE(c.bar().isVisible);
    EXPECT_TRUE(showAndPress("word", "lookUp"));
    EXPECT_EQ(launcher.opened.back(), "dict://word");
    EXPECT_TRUE(showAndPress("x", "custom:Maps:https://m.test/?q={text}"));
    EXPECT_EQ(launcher.opened.back(), "https://m.test/?q=x");
    const auto openedBefore = launcher.opened.size();
    EXPECT_TRUE(showAndPress("x", "custom:Broken:::{text}"));
    EXPECT_EQ(launcher.opened.size(), openedBefore);
    EXPECT_NE(notes().find("'Broken' produced no URL — check its template"), std::string::npos);
    EXPECT_TRUE(showAndPress("copied", "copy"));
    EXPECT_EQ(pasteboard.string(), std::optional<std::string>("copied"));
    EXPECT_TRUE(showAndPress("note this", "sendToNotepad"));
    EXPECT_EQ(sentToNote, std::vector<std::string>{"note this"});
    EXPECT_TRUE(showAndPress("$1,000.10 $2", "sum"));
    EXPECT_EQ(c.results().title, "2 numbers");
    EXPECT_EQ(c.results().state, SelectionResultState::State(SelectionResultState::Answer{"$1,002.1"}));
    c.copyAnswer();
    EXPECT_EQ(pasteboard.string(), std::optional<std::string>("$1,002.1"));
    EXPECT_TRUE(showAndPress("~/Docs/a\\ b.txt", "revealInFinder"));
    EXPECT_EQ(launcher.revealed.back(), (home.path() / "Docs" / "a b.txt").string());
    EXPECT_TRUE(showAndPress("\"~/Docs\"", "revealInFinder"));
    EXPECT_EQ(launcher.opened.back(), "file://" + (home.path() / "Docs").string());
    // Gone between the bar and the press.
    select("~/Docs/a\\ b.txt");
    c.present("asked for");
    scheduler.advance(1);
    std::filesystem::remove(home.path() / "Docs" / "a b.txt");
    EXPECT_TRUE(c.press("revealInFinder"));
    EXPECT_NE(notes().find("'Open in Finder' — nothing is there any more"), std::string::npos);
    // A button that is not on the bar does nothing.
    EXPECT_FALSE(c.press("translate"));
    EXPECT_NE(notes().find("bar button pressed: Open in Finder"), std::string::npos);
}

TEST_F(SelectionControllerTest, TheModelAnswersOrFailsInItsWordsAndAWithdrawnQuestionShowsNothing) {
    settings->selectionActionStore.set(SelectionActionList({A::askAI, A::translate}));
    settings->aiProvider.set("openAI");
    settings->aiModels.set({{"openAI", "gpt-test"}});
    settings->translateInto.set("Turkish");
    std::vector<ModelQuestion> asked;
    ModelReply reply{true, "It means hello."};
    auto& c = make();
    c.onAskModel = [&](const ModelQuestion& question, const std::shared_ptr<std::atomic<bool>>&) {
        asked.push_back(question);
        return reply;
    };
    select("merhaba");
    c.present("asked for");
    scheduler.advance(1);
    ASSERT_TRUE(c.press("askAI"));
    EXPECT_EQ(c.results().state, SelectionResultState::State(SelectionResultState::Working{"Thinking…"}));
    scheduler.runUntilIdle();
    EXPECT_EQ(c.results().state, SelectionResultState::State(SelectionResultState::Answer{"It means hello."}));
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].model, "gpt-test");
    EXPECT_EQ(asked[0].maxTokens, 1024);
    EXPECT_EQ(asked[0].text, "merhaba");
    EXPECT_NE(notes().find("[selection] Ask AI answered (15 characters)\n"), std::string::npos);

    reply = {false, "The key was rejected (401). Check it in Settings › Selection."};
    ASSERT_TRUE(c.press("translate"));
    scheduler.runUntilIdle();
    EXPECT_EQ(asked.back().instruction, "Translate this into Turkish. Reply with the translation only.");
    EXPECT_EQ(c.results().state, SelectionResultState::State(SelectionResultState::Failed{reply.text}));
    EXPECT_NE(notes().find("[selection] Translate failed: The key was rejected (401)."), std::string::npos);

    // Hidden before the answer came back: nothing shows.
    reply = {true, "late"};
    ASSERT_TRUE(c.press("askAI"));
    c.hide();
    scheduler.runUntilIdle();
    EXPECT_FALSE(c.results().isVisible);
}

TEST_F(SelectionControllerTest, ClicksOnTheBarDoNotDismissItAndTheModeStartsTheWatcher) {
    auto& c = make();
    select("x");
    c.present("asked for");
    scheduler.advance(1);
    ASSERT_TRUE(c.bar().isVisible);
    mouse = {c.bar().frame.origin.x + 1, c.bar().frame.origin.y + 1};
    c.dismissUnlessOnTheBar();
    EXPECT_TRUE(c.bar().isVisible);
    mouse = {0, 899};
    c.dismissUnlessOnTheBar();
    EXPECT_FALSE(c.bar().isVisible);

    c.observeSettings();
    EXPECT_FALSE(c.watcher().isRunning());
    settings->selectionMode.set(SelectionMode::automatic);
    EXPECT_TRUE(c.watcher().isRunning());
    settings->selectionMode.set(SelectionMode::onDemand);
    EXPECT_FALSE(c.watcher().isRunning());

    session.setTapCreationAllowed(false);
    settings->selectionMode.set(SelectionMode::automatic);
    ASSERT_TRUE(c.error().get());
    EXPECT_NE(notes().find("[selection] automatic mode could not start: " + *c.error().get()), std::string::npos);
}

TEST(SelectionPlacementTest, ResultWindowStaysOnScreen) {
    const Rect screen{{0, 0}, {1000, 800}};
    const Size size{300, 100};
    struct Case {
        Point point;
        Point origin;
    };
    const std::vector<Case> cases{
        {{500, 400}, {350, 288}},   // centred, 12 above
        {{10, 400}, {6, 288}},      // kept 6 from the left
        {{995, 400}, {694, 288}},   // and from the right
        {{500, 50}, {350, 62}},     // no room above: 12 below
        {{500, 790}, {350, 678}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SelectionPlacement::resultOrigin(c.point, size, screen), c.origin) << c.point.x << "," << c.point.y;
    }
    // The bar at the mouse when the selection has no bounds, kept on screen.
    EXPECT_EQ(SelectionPlacement::barOrigin({100, 30}, std::nullopt, {20, 20}, screen), (Point{0, 0}));
    EXPECT_EQ(SelectionPlacement::barOrigin({100, 30}, Rect{{400, 5}, {50, 10}}, {0, 0}, screen), (Point{400, 23}));
}

} // namespace
} // namespace tavrick
