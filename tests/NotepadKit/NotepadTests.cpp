#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/ManualScheduler.h"
#include "NotepadKit/Notepad.h"
#include "Support/Eventually.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class NotepadTest : public ::testing::Test {
protected:
    void SetUp() override { log = DiagnosticLog::make(root / "logs", scheduler); }

    std::unique_ptr<Notepad> make() {
        auto notepad = std::make_unique<Notepad>(file, 0.5, scheduler, *log);
        notepad->onSaveFailure = [this](const std::string& path) { failures.push_back(path); };
        return notepad;
    }

    std::string logText() {
        log->flush();
        return log->contents();
    }

    // What lies beside the note: the versions kept aside.
    std::vector<std::string> keptAside() const {
        std::vector<std::string> out;
        for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
            if (entry.path() != file) out.push_back(readFile(entry.path()));
        }
        std::sort(out.begin(), out.end());
        return out;
    }

    // Counts writes by the file's inode: an atomic write always makes a new one.
    ino_t inode() const {
        struct stat info {};
        return ::stat(file.c_str(), &info) == 0 ? info.st_ino : 0;
    }

    TempDir root;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log;
    std::filesystem::path file = root / "deep/folder/Notepad.txt";
    std::vector<std::string> failures;
};

} // namespace

TEST_F(NotepadTest, ABurstOfEditsIsOneWriteHalfASecondAfterTheLast) {
    auto notepad = make();
    notepad->setText("a");
    scheduler.advance(0.3);
    notepad->setText("ab");
    scheduler.advance(0.3);
    notepad->setText("abc");
    scheduler.advance(0.49);
    EXPECT_FALSE(std::filesystem::exists(file));
    scheduler.advance(0.02);
    EXPECT_EQ(readFile(file), "abc");  // the missing folders were made
    EXPECT_FALSE(notepad->hasPendingSave());
    const auto written = inode();
    scheduler.advance(5);
    EXPECT_EQ(inode(), written);
}

TEST_F(NotepadTest, FlushWritesAPendingSaveAtOnceAndNothingOtherwise) {
    auto notepad = make();
    EXPECT_TRUE(notepad->isEmpty());  // a missing file is an empty note
    notepad->flush();
    EXPECT_FALSE(std::filesystem::exists(file));
    notepad->setText("quit inside the window");
    notepad->flush();
    EXPECT_EQ(readFile(file), "quit inside the window");
    const auto written = inode();
    notepad->flush();
    notepad->setText("quit inside the window");  // the same text schedules nothing
    EXPECT_FALSE(notepad->hasPendingSave());
    scheduler.advance(1);
    EXPECT_EQ(inode(), written);
}

TEST_F(NotepadTest, AFailedSaveKeepsTheTextAndTextThatIsNotUTF8NeverReplacesTheFile) {
    writeFile(root / "deep", "a file where a folder should be");
    auto notepad = make();
    notepad->setText("precious");
    scheduler.advance(0.5);
    EXPECT_EQ(failures, (std::vector<std::string>{file.string()}));
    EXPECT_EQ(notepad->text().get(), "precious");
    EXPECT_NE(logText().find("[notepad] could not save: "), std::string::npos);
    // The next keystroke tries again, and succeeds once the folder can be made.
    std::filesystem::remove(root / "deep");
    notepad->setText("precious!");
    scheduler.advance(0.5);
    EXPECT_EQ(readFile(file), "precious!");
    EXPECT_EQ(failures.size(), 1u);

    notepad->setText("bad \xFF byte");
    notepad->flush();
    EXPECT_EQ(readFile(file), "precious!");
    EXPECT_EQ(failures.size(), 2u);
    EXPECT_NE(logText().find("[notepad] could not encode the note — keeping the old file"), std::string::npos);
}

TEST_F(NotepadTest, AnotherEncodingOrAnEditMadeElsewhereIsKeptAsideNotWrittenOver) {
    writeFile(file, "Gr\xFC\xDF" "e");  // Latin-1
    auto notepad = make();
    EXPECT_EQ(notepad->text().get(), "Gr\xEF\xBF\xBD\xEF\xBF\xBD" "e");
    notepad->append("more");
    notepad->flush();
    EXPECT_EQ(readFile(file), "Gr\xEF\xBF\xBD\xEF\xBF\xBD" "e\n\nmore");
    EXPECT_EQ(keptAside(), (std::vector<std::string>{"Gr\xFC\xDF" "e"}));

    writeFile(file, "changed in another editor");
    notepad->setText("mine");
    notepad->flush();
    EXPECT_EQ(readFile(file), "mine");
    EXPECT_EQ(keptAside(), (std::vector<std::string>{"Gr\xFC\xDF" "e", "changed in another editor"}));
    EXPECT_NE(logText().find("[notepad] the note file was changed elsewhere — keeping that version aside"),
              std::string::npos);
    // Our own saves are not mistaken for someone else's.
    notepad->setText("again");
    notepad->flush();
    EXPECT_EQ(keptAside().size(), 2u);
    // A file deleted elsewhere is simply written again.
    std::filesystem::remove(file);
    notepad->setText("after the delete");
    notepad->flush();
    EXPECT_EQ(readFile(file), "after the delete");
}

TEST(NotepadText, AppendingAddsABlankLineAndIgnoresBlankAdditions) {
    struct Case {
        std::string addition, note, expected;
    };
    const std::vector<Case> cases = {
        {"new", "", "new"},
        {"new", " \n\t", "new"},
        {"new", "old", "old\n\nnew"},
        {"   ", "old", "old"},
        {"\n\u2003", "old", "old"},  // an em space is white space too
        {"", "", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(Notepad::appending(c.addition, c.note), c.expected) << c.addition;
}

TEST_F(NotepadTest, SummaryAndWordCount) {
    auto notepad = make();
    const std::string forty(40, 'x');
    struct Case {
        std::string text, summary;
        std::size_t words;
    };
    const std::vector<Case> cases = {
        {"\n\n  First line  \nsecond", "First line", 3},
        {forty, forty, 1},
        {forty + "y", forty + "…", 1},
        {std::string(40, 'a') + "\u00e9", std::string(40, 'a') + "…", 1},
        {"one\ttwo\u2003three\n\nfour", "one\ttwo\u2003three", 4},
        {"", "", 0},
    };
    for (const auto& c : cases) {
        notepad->setText(c.text);
        EXPECT_EQ(notepad->summary(), c.summary) << c.text;
        EXPECT_EQ(notepad->wordCount(), c.words) << c.text;
    }
}

// The real thing, once: a process that edits its note on real time and is killed outright. The
// test program runs itself as that process, through the helper below.
namespace {
constexpr const char* helperVariable = "TAVRICK_NOTEPAD_HELPER_FILE";
} // namespace

TEST(NotepadHelper, EditsAndWaitsToBeKilled) {
    const char* path = std::getenv(helperVariable);
    if (!path) GTEST_SKIP() << "runs only as the child of the kill test";
    DispatchScheduler scheduler;
    auto log = DiagnosticLog::make(std::filesystem::path(path).parent_path() / "logs", scheduler);
    Notepad notepad(std::filesystem::path(path), 0.5, scheduler, *log);
    notepad.setText("typed before the kill");
    std::printf("edited\n");
    std::fflush(stdout);
    scheduler.runMainFor(30);
}

TEST(NotepadHelper, ANoteSurvivesAKillThatComesAfterTheDebounce) {
    if (std::getenv(helperVariable)) GTEST_SKIP();
    TempDir root;
    const auto file = root / "Notepad.txt";
    ChildProcess child({"/proc/self/exe", "--gtest_filter=NotepadHelper.EditsAndWaitsToBeKilled"},
                       {{helperVariable, file.string()}, {"PATH", "/usr/bin:/bin"}});
    ASSERT_TRUE(child.waitForOutput("edited\n", 30)) << child.output();
    // The moment the save lands, the process dies without a chance to do anything more.
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(file); }, 30));
    child.signal(SIGKILL);
    child.wait(10);
    EXPECT_EQ(readFile(file), "typed before the kill");
    for (const auto& entry : std::filesystem::directory_iterator(root.path())) {
        // No half-written temporary file is left beside it.
        const auto name = entry.path().filename().string();
        EXPECT_TRUE(name == "Notepad.txt" || name == "logs") << name;
    }
}
