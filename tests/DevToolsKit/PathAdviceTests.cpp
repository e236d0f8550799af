#include "DevToolsKit/PathAdvice.h"
#include "DevToolsKit/PathDoctor.h"

#include <gtest/gtest.h>

#include <map>

using namespace tavrick;
using Kind = PathAdvice::Verdict::Kind;
using Reason = PathAdvice::Reason;

namespace {

const std::string home = "/Users/ada";

PathEntry entry(std::string path, std::vector<std::string> sources = {}, bool exists = false, int occurrences = 1) {
    PathEntry e;
    e.path = std::move(path);
    e.sources = std::move(sources);
    e.exists = exists;
    e.occurrences = occurrences;
    return e;
}

PathEntry withAncestor(PathEntry e, std::optional<std::string> ancestor) {
    e.facts.nearestAncestor = ancestor;
    e.facts.ancestorIsShared = ancestor && PathDoctor::isShared(*ancestor, home);
    return e;
}

PathEntry declaredBy(PathEntry e, std::vector<std::string> lines, std::vector<std::string> missing,
                     std::vector<std::string> waiting = {}, std::vector<std::string> disconnected = {}) {
    e.facts.declaration = PathDeclaration{e.sources.front(), std::move(lines), std::nullopt, "root", std::move(missing),
                                          std::move(waiting), std::move(disconnected)};
    return e;
}

TEST(PathAdvice, EachLeafOfTheTree) {
    auto managed = withAncestor(entry("/opt/gone/bin", {home + "/.zprofile"}), "/opt");
    managed.facts.addedByTavrick = true;
    auto link = withAncestor(entry("/opt/tool/bin", {home + "/.zshrc"}), "/opt");
    link.facts.brokenLink = "/opt/tool";
    link.facts.brokenLinkTarget = "/Volumes/Old/tool";
    auto cryptex = entry("/System/Cryptexes/App/usr/bin", {"/etc/paths.d/10-cryptex"});
    auto fromMacOS = entry("/usr/local/new/bin", {"/etc/paths.d/50-new"});
    fromMacOS.facts.cameWithMacOS = 1700000000;

    struct Case { PathEntry e; Kind kind; std::optional<Reason> reason; bool problem; };
    const Case cases[] = {
        {entry("/usr/bin", {"/etc/paths"}, true), Kind::healthy, std::nullopt, false},
        {entry("/usr/bin", {"/etc/paths"}, true, 2), Kind::duplicate, std::nullopt, false},
        {entry("~/bin", {home + "/.zprofile"}), Kind::nothingToDo, Reason::relativeEntry, true},
        {entry("node_modules/.bin"), Kind::nothingToDo, Reason::relativeEntry, true},
        {cryptex, Kind::nothingToDo, Reason::systemManaged, false},
        {fromMacOS, Kind::nothingToDo, Reason::systemManaged, false},
        {managed, Kind::removeFromTavrickBlock, std::nullopt, true},
        {link, Kind::nothingToDo, Reason::brokenLink, false},
        {withAncestor(entry("/Volumes/Data/bin", {"/etc/paths.d/data"}), "/Volumes"), Kind::nothingToDo, Reason::driveNotConnected, false},
        {withAncestor(entry("/opt/x/bin", {"/etc/paths.d/x"}), "/opt"), Kind::nothingToDo, Reason::notEnoughEvidence, false},
        {declaredBy(withAncestor(entry("/opt/x/bin", {"/etc/paths.d/x"}), "/opt"), {"/opt/x/bin", "/opt/y/bin"}, {"/opt/x/bin", "/opt/y/bin"}),
         Kind::removeDeclaration, std::nullopt, true},
        {declaredBy(withAncestor(entry("/opt/x/bin", {"/etc/paths.d/x"}), "/opt"), {"/opt/x/bin", "/usr/bin"}, {"/opt/x/bin"}),
         Kind::nothingToDo, Reason::sharedDeclaration, false},
        {declaredBy(withAncestor(entry("/opt/x/bin", {"/etc/paths.d/x"}), "/opt/x"), {"/opt/x/bin"}, {"/opt/x/bin"}, {"/opt/x/bin"}),
         Kind::nothingToDo, Reason::waitingForTool, false},
        {withAncestor(entry("/opt/x/bin", {home + "/.zprofile"}), "/opt"), Kind::nothingToDo, Reason::startupFile, false},
        {withAncestor(entry("/usr/local/bin", {"/etc/paths"}), "/usr/local"), Kind::createFolder, std::nullopt, true},
        {withAncestor(entry("/usr/local/sbin"), "/usr/local"), Kind::createFolder, std::nullopt, true},
        {withAncestor(entry("/usr/games/x", {"/etc/paths"}), "/usr"), Kind::nothingToDo, Reason::standardList, false},
        {withAncestor(entry("/opt/gone/bin"), "/opt"), Kind::nothingToDo, Reason::undeclared, false},
    };
    for (const auto& c : cases) {
        auto advice = PathAdvice::advise(c.e, home);
        EXPECT_EQ(advice.verdict.kind, c.kind) << c.e.path;
        EXPECT_EQ(advice.verdict.reason, c.reason) << c.e.path;
        EXPECT_EQ(PathAdvice::isProblem(advice), c.problem) << c.e.path;
        EXPECT_EQ(advice.fix.has_value(), c.kind == Kind::createFolder || c.kind == Kind::removeDeclaration) << c.e.path;
    }
}

TEST(PathAdvice, ExactWords) {
    auto standard = PathAdvice::advise(withAncestor(entry("/usr/local/bin", {"/etc/paths"}), "/usr/local"), home);
    EXPECT_EQ(standard.why, "/usr/local/bin is on macOS's standard path (/etc/paths), and installers of command-line tools copy "
                            "commands there expecting it to exist. On Apple silicon it is often missing, because Homebrew uses "
                            "/opt/homebrew, so those installs fail or their commands are not found.");
    EXPECT_EQ(standard.undo, "sudo rmdir /usr/local/bin");
    EXPECT_EQ(standard.undoNote, "works while the folder is still empty");

    auto deep = PathAdvice::advise(withAncestor(entry("/usr/local/sbin"), "/usr"), home);
    EXPECT_EQ(deep.undo, "sudo rmdir /usr/local/sbin /usr/local");
    EXPECT_EQ(deep.whatItChanges.value().substr(0, 38), "Creates /usr/local and /usr/local/sbin");
    EXPECT_EQ(deep.fix->command().substr(0, 30), "test ! -e /usr/local/sbin && m");

    auto shared = PathAdvice::advise(declaredBy(withAncestor(entry("/opt/x/bin", {"/etc/paths.d/x"}), "/opt"),
                                                {"/opt/x/bin", "/usr/bin", "/sbin", "./rel"}, {"/opt/x/bin"}), home);
    EXPECT_EQ(shared.why, "/etc/paths.d/x also lists /usr/bin and /sbin which are on disk; and ./rel which is not a full path, "
                          "so Tavrick cannot look for it on disk, and a shell may be searching it. Deleting the file would take "
                          "those off your path as well, so nothing is offered; to drop just this line, edit /etc/paths.d/x as an administrator.");

    auto removal = PathAdvice::advise(declaredBy(withAncestor(entry("/opt/x/bin", {"/etc/paths.d/x"}), "/opt"),
                                                 {"/opt/x/bin", "/opt/x/sbin"}, {"/opt/x/bin", "/opt/x/sbin"}), home);
    EXPECT_EQ(removal.whatItChanges, "Deletes /etc/paths.d/x which lists /opt/x/bin and /opt/x/sbin. Nothing else changes. macOS asks for your password first.");
    EXPECT_EQ(removal.undo, "printf '%s' '/opt/x/bin\n/opt/x/sbin\n' > /etc/paths.d/x");

    auto tilde = PathAdvice::advise(entry("~/bin", {home + "/.zprofile"}), home);
    EXPECT_NE(tilde.why.find(" Writing $HOME in place of ~ in that line fixes it;"), std::string::npos);
    EXPECT_EQ(tilde.ifLeft, "In zsh, the commands in ~/bin stay “not found” unless something else adds that folder; bash finds them.");
    EXPECT_FALSE(tilde.fix);

    auto two = PathAdvice::advise(withAncestor(entry("/opt/x/bin", {home + "/.zprofile", home + "/.zshrc"}), "/opt/x"), home);
    EXPECT_EQ(two.why, "/Users/ada/.zprofile and /Users/ada/.zshrc add this folder, and it is not on disk. /opt/x is still here, "
                       "so if the tool is still installed there and just has not made this folder yet, keep the line. If you no "
                       "longer use what it was for, delete the line from each of them; Tavrick edits only lines it wrote itself, so there is no button here.");

    auto repeated = PathAdvice::advise(entry("/usr/bin", {"/etc/paths"}, true, 3), home);
    EXPECT_EQ(repeated.why, "Your shell searches it 3 times. /etc/paths adds it and so does something else. It stops at the first "
                            "match, so the repeat costs one extra look and changes nothing.");

    auto leftover = PathAdvice::advise(withAncestor(entry("/opt/gone/bin"), "/opt"), home);
    EXPECT_TRUE(leftover.why.ends_with(" Nothing of what it was for is left: the nearest folder still on disk is /opt, which no "
                                       "single tool owns, so it is most likely left over from something uninstalled."));
    EXPECT_EQ(leftover.ifLeft, "Harmless: the shell skips a folder that is not there.");
    EXPECT_EQ(PathAdvice::list({"a", "b", "c"}), "a, b and c");
}

// The doctor's facts from a fake disk feed the advice end to end.
TEST(PathAdvice, FactsFromAFakeDisk) {
    std::map<std::string, std::string> files{
        {"/etc/paths", "/usr/bin\n/usr/local/bin\n"},
        {"/etc/paths.d/old", "/opt/old/bin\n"},
        {home + "/.zprofile", "export PATH=\"$HOME/.cargo/bin:$PATH\"\n"},
    };
    std::set<std::string> folders{"/", "/usr", "/usr/bin", "/usr/local", "/opt", "/Users", home, home + "/.cargo"};
    PathDisk disk{
        .exists = [&](const std::string& p) { return folders.contains(p) || files.contains(p); },
        .read = [&](const std::string& p) -> std::optional<std::string> {
            if (auto it = files.find(p); it != files.end()) return it->second;
            return std::nullopt;
        },
        .created = [](const std::string&) { return std::optional<double>(); },
        .modified = [](const std::string&) { return std::optional<double>(1700000000.0); },
        .owner = [](const std::string&) { return std::optional<std::string>("root"); },
        .linkDestination = [](const std::string&) { return std::optional<std::string>(); },
        .compressed = [](const std::string&) { return false; },
        .list = [](const std::string&) { return std::vector<std::string>{"old"}; },
    };
    auto path = std::vector<std::string>{home + "/.cargo/bin", "/usr/bin", "/usr/local/bin", "/opt/old/bin", "/usr/bin"};
    auto entries = PathDoctor::withFacts(PathDoctor::entries(path, PathDoctor::declarations(home, disk), disk.exists), {}, home, disk);
    ASSERT_EQ(entries.size(), 4u);
    std::vector<Kind> kinds;
    for (const auto& e : entries) kinds.push_back(PathAdvice::advise(e, home).verdict.kind);
    EXPECT_EQ(kinds, (std::vector<Kind>{Kind::nothingToDo, Kind::duplicate, Kind::createFolder, Kind::removeDeclaration}));
    EXPECT_EQ(PathAdvice::advise(entries[0], home).verdict.reason, Reason::startupFile);
    EXPECT_EQ(entries[0].facts.nearestAncestor, home + "/.cargo");
    EXPECT_EQ(entries[1].occurrences, 2);
    EXPECT_EQ(entries[3].sourceLabel(), "/etc/paths.d/old");
    EXPECT_EQ(PathEntry{}.sourceLabel(), "not declared in a startup file");
}

} // namespace
