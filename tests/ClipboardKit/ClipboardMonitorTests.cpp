#include "ClipboardKit/ClipboardMonitor.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/Simulated/SimulatedPasteboard.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class ClipboardMonitorTest : public ::testing::Test {
protected:
    std::unique_ptr<ClipboardMonitor> make() {
        auto monitor = std::make_unique<ClipboardMonitor>(policy, true, root / "support", pasteboard, scheduler, *log);
        monitor->frontmostApplication = [this] { return front; };
        return monitor;
    }

    void copy(const std::string& text, std::vector<std::string> extraTypes = {}) {
        std::vector<std::pair<std::string, std::string>> entries;
        if (!text.empty()) entries.emplace_back(Pasteboard::plainTextType, text);
        for (auto& type : extraTypes) entries.emplace_back(type, "");
        pasteboard.copy(entries);
    }

    // One poll and whatever it asked the writer to do.
    void tick(ClipboardMonitor& monitor) {
        scheduler.advance(ClipboardMonitor::pollInterval);
        monitor.waitForSaves();
    }

    std::filesystem::path file() const { return root / "support" / "clipboard.json"; }

    std::vector<std::string> fileTexts() {
        std::vector<std::string> out;
        for (const auto& record : nlohmann::json::parse(readFile(file()))) out.push_back(record["text"]);
        return out;
    }

    static std::vector<std::string> texts(const ClipboardMonitor& monitor) {
        std::vector<std::string> out;
        for (const auto& item : monitor.history().get().items()) out.push_back(item.text.str());
        return out;
    }

    // What lies beside the history file: the copies of files that could not be read.
    std::vector<std::string> keptAside() {
        std::vector<std::string> out;
        for (const auto& entry : std::filesystem::directory_iterator(root / "support")) {
            if (entry.path() != file()) out.push_back(readFile(entry.path()));
        }
        return out;
    }

    void copyEach(ClipboardMonitor& monitor, std::initializer_list<const char*> copies) {
        for (auto text : copies) {
            copy(text);
            tick(monitor);
        }
    }

    TempDir root;
    ManualScheduler scheduler;
    SimulatedPasteboard pasteboard;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(root / "logs", scheduler);
    ClipboardPolicy policy;
    std::optional<ClipboardSourceApp> front;
};

} // namespace

TEST_F(ClipboardMonitorTest, RecordsNewCopiesButNotWhatWasThereBefore) {
    copy("before launch");
    auto monitor = make();
    tick(*monitor);
    EXPECT_TRUE(monitor->history().get().items().empty());

    front = ClipboardSourceApp{"org.gnome.TextEditor", "Text Editor"};
    int changes = 0;
    monitor->onChange = [&] { ++changes; };
    copy("caf\xE9 au lait");  // ill-formed text is kept with a replacement character
    tick(*monitor);
    ASSERT_EQ(texts(*monitor), (std::vector<std::string>{"caf\xEF\xBF\xBD au lait"}));
    const auto& item = monitor->history().get().items()[0];
    EXPECT_EQ(item.sourceBundleID, "org.gnome.TextEditor");
    EXPECT_EQ(item.sourceAppName, "Text Editor");
    EXPECT_EQ(item.copiedAt, scheduler.clock().now());
    EXPECT_EQ(changes, 1);

    // No change in the counter, no capture.
    tick(*monitor);
    EXPECT_EQ(changes, 1);

    EXPECT_EQ(fileTexts(), (std::vector<std::string>{"caf\xEF\xBF\xBD au lait"}));
    struct stat info {};
    ASSERT_EQ(::stat(file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(ClipboardMonitorTest, SkipsSayWhyAndNeverLogTheText) {
    LogCapture capture;
    auto monitor = make();
    struct Case {
        std::string text;
        std::vector<std::string> types;
        std::optional<std::string> from, reason;
    };
    const std::vector<Case> cases = {
        {"secret-one", {"org.nspasteboard.ConcealedType"}, std::nullopt,
         "Skipped a concealed copy (a password manager marked it private)"},
        {"secret-two", {}, "com.1password.1password", "Skipped a copy from com.1password.1password"},
        {std::string(128001, 'x'), {}, std::nullopt, "Skipped a copy larger than 128000 characters"},
        // An image: no text, no reason shown, and the previous reason stays.
        {"", {"public.png"}, std::nullopt, "Skipped a copy larger than 128000 characters"},
        {"fine", {}, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        front = c.from ? std::optional<ClipboardSourceApp>({*c.from, "App"}) : std::nullopt;
        copy(c.text, c.types);
        tick(*monitor);
        EXPECT_EQ(monitor->lastSkipReason().get(), c.reason) << c.text.substr(0, 20);
    }
    EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"fine"}));
    for (const auto& line : capture.lines()) EXPECT_EQ(line.message.find("secret"), std::string::npos) << line.message;
    EXPECT_TRUE(capture.contains("clipboard", "Clipboard: skipped concealed content"));
    log->flush();
    EXPECT_EQ(log->contents().find("secret"), std::string::npos);
}

TEST_F(ClipboardMonitorTest, LengthIsCountedInCharactersNotBytes) {
    auto monitor = make();
    // A family emoji is one character of 25 bytes.
    const std::string family = "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7\xE2\x80\x8D\xF0\x9F\x91\xA6";
    std::string exact;
    for (int i = 0; i < 128000; ++i) exact += i < 10 ? family : "a";
    copy(exact);
    tick(*monitor);
    EXPECT_EQ(monitor->history().get().items().size(), 1u);
    EXPECT_EQ(monitor->lastSkipReason().get(), std::nullopt);
    copy(exact + "é");
    tick(*monitor);
    EXPECT_EQ(monitor->history().get().items().size(), 1u);
    EXPECT_EQ(monitor->lastSkipReason().get(), "Skipped a copy larger than 128000 characters");
}

TEST_F(ClipboardMonitorTest, ACopyThePasteboardRefusedForItsSizeIsTooLargeNotEmpty) {
    LogCapture capture;
    struct Case {
        std::int64_t bytes;
        std::vector<std::string> types;
        std::optional<std::string> from;
        std::int64_t limit;
        std::optional<std::string> reason;
    };
    const std::string tooLarge = "Skipped a copy larger than 128000 characters";
    const std::vector<Case> cases = {
        {16 << 20, {}, std::nullopt, 128000, tooLarge},
        // A single byte over nothing still cannot be had: too large, never an empty copy.
        {1, {}, std::nullopt, 128000, tooLarge},
        // The order of the rules holds: a marker and an excluded application come first.
        {16 << 20, {"org.nspasteboard.ConcealedType"}, std::nullopt, 128000,
         "Skipped a concealed copy (a password manager marked it private)"},
        {16 << 20, {}, "com.1password.1password", 128000, "Skipped a copy from com.1password.1password"},
        // A limit above what the bytes prove is still beaten: the text is not there to record.
        {16 << 20, {}, std::nullopt, 1LL << 40, "Skipped a copy larger than 1099511627776 characters"},
        // Nothing refused: an image is an empty copy, which says nothing.
        {0, {"public.png"}, std::nullopt, 128000, std::nullopt},
    };
    for (const auto& c : cases) {
        policy.maximumTextLength = c.limit;
        auto monitor = make();
        front = c.from ? std::optional<ClipboardSourceApp>({*c.from, "App"}) : std::nullopt;
        if (c.bytes > 0) {
            pasteboard.copyOversized(c.bytes, c.types);
        } else {
            copy("", c.types);
        }
        tick(*monitor);
        EXPECT_EQ(monitor->lastSkipReason().get(), c.reason) << c.bytes << " bytes, limit " << c.limit;
        EXPECT_TRUE(monitor->history().get().items().empty());
        // The next ordinary copy is recorded and clears the reason.
        front = std::nullopt;
        copy("after");
        tick(*monitor);
        EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"after"}));
        EXPECT_EQ(monitor->lastSkipReason().get(), std::nullopt);
        monitor->clear();
        monitor->waitForSaves();
    }
    EXPECT_TRUE(capture.contains("clipboard", "Clipboard: skipped a copy of more than 128000 characters"));
}

TEST_F(ClipboardMonitorTest, OwnCopiesAreNotCapturedAndMoveToTheTop) {
    auto monitor = make();
    copyEach(*monitor, {"one", "two"});
    auto one = monitor->history().get().items()[1];
    monitor->setPinned(true, one);
    one = monitor->history().get().items()[0];
    monitor->copyToPasteboard(one);
    EXPECT_EQ(pasteboard.string(), "one");
    int changes = 0;
    monitor->onChange = [&] { ++changes; };
    tick(*monitor);
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"one", "two"}));
    EXPECT_NE(monitor->history().get().items()[0].id, one.id);
    EXPECT_TRUE(monitor->history().get().items()[0].isPinned);
}

TEST_F(ClipboardMonitorTest, ReloadKeepsOrderPinsAndTheMaximum) {
    {
        auto monitor = make();
        copyEach(*monitor, {"a", "b", "c", "d"});
        monitor->setPinned(true, monitor->history().get().items()[3]);  // "a"
    }
    policy.maximumItems = 2;
    auto monitor = make();
    // On disk: a (pinned), d, c, b. Pins take room too, so one unpinned copy is left beside "a".
    EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"a", "d"}));
    EXPECT_TRUE(monitor->history().get().items()[0].isPinned);
}

TEST_F(ClipboardMonitorTest, ACorruptFileMeansAnEmptyHistoryAndIsKeptAside) {
    writeFile(file(), "[{\"id\": broken");
    auto monitor = make();
    EXPECT_TRUE(monitor->history().get().items().empty());
    EXPECT_EQ(readFile(file()), "[{\"id\": broken");  // left in place until something is saved
    log->flush();
    EXPECT_NE(log->contents().find("[clipboard] the history file is unreadable (14 bytes) — starting empty"), std::string::npos);
    copyEach(*monitor, {"new"});
    EXPECT_EQ(fileTexts(), (std::vector<std::string>{"new"}));
    EXPECT_EQ(keptAside(), (std::vector<std::string>{"[{\"id\": broken"}));
}

TEST_F(ClipboardMonitorTest, ClearKeepsPinsOrRemovesTheFileButNeverAnUnreadableOne) {
    writeFile(file(), "not json");
    auto monitor = make();
    monitor->clear();
    monitor->waitForSaves();
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_EQ(keptAside(), (std::vector<std::string>{"not json"}));

    copyEach(*monitor, {"a", "b"});
    monitor->setPinned(true, monitor->history().get().items()[1]);
    monitor->clear();
    monitor->waitForSaves();
    EXPECT_EQ(fileTexts(), (std::vector<std::string>{"a"}));
    monitor->setPinned(false, monitor->history().get().items()[0]);
    monitor->clear();
    monitor->waitForSaves();
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_EQ(keptAside(), (std::vector<std::string>{"not json"}));
}

TEST_F(ClipboardMonitorTest, ForgetOnQuitNeverTouchesTheDisk) {
    policy.clearOnQuit = true;
    writeFile(file(), R"([{"id":"6BA7B810-9DAD-11D1-80B4-00C04FD430C8","text":"old","copiedAt":1,"isPinned":true}])");
    auto monitor = make();
    EXPECT_TRUE(monitor->history().get().items().empty());  // not even read
    copyEach(*monitor, {"x"});
    monitor->setPinned(true, monitor->history().get().items()[0]);
    monitor->waitForSaves();
    EXPECT_NE(readFile(file()).find("old"), std::string::npos);  // untouched
    monitor->forgetOnQuit();
    EXPECT_TRUE(monitor->history().get().items().empty());
    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(ClipboardMonitorTest, PolicyChangesTrimAndForgetAtOnce) {
    auto monitor = make();
    for (auto text : {"a", "b", "c"}) {
        copy(text);
        scheduler.advance(ClipboardMonitor::pollInterval);
    }
    // Nothing has run on the writer yet; saves waiting together write only the newest.
    monitor->waitForSaves();
    monitor->forgetOnQuit();  // not asked to: nothing goes
    EXPECT_EQ(fileTexts(), (std::vector<std::string>{"c", "b", "a"}));
    int policyChanges = 0;
    auto observation = monitor->policy().observe([&](const auto&) { ++policyChanges; });
    auto policy = monitor->policy().get();
    monitor->setPolicy(policy);
    EXPECT_EQ(policyChanges, 0);

    policy.maximumItems = 1;
    monitor->setPolicy(policy);
    monitor->waitForSaves();
    EXPECT_EQ(fileTexts(), (std::vector<std::string>{"c"}));

    policy.clearOnQuit = true;
    monitor->setPolicy(policy);
    monitor->waitForSaves();
    EXPECT_EQ(policyChanges, 2);
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"c"}));  // memory keeps it until quit
}

TEST_F(ClipboardMonitorTest, DisablingStopsPollingAndKeepsTheList) {
    auto monitor = make();
    copyEach(*monitor, {"a"});
    monitor->setEnabled(false);
    EXPECT_EQ(scheduler.pendingTimers(), 0u);
    copyEach(*monitor, {"b"});
    EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"a"}));
    // Turning on again starts from the counter as it is now.
    monitor->setEnabled(true);
    tick(*monitor);
    EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"a"}));
    copyEach(*monitor, {"c"});
    EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"c", "a"}));
}

TEST_F(ClipboardMonitorTest, AnUnwritableFolderLogsAndKeepsTheList) {
    writeFile(root / "support", "a file where the folder should be");
    LogCapture capture(LogLevel::error);
    auto monitor = make();
    copyEach(*monitor, {"a"});
    EXPECT_EQ(texts(*monitor), (std::vector<std::string>{"a"}));
    const auto messages = capture.messages("clipboard");
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                            [](const auto& m) { return m.rfind("Could not save clipboard history: ", 0) == 0; }),
              1);
}
