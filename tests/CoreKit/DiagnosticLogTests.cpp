#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/ManualScheduler.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

using namespace tavrick;
using tavrick::testing::readFile;
using tavrick::testing::TempDir;
using tavrick::testing::writeFile;

namespace fs = std::filesystem;

namespace {

// 2026-11-15 23:14:07.125 in the test's zone, five and a half hours east of UTC.
constexpr double knownWall = 1794764647.125;
constexpr const char* knownStamp = "2026-11-15 23:14:07.125";

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The test pins the zone so that local time is known; a half-hour offset shows that the zone
// really is applied, and not just whole hours.
class DiagnosticLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* tz = std::getenv("TZ")) savedZone_ = tz;
        setenv("TZ", "IST-5:30", 1);
        tzset();
        scheduler.manualClock().setWall(knownWall);
    }

    void TearDown() override {
        if (savedZone_) {
            setenv("TZ", savedZone_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

    std::shared_ptr<DiagnosticLog> makeLog(const fs::path& directory) { return DiagnosticLog::make(directory, scheduler); }

    // A line of exactly `bytes` bytes at the known stamp, in the category "x", tagged so that it
    // can be found again.
    static std::string messageForLine(std::size_t bytes, const std::string& tag) {
        const std::size_t fixed = std::string(knownStamp).size() + std::string(" [x] ").size() + 1;
        std::string message = tag + " ";
        message.resize(bytes - fixed, '.');
        return message;
    }

    TempDir temp;
    ManualScheduler scheduler;
    fs::path directory = temp / "support";
    std::shared_ptr<DiagnosticLog> log = makeLog(directory);

private:
    std::optional<std::string> savedZone_;
};

} // namespace

TEST_F(DiagnosticLogTest, WritesTheExactLineFormatInLocalTime) {
    const struct {
        double wall;
        const char* category;
        const char* message;
        const char* expected;
    } cases[] = {
        {knownWall, "hotkey", "⌃⌥← fired 'Left Half'", "2026-11-15 23:14:07.125 [hotkey] ⌃⌥← fired 'Left Half'\n"},
        {1794764647.007, "launch", "padded", "2026-11-15 23:14:07.007 [launch] padded\n"},
        // Milliseconds are truncated, never rounded into the next second.
        {1794764647.9996, "launch", "late", "2026-11-15 23:14:07.999 [launch] late\n"},
        // 18:30 UTC on the last day of the year is already the new year here.
        {1798741800.0, "shutdown", "new year", "2027-01-01 00:00:00.000 [shutdown] new year\n"},
        {1798741799.5, "shutdown", "old year", "2026-12-31 23:59:59.500 [shutdown] old year\n"},
        // A message is not escaped: several lines stay several lines.
        {knownWall, "mappings", "first\nsecond", "2026-11-15 23:14:07.125 [mappings] first\nsecond\n"},
        {knownWall, "", "", "2026-11-15 23:14:07.125 [] \n"},
    };
    std::string expected;
    for (const auto& c : cases) {
        scheduler.manualClock().setWall(c.wall);
        log->note(c.category, c.message);
        expected += c.expected;
    }
    log->flush();
    EXPECT_EQ(readFile(log->fileURL()), expected);
}

TEST_F(DiagnosticLogTest, StampIsTakenWhenNotedNotWhenWritten) {
    log->note("hotkey", "one");
    scheduler.manualClock().advance(2.5);
    log->note("gesture", "two");
    // Nothing touches the disk on the caller's thread.
    EXPECT_FALSE(fs::exists(directory));
    scheduler.manualClock().advance(60);
    log->flush();
    EXPECT_EQ(readFile(log->fileURL()),
              "2026-11-15 23:14:07.125 [hotkey] one\n"
              "2026-11-15 23:14:09.625 [gesture] two\n");
}

TEST_F(DiagnosticLogTest, AppendsToAFileLeftByAnEarlierRunAndRotatesItWhenTheNextLineReachesTheLimit) {
    writeFile(log->fileURL(), "2026-11-14 08:00:00.000 [launch] earlier run\n");
    log->note("launch", "this run");
    log->flush();
    EXPECT_EQ(readFile(log->fileURL()),
              "2026-11-14 08:00:00.000 [launch] earlier run\n"
              "2026-11-15 23:14:07.125 [launch] this run\n");

    const std::string earlier(524287, 'e');
    writeFile(log->fileURL(), earlier);
    log->note("launch", "over");
    log->flush();
    EXPECT_FALSE(fs::exists(log->fileURL()));
    EXPECT_EQ(readFile(log->previousFileURL()), earlier + std::string(knownStamp) + " [launch] over\n");
}

TEST_F(DiagnosticLogTest, TheLineThatReachesTheLimitEndsThePreviousFile) {
    const struct {
        std::size_t lineBytes;
        std::size_t linesUntilRotation;
    } cases[] = {
        {1024, 512},  // 512 lines are exactly 524288 bytes: "at" the limit rotates
        {1000, 525},  // 524 lines stay under, the 525th goes over
        {524288 + 100, 1},  // one line bigger than the limit still goes whole into one file
    };
    int run = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lineBytes);
        auto rotating = makeLog(temp / ("rotation" + std::to_string(run++)));
        for (std::size_t i = 1; i < c.linesUntilRotation; ++i) rotating->note("x", messageForLine(c.lineBytes, "#" + std::to_string(i)));
        rotating->flush();
        EXPECT_EQ(fs::exists(rotating->fileURL()) ? fs::file_size(rotating->fileURL()) : 0,
                  (c.linesUntilRotation - 1) * c.lineBytes);
        EXPECT_FALSE(fs::exists(rotating->previousFileURL()));

        rotating->note("x", messageForLine(c.lineBytes, "crossing"));
        rotating->flush();
        EXPECT_FALSE(fs::exists(rotating->fileURL()));
        ASSERT_TRUE(fs::exists(rotating->previousFileURL()));
        EXPECT_EQ(fs::file_size(rotating->previousFileURL()), c.linesUntilRotation * c.lineBytes);
        const auto previous = splitLines(readFile(rotating->previousFileURL()));
        ASSERT_FALSE(previous.empty());
        EXPECT_EQ(previous.back().substr(0, 37), std::string(knownStamp) + " [x] crossing ");

        rotating->note("x", "after");
        rotating->flush();
        EXPECT_EQ(readFile(rotating->fileURL()), std::string(knownStamp) + " [x] after\n");
        EXPECT_EQ(rotating->sizeInBytes(), c.linesUntilRotation * c.lineBytes + std::string(knownStamp).size() + 11);
    }
}

TEST_F(DiagnosticLogTest, ASecondRotationReplacesTheEarlierPreviousFile) {
    // 1024-byte lines rotate after every 512.
    for (int generation = 1; generation <= 2; ++generation) {
        for (int i = 1; i <= 512; ++i) {
            log->note("x", messageForLine(1024, "g" + std::to_string(generation) + "#" + std::to_string(i)));
        }
    }
    log->flush();
    EXPECT_FALSE(fs::exists(log->fileURL()));
    const std::string previous = readFile(log->previousFileURL());
    EXPECT_EQ(previous.size(), 524288u);
    EXPECT_EQ(previous.find(" g1#"), std::string::npos);
    EXPECT_EQ(previous.find(" [x] g2#1 "), 23u);
    EXPECT_NE(previous.find(" [x] g2#512 "), std::string::npos);
    EXPECT_EQ(log->contents(), previous);
}

TEST_F(DiagnosticLogTest, ContentsArePreviousThenCurrentAndMissingFilesGiveNothing) {
    EXPECT_EQ(log->contents(), "");
    EXPECT_EQ(log->sizeInBytes(), 0u);

    log->note("menu", "opened");
    EXPECT_EQ(log->contents(), std::string(knownStamp) + " [menu] opened\n");  // flushed first

    writeFile(log->previousFileURL(), "older\n");
    EXPECT_EQ(log->contents(), "older\n" + std::string(knownStamp) + " [menu] opened\n");
    EXPECT_EQ(log->sizeInBytes(), 6u + 38u);

    log->clear();
    writeFile(log->previousFileURL(), "only the previous\n");
    EXPECT_EQ(log->contents(), "only the previous\n");
    EXPECT_EQ(log->sizeInBytes(), 18u);
}

TEST_F(DiagnosticLogTest, ClearDeletesBothFilesAndTheNextNoteStartsAFreshOne) {
    EXPECT_TRUE(log->beginSession());
    log->note("vault", "locked");
    log->flush();
    writeFile(log->previousFileURL(), "older\n");

    log->clear();
    EXPECT_FALSE(fs::exists(log->fileURL()));
    EXPECT_FALSE(fs::exists(log->previousFileURL()));
    EXPECT_TRUE(fs::exists(log->markerURL())) << "clearing the log is not the end of the run";
    EXPECT_EQ(log->contents(), "");

    log->note("vault", "unlocked");
    log->flush();
    EXPECT_EQ(readFile(log->fileURL()), std::string(knownStamp) + " [vault] unlocked\n");
}

TEST_F(DiagnosticLogTest, TheMarkerTellsWhetherThePreviousRunEndedCleanly) {
    EXPECT_FALSE(fs::exists(directory));
    EXPECT_TRUE(log->beginSession()) << "the first run ever";
    EXPECT_TRUE(fs::exists(log->markerURL()));
    EXPECT_EQ(fs::file_size(log->markerURL()), 0u);
    log->note("shutdown", "bye");
    log->endSession();
    EXPECT_FALSE(fs::exists(log->markerURL()));
    EXPECT_EQ(readFile(log->fileURL()), std::string(knownStamp) + " [shutdown] bye\n") << "endSession flushes";

    auto second = makeLog(directory);
    EXPECT_TRUE(second->beginSession()) << "after a clean end";
    second.reset();  // killed: endSession never ran

    auto third = makeLog(directory);
    EXPECT_FALSE(third->beginSession()) << "after a killed run";
    EXPECT_TRUE(fs::exists(third->markerURL()));
    EXPECT_FALSE(third->beginSession()) << "the marker stays for the whole run";
    third->endSession();

    EXPECT_TRUE(makeLog(directory)->beginSession());
}

TEST_F(DiagnosticLogTest, AnUnusableDirectoryOrFileLosesLinesAndNothingElse) {
    // A regular file where the directory should be: nothing below it can be created, even as root.
    writeFile(temp / "blocker", "not a directory");
    auto stuck = makeLog(temp / "blocker" / "support");
    stuck->note("launch", "lost");
    stuck->flush();
    EXPECT_EQ(stuck->contents(), "");
    EXPECT_EQ(stuck->sizeInBytes(), 0u);
    EXPECT_TRUE(stuck->beginSession()) << "with no marker to find, the last run counts as clean";
    stuck->endSession();
    stuck->clear();
    EXPECT_EQ(readFile(temp / "blocker"), "not a directory");

    // Each line tries again, so the log comes back by itself once the way is clear.
    fs::remove(temp / "blocker");
    stuck->note("launch", "kept");
    EXPECT_EQ(stuck->contents(), std::string(knownStamp) + " [launch] kept\n");

    // A folder where the log file should be is left alone.
    fs::create_directories(log->fileURL() / "inside");
    log->note("launch", "lost");
    EXPECT_EQ(log->contents(), "");
    EXPECT_TRUE(fs::exists(log->fileURL() / "inside"));
}

TEST_F(DiagnosticLogTest, NotesStillQueuedWhenTheLogGoesAwayAreDropped) {
    log->note("launch", "late");
    const auto file = log->fileURL();
    log.reset();
    EXPECT_EQ(scheduler.runUntilIdle(), 1) << "the queued write ran and found no log";
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(DiagnosticLogTest, BytesThatAreNotUTF8AreReplacedAndTheLineKept) {
    const struct {
        std::string message;
        std::string written;
    } cases[] = {
        {"plain ⌘⇧→ text", "plain ⌘⇧→ text"},
        {"a\xff" "b", "a\xEF\xBF\xBD" "b"},
        {"cut \xE2\x8C", "cut \xEF\xBF\xBD"},  // a three-byte sequence cut short is one mistake
        {"over\xC0\xAF", "over\xEF\xBF\xBD\xEF\xBF\xBD"},  // an overlong slash
        {"half\xED\xA0\x80", "half\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // a lone surrogate
        {"emoji \xF0\x9F\x98\x80", "emoji \xF0\x9F\x98\x80"},
    };
    std::string expected;
    for (const auto& c : cases) {
        log->note("selection", c.message);
        expected += std::string(knownStamp) + " [selection] " + c.written + "\n";
    }
    EXPECT_EQ(log->contents(), expected);
}

// Real threads prove that notes from several callers arrive whole; the only wait is the flush.
TEST(DiagnosticLogThreads, ConcurrentNotesAllArriveWholeAndInEachCallersOrder) {
    TempDir temp;
    DispatchScheduler real(SystemClock::shared(), 1);
    auto log = DiagnosticLog::make(temp / "support", real);

    constexpr int threads = 4;
    constexpr int perThread = 600;
    const std::string padding(200, '=');
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) log->note("thread" + std::to_string(t), std::to_string(i) + " " + padding);
        });
    }
    for (auto& caller : callers) caller.join();

    // About 620 KB in all, so the notes also cross one rotation.
    const std::string text = log->contents();
    EXPECT_TRUE(fs::exists(log->previousFileURL()));
    EXPECT_EQ(log->sizeInBytes(), text.size());
    const auto lines = splitLines(text);
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(threads * perThread));
    const std::regex shape(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[thread(\d)\] (\d+) (=+))");
    std::map<int, int> next;
    for (const auto& line : lines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, shape)) << line.substr(0, 80);
        EXPECT_EQ(match[3].length(), 200);
        const int t = std::stoi(match[1]);
        EXPECT_EQ(std::stoi(match[2]), next[t]++) << "thread " << t;
    }
    EXPECT_EQ(next.size(), static_cast<std::size_t>(threads));
}
