#include "CoreKit/ManualScheduler.h"
#include "DevToolsKit/ManagedPathBlock.h"
#include "DevToolsKit/PathDoctor.h"
#include "DevToolsKit/PrivilegedCommand.h"
#include "Platform/Linux/LinuxShellRunner.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

TEST(PathDoctor, FencedAndSplit) {
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"motd\n__TAVRICK_PATH__/a:/b__TAVRICK_PATH__", "/a:/b"},
        // A startup file that prints the marker itself sits outside the first and the last.
        {"__TAVRICK_PATH__/a::/b__TAVRICK_PATH__bye", "/a::/b"},
        {"__TAVRICK_PATH__only one", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [output, value] : cases) EXPECT_EQ(PathDoctor::fenced(output), value) << output;
    EXPECT_EQ(PathDoctor::split(":/a::/b:"), (std::vector<std::string>{"/a", "/b"}));
    EXPECT_EQ(PathDoctor::chooseShell("", "/bin/bash"), "/bin/bash");
    EXPECT_EQ(PathDoctor::chooseShell(nullptr, nullptr), "/bin/zsh");
    EXPECT_EQ(PathDoctor::chooseShell("/usr/bin/fish", "/bin/bash"), "/usr/bin/fish");
}

TEST(PathDoctor, ShellFailuresAreNotedAndGiveNothing) {
    TempDir root;
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(root / "logs", scheduler);
    const std::pair<ShellRun, std::string> cases[] = {
        {{ShellRun::End::timedOut, 0, ""}, "the login shell did not answer within 5s"},
        {{ShellRun::End::couldNotStart, 0, ""}, "could not run /bin/zsh"},
        {{ShellRun::End::exited, 1, "nothing useful"}, "the shell printed no path between the markers"},
    };
    for (const auto& [result, note] : cases) {
        auto runner = [&](const std::vector<std::string>&, double) { return result; };
        EXPECT_EQ(PathDoctor::loginShellPath(runner, "/bin/zsh", 5, log.get()), std::nullopt);
        log->flush();
        EXPECT_NE(log->contents().find(note), std::string::npos) << note;
    }
}

// The real shells read a temporary home's startup files; noise they print does not reach the
// answer, and one that hangs is ended with everything it started.
TEST(PathDoctor, RealZshAndBashLoginShells) {
    TempDir home;
    ::setenv("HOME", home.path().c_str(), 1);
    writeFile(home / ".zprofile", "echo hello from zprofile\nexport PATH=\"$HOME/tools/bin:$PATH\"\n");
    writeFile(home / ".bash_profile", "echo hello from bash\nPATH=/opt/bashonly:$PATH\n");
    for (const char* shell : {"/usr/bin/zsh", "/bin/bash"}) {
        auto path = PathDoctor::loginShellPath(LinuxShellRunner::run, shell, 10, nullptr);
        ASSERT_TRUE(path) << shell;
        auto expected = std::string(shell) == "/bin/bash" ? "/opt/bashonly" : (home.path() / "tools/bin").string();
        EXPECT_EQ(path->front(), expected) << shell;
    }

    // A background child that keeps the output open does not hold the answer back.
    writeFile(home / ".zprofile", "sleep 30 &\n");
    auto quick = std::chrono::steady_clock::now();
    EXPECT_TRUE(PathDoctor::loginShellPath(LinuxShellRunner::run, "/usr/bin/zsh", 10, nullptr));
    EXPECT_LT(std::chrono::steady_clock::now() - quick, std::chrono::seconds(5));

    writeFile(home / ".zprofile", "sleep 60 &\nsleep 60\n");
    auto started = std::chrono::steady_clock::now();
    auto hung = LinuxShellRunner::run(PathDoctor::shellArguments("/usr/bin/zsh"), 0.5);
    EXPECT_EQ(hung.end, ShellRun::End::timedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));

    writeFile(home / ".zprofile", "head -c 6000000 /dev/zero | tr '\\0' x\n");
    auto loud = LinuxShellRunner::run(PathDoctor::shellArguments("/usr/bin/zsh"), 10);
    EXPECT_EQ(loud.output.size(), LinuxShellRunner::outputCap);
    EXPECT_EQ(LinuxShellRunner::run({"/nonexistent/shell"}, 1).end, ShellRun::End::couldNotStart);
    ::unsetenv("HOME");
}

TEST(PathDoctor, StartupFileDeclarations) {
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"export PATH=\"$HOME/bin:$PATH\"", {"/h/bin"}},
        {"PATH=${HOME}/a:/opt/b:$PATH # comment", {"/h/a", "/opt/b"}},
        {"export PATH=$HOMEBREW/bin:$PATH", {"$HOMEBREW/bin"}},  // not $HOME
        {"path=(~/c /opt/d $path)", {"/h/c", "/opt/d"}},
        {"path+=('/opt/e')", {"/opt/e"}},
        {"# export PATH=/commented:$PATH", {}},
        {"MANPATH=/opt/man:$MANPATH", {}},
        {"eval \"$(brew shellenv)\"", {}},
    };
    for (const auto& [line, folders] : cases) EXPECT_EQ(PathDoctor::foldersInStartupFile(line, "/h"), folders) << line;
    EXPECT_EQ(PathDoctor::levelsToCreate("/usr/local/a/b", "/usr/local"), (std::vector<std::string>{"/usr/local/a", "/usr/local/a/b"}));
    EXPECT_EQ(PathDoctor::disconnectedVolume("/Volumes/Data/bin", std::string("/Volumes")), "/Volumes/Data");
    EXPECT_EQ(PathDoctor::disconnectedVolume("/Volumes/Data/bin", std::string("/Volumes/Data")), std::nullopt);
    EXPECT_EQ(PathDoctor::disconnectedVolume("/media/u/Disk/bin", std::string("/media/u")), "/media/u/Disk");
    EXPECT_TRUE(PathDoctor::isShared("/h/.local/share", "/h"));
    EXPECT_FALSE(PathDoctor::isShared("/h/.cargo", "/h"));
}

TEST(ManagedBlock, OnlyTheMarkedLinesEverChange) {
    const std::string block = "# >>> added by Tavrick >>>\n# Remove this block, or use Tavrick's Developer Tools, to undo.\n"
                              "export PATH=\"/x:$PATH\"\n# <<< added by Tavrick <<<\n";
    struct Case { std::string before; std::vector<std::string> folders; std::optional<std::string> after; };
    const Case cases[] = {
        {"", {"/x"}, block},
        {"alias ll='ls -l'", {"/x"}, "alias ll='ls -l'\n\n" + block},
        {"a\n" + block + "b\n", {"/y", "/my dir"},
         "a\n# >>> added by Tavrick >>>\n# Remove this block, or use Tavrick's Developer Tools, to undo.\n"
         "export PATH=\"/y:$PATH\"\nexport PATH=\"/my dir:$PATH\"\n# <<< added by Tavrick <<<\nb\n"},
        {"a\n" + block + "b\n", {}, "a\nb\n"},
        {"a\n" + block + "b\n" + block + "c", {"/x"}, "a\n" + block + "b\nc"},  // a second block goes
        {"a\r\n", {"/x"}, "a\r\n\r\n" + std::string("# >>> added by Tavrick >>>\r\n# Remove this block, or use Tavrick's "
                                                   "Developer Tools, to undo.\r\nexport PATH=\"/x:$PATH\"\r\n# <<< added by Tavrick <<<\r\n")},
        {"a\n# >>> added by Tavrick >>>\nexport PATH=\"/x:$PATH\"\nmine\n", {"/y"}, std::nullopt},  // half-written
        {"keep\n", {}, "keep\n"},
    };
    for (const auto& c : cases) {
        auto after = ManagedPathBlock::apply(c.folders, c.before);
        EXPECT_EQ(after, c.after) << c.before;
        if (after && !c.folders.empty()) {
            EXPECT_EQ(ManagedPathBlock::folders(*after), c.folders);
        }
    }
    // Writing twice changes nothing the second time.
    auto once = *ManagedPathBlock::apply({"/x"}, "top\n");
    EXPECT_EQ(ManagedPathBlock::apply({"/x"}, once), once);
}

TEST(ManagedBlock, SetFoldersWritesAtomicallyAndLeavesUnreadableFilesAlone) {
    TempDir home;
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(home / "logs", scheduler);
    auto profile = ManagedPathBlock::profileURL(home.path());
    EXPECT_TRUE(ManagedPathBlock::setFolders({"/opt/a"}, profile, log.get()));
    EXPECT_EQ(ManagedPathBlock::folders(readFile(profile)), (std::vector<std::string>{"/opt/a"}));
    const std::string broken = "mine\n# >>> added by Tavrick >>>\nexport PATH=\"/opt/a:$PATH\"\n";
    writeFile(profile, broken);
    EXPECT_FALSE(ManagedPathBlock::setFolders({"/opt/b"}, profile, log.get()));
    EXPECT_EQ(readFile(profile), broken);
    // A folder where the file should be cannot be read as one: nothing is written over it.
    auto folder = home / "dir-profile";
    std::filesystem::create_directory(folder);
    EXPECT_FALSE(ManagedPathBlock::setFolders({"/opt/b"}, folder, log.get()));
    EXPECT_TRUE(std::filesystem::is_directory(folder));
    log->flush();
    auto notes = log->contents();
    EXPECT_NE(notes.find("wrote 1 folder(s) into " + profile.string()), std::string::npos);
    EXPECT_NE(notes.find("could not write " + profile.string() + ": its Tavrick block has a start marker and no end marker"), std::string::npos);
    EXPECT_NE(notes.find("could not write " + folder.string() + ": it could not be read"), std::string::npos);
}

TEST(PathFixes, WordsCommandsAndRefusals) {
    const std::pair<std::string, std::string> words[] = {
        {"/usr/local/bin", "/usr/local/bin"}, {"/my dir", "'/my dir'"}, {"it's", "'it'\\''s'"}, {"", "''"}, {"a$b", "'a$b'"}};
    for (const auto& [text, word] : words) EXPECT_EQ(PathFix::word(text), word);
    EXPECT_EQ(PathFix::createFolder("/usr/local/bin", {"/usr/local/bin"}).command(),
              "mkdir /usr/local/bin && chown root:wheel /usr/local/bin && chmod 755 /usr/local/bin");
    EXPECT_EQ(PathFix::createFolder("/usr/local/a/b", {"/usr/local/a", "/usr/local/a/b"}).command(),
              "test ! -e /usr/local/a/b && mkdir -p /usr/local/a/b && chown root:wheel /usr/local/a && chmod 755 "
              "/usr/local/a && chown root:wheel /usr/local/a/b && chmod 755 /usr/local/a/b");
    auto removal = PathFix::removeDeclaration("/opt/x/bin", "/etc/paths.d/x", {"/opt/x/bin", "/opt/x/sbin"}).command();
    EXPECT_EQ(removal, "printf '%s' '/opt/x/bin\n/opt/x/sbin\n' | cmp -s - /etc/paths.d/x && rm /etc/paths.d/x");
    EXPECT_EQ(PrivilegedCommand::refusal(removal), std::nullopt);
    EXPECT_EQ(PrivilegedCommand::refusal("rm \"x\""), "Refused a command containing a quote.");
    EXPECT_EQ(PrivilegedCommand::refusal("rm x\\y"), "Refused a command containing a backslash.");
    int prompts = 0;
    auto runner = [&](const std::vector<std::string>&, double) {
        ++prompts;
        return ShellRun{ShellRun::End::exited, 126, ""};
    };
    EXPECT_EQ(PrivilegedCommand::run("rm \"x\"", {"pkexec"}, runner, nullptr).kind, PrivilegedCommand::Result::Kind::failed);
    EXPECT_EQ(prompts, 0);
    EXPECT_EQ(PrivilegedCommand::run("rm x", {"pkexec"}, runner, nullptr).kind, PrivilegedCommand::Result::Kind::cancelled);
}

} // namespace
