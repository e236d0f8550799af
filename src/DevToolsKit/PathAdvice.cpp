#include "DevToolsKit/PathAdvice.h"

#include "DevToolsKit/PathDoctor.h"

#include <algorithm>
#include <ctime>

namespace tavrick {

namespace {

using Kind = PathAdvice::Verdict::Kind;
using Reason = PathAdvice::Reason;

constexpr const char* harmless = "Harmless: the shell skips a folder that is not there.";

PathAdvice nothing(Reason reason, std::string why, std::string ifLeft) {
    PathAdvice advice;
    advice.verdict = {Kind::nothingToDo, reason};
    advice.why = std::move(why);
    advice.ifLeft = std::move(ifLeft);
    return advice;
}

bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

std::vector<std::string> without(const std::vector<std::string>& list, const std::string& item) {
    std::vector<std::string> result;
    for (const auto& each : list) {
        if (each != item) result.push_back(each);
    }
    return result;
}

PathAdvice relative(const PathEntry& entry) {
    if (entry.path.starts_with("~")) {
        const auto pathsD = std::find_if(entry.sources.begin(), entry.sources.end(),
                                         [](const std::string& f) { return f.starts_with("/etc/paths.d/"); });
        std::string why;
        const std::string zsh =
            " zsh does not expand it when it looks up a command either: it looks for a folder named ~ inside whatever "
            "folder you are in, never your home folder. bash expands it.";
        if (pathsD != entry.sources.end()) {
            why = entry.path + " is on your path with its ~ not expanded: " + *pathsD +
                  " as written, and path_helper copies it onto the path without expanding ~." + zsh +
                  " To make it work in zsh, an administrator can replace ~ with your home folder in " + *pathsD +
                  "; Tavrick does not edit it, so there is no button here.";
        } else {
            why = entry.path +
                  " is on your path with its ~ not expanded, usually from a line like PATH=\"~/bin:$PATH\", where the "
                  "quotes stop the shell expanding it." +
                  zsh + " Writing $HOME in place of ~ in that line fixes it; Tavrick edits only lines it wrote itself, so there is no button here.";
        }
        return nothing(Reason::relativeEntry, why,
                       "In zsh, the commands in " + entry.path + " stay “not found” unless something else adds that folder; bash finds them.");
    }
    return nothing(Reason::relativeEntry,
                   "This is not a full path, so your shell searches it relative to whatever folder you are in, and a "
                   "command there runs in place of the real one. It usually comes from a line like "
                   "PATH=./node_modules/.bin:$PATH in ~/.zprofile or ~/.zshrc. Removing that line is worth doing; "
                   "Tavrick does not edit it, so there is no button here.",
                   "In any folder that has a matching subfolder, commands in it are found before the ones you meant to run.");
}

PathAdvice duplicate(const PathEntry& entry) {
    PathAdvice advice;
    advice.verdict = {Kind::duplicate, std::nullopt};
    advice.why = "Your shell searches it " + std::to_string(entry.occurrences) + " times. ";
    // Fewer declaring files than repeats: something besides them adds it as well.
    if (!entry.sources.empty() && static_cast<int>(entry.sources.size()) < entry.occurrences) {
        advice.why += PathAdvice::list(entry.sources) + " adds it and so does something else. ";
    }
    advice.why += "It stops at the first match, so the repeat costs one extra look and changes nothing.";
    advice.ifLeft = "Nothing changes: commands are found exactly as they are now. Nothing to do.";
    return advice;
}

PathAdvice systemManaged(const PathEntry& entry) {
    const auto declaredBy = [&]() -> std::optional<std::string> {
        for (const auto& file : entry.sources) {
            if (file.starts_with("/etc/paths.d/")) return file;
        }
        return std::nullopt;
    }();
    const std::string macOSWords = "Nothing to do. A missing folder on the path costs nothing, and this entry is macOS's to manage.";
    if (declaredBy && entry.facts.cameWithMacOS) {
        return nothing(Reason::systemManaged,
                       "Its file in /etc/paths.d came with macOS, not from another app: it was installed on " +
                           PathAdvice::day(*entry.facts.cameWithMacOS) +
                           " in the same second as Apple's own /etc/paths.d/10-cryptex, and is compressed the way the "
                           "macOS installer leaves its files. The folder it names does not exist yet; whatever part of "
                           "macOS uses it makes it when needed.",
                       macOSWords);
    }
    if (entry.isCryptex()) {
        std::string why = "One of macOS's cryptex folders";
        if (declaredBy) why += ", declared by Apple's own " + *declaredBy;
        why += ". It exists only while macOS has that cryptex mounted, so it comes and goes on a healthy Mac.";
        return nothing(Reason::systemManaged, why, macOSWords);
    }
    return nothing(Reason::systemManaged, "Apple's own folder. macOS installs and looks after it.", "Nothing to do; macOS manages it.");
}

PathAdvice brokenLink(const PathEntry& entry, const std::string& link, const std::string& target, const std::string& home) {
    const bool isAncestor = link != entry.path;
    std::string why = link + (isAncestor ? ", above this folder," : "") + " is a symbolic link to " + target +
                      ", which is not on disk, so this folder cannot be there until that is.";
    if (isAncestor && !PathDoctor::isShared(link, home)) {
        why += " Creating the folder would fail on the link, so there is no button. If nothing uses the link any more, "
               "delete it in Terminal (sudo rm " + PathFix::word(link) + ") and refresh; Create Folder then makes a real folder.";
    } else {
        why += " The link is not Tavrick's to change, so there is no button.";
    }
    return nothing(Reason::brokenLink, why, harmless);
}

PathAdvice driveNotConnected(const std::string& volume) {
    return nothing(Reason::driveNotConnected,
                   "The drive at " + volume +
                       " is not connected right now, so this folder is missing whether or not the tool that added it is "
                       "still installed there. Nothing is offered on a guess; the folder works again when the drive is connected.",
                   harmless);
}

PathAdvice waitingForTool(const std::string& ancestor, std::optional<double> changed) {
    std::string why = ancestor;
    if (changed) why += " (changed " + PathAdvice::day(*changed) + ")";
    why += " is still here. That is a folder a tool makes for itself, not one many tools share, so the tool that added "
           "this is most likely still installed and has not made this folder yet; it appears when the tool installs its "
           "first command. Removing the entry would make those commands “not found” later.";
    return nothing(Reason::waitingForTool, why, "Nothing to do: a missing folder on the path costs nothing, because the shell skips it.");
}

PathAdvice startupFile(const std::vector<std::string>& files, const std::optional<std::string>& stillHere, const std::string& leftover) {
    std::string why = PathAdvice::list(files) + " " + (files.size() == 1 ? "adds" : "add") + " this folder, and it is not on disk.";
    if (stillHere) {
        why += " " + *stillHere + " is still here, so if the tool is still installed there and just has not made this folder yet, keep the line.";
    }
    why += leftover;
    why += " If you no longer use what it was for, delete " +
           (files.size() == 1 ? "that line from " + files.front() : std::string("the line from each of them")) +
           "; Tavrick edits only lines it wrote itself, so there is no button here.";
    return nothing(Reason::startupFile, why, harmless);
}

PathAdvice notEnoughEvidence(const std::string& file) {
    return nothing(Reason::notEnoughEvidence,
                   file + " puts this folder on your path, but Tavrick could not read that file or check the folders "
                          "above this one, so it cannot tell whether the tool that added it is still installed. Nothing is offered on a guess.",
                   harmless);
}

PathAdvice declaredInPathsD(const PathEntry& entry, const std::string& file) {
    const auto& facts = entry.facts;
    if (!facts.declaration || facts.declaration->file != file || facts.declaration->folders().empty()) return notEnoughEvidence(file);
    const auto& declared = *facts.declaration;
    struct Group {
        std::vector<std::string> items;
        const char* one;
        const char* many;
    };
    const Group groups[] = {
        {without(declared.present(), entry.path), "which is on disk", "which are on disk"},
        {without(declared.waiting, entry.path), "whose tool's own folder is still here", "whose tools' own folders are still here"},
        {without(declared.disconnected, entry.path), "which is on a drive that is not connected", "which are on drives that are not connected"},
        {without(declared.unchecked(), entry.path),
         "which is not a full path, so Tavrick cannot look for it on disk, and a shell may be searching it",
         "which are not full paths, so Tavrick cannot look for them on disk, and a shell may be searching them"},
    };
    std::string joined;
    std::size_t others = 0;
    for (const auto& group : groups) {
        if (group.items.empty()) continue;
        others += group.items.size();
        if (!joined.empty()) joined += "; and ";
        joined += PathAdvice::list(group.items) + " " + (group.items.size() == 1 ? group.one : group.many);
    }
    if (!joined.empty()) {
        return nothing(Reason::sharedDeclaration,
                       file + " also lists " + joined + ". Deleting the file would take " + (others == 1 ? "that folder" : "those") +
                           " off your path as well, so nothing is offered; to drop just this line, edit " + file + " as an administrator.",
                       harmless);
    }
    if (facts.nearestAncestor && !facts.ancestorIsShared) return waitingForTool(*facts.nearestAncestor, facts.ancestorModified);
    if (!facts.nearestAncestor) return notEnoughEvidence(file);
    PathAdvice advice;
    advice.verdict = {Kind::removeDeclaration, std::nullopt};
    advice.why = file + " lists only folders that are gone, and the tool's own folder is gone too: the nearest one left is " +
                 *facts.nearestAncestor + ", which no single tool owns. The tool that added this was uninstalled and left the file behind.";
    advice.ifLeft = "Harmless: the shell skips a folder that is not there. Deleting the file only tidies the path.";
    advice.fix = PathFix::removeDeclaration(entry.path, file, declared.lines);
    advice.whatItChanges = "Deletes " + file + " which lists " + PathAdvice::list(declared.folders()) +
                           ". Nothing else changes. macOS asks for your password first.";
    advice.undo = PathFix::recreate(file, declared.lines);
    advice.undoNote = "puts the file back with the same lines";
    return advice;
}

PathAdvice createFolder(const PathEntry& entry, bool inStandardList) {
    PathAdvice advice;
    advice.verdict = {Kind::createFolder, std::nullopt};
    auto levels = PathDoctor::levelsToCreate(entry.path, entry.facts.nearestAncestor.value_or("/"));
    if (levels.empty()) levels.push_back(entry.path);
    if (inStandardList) {
        advice.why = entry.path +
                     " is on macOS's standard path (/etc/paths), and installers of command-line tools copy commands there "
                     "expecting it to exist. On Apple silicon it is often missing, because Homebrew uses /opt/homebrew, so "
                     "those installs fail or their commands are not found.";
    } else {
        advice.why = entry.path + " is on your path";
        if (!entry.sources.empty()) advice.why += " (from " + entry.sources.front() + ")";
        advice.why += " but not on disk. Installers of command-line tools copy commands into it expecting it to exist, so "
                      "one that writes here fails, or leaves a command the shell cannot find.";
    }
    advice.ifLeft = "Nothing breaks today. The next installer that writes there may fail, or leave a command your shell cannot find.";
    advice.whatItChanges = "Creates " + PathAdvice::list(levels) +
                           ", empty, owned by root:wheel with mode 755 like the rest of /usr. Nothing else changes, and if "
                           "the folder has appeared since this list was read, nothing is changed at all. macOS asks for your password first.";
    std::string undo = "sudo rmdir";
    for (auto it = levels.rbegin(); it != levels.rend(); ++it) undo.append(" ").append(PathFix::word(*it));
    advice.undo = undo;
    advice.undoNote = levels.size() == 1 ? "works while the folder is still empty" : "works while the folders are still empty";
    advice.fix = PathFix::createFolder(entry.path, std::move(levels));
    return advice;
}

} // namespace

const std::vector<std::string>& PathAdvice::installerFolders() {
    static const std::vector<std::string> folders{"/usr/local/bin", "/usr/local/sbin"};
    return folders;
}

std::string PathAdvice::list(const std::vector<std::string>& items) {
    std::string text;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0) text += i + 1 == items.size() ? " and " : ", ";
        text += items[i];
    }
    return text;
}

std::string PathAdvice::day(double date) {
    auto seconds = static_cast<std::time_t>(date);
    std::tm local{};
    localtime_r(&seconds, &local);
    static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    return std::string(months[local.tm_mon]) + " " + std::to_string(local.tm_mday) + ", " + std::to_string(local.tm_year + 1900);
}

bool PathAdvice::isProblem(const PathAdvice& advice) {
    switch (advice.verdict.kind) {
    case Kind::createFolder:
    case Kind::removeDeclaration:
    case Kind::removeFromTavrickBlock: return true;
    default: return advice.verdict.reason == Reason::relativeEntry;
    }
}

PathAdvice PathAdvice::advise(const PathEntry& entry, const std::string& home) {
    const auto& facts = entry.facts;
    if (entry.isRelative()) return relative(entry);
    if (entry.exists) {
        if (entry.occurrences < 2) {
            PathAdvice advice;
            advice.verdict = {Kind::healthy, std::nullopt};
            advice.why = "On disk, and searched once.";
            advice.ifLeft = "Nothing changes: commands are found exactly as they are now. Nothing to do.";
            return advice;
        }
        return duplicate(entry);
    }
    if (entry.isSystemManaged()) return systemManaged(entry);
    if (facts.addedByTavrick) {
        PathAdvice advice;
        advice.verdict = {Kind::removeFromTavrickBlock, std::nullopt};
        advice.why = "You added this with Add a Folder…, and the folder is no longer on disk. Remove takes it out of "
                     "Tavrick's marked block in ~/.zprofile.";
        advice.ifLeft = harmless;
        advice.whatItChanges = "Rewrites only Tavrick's block in ~/.zprofile; the rest of the file stays as it is. No password: the file is yours.";
        advice.undoNote = "Add a Folder… puts it back once the folder is on disk again.";
        return advice;
    }
    if (facts.brokenLink && facts.brokenLinkTarget) return brokenLink(entry, *facts.brokenLink, *facts.brokenLinkTarget, home);
    if (auto volume = PathDoctor::disconnectedVolume(entry.path, facts.nearestAncestor)) return driveNotConnected(*volume);

    const auto& files = entry.sources;
    for (const auto& file : files) {
        if (file.starts_with("/etc/paths.d/")) return declaredInPathsD(entry, file);
    }
    const bool inStandardList = contains(files, "/etc/paths");
    const auto startupOnly = without(files, "/etc/paths");
    if (!files.empty() && !inStandardList) {
        const auto& a = facts.nearestAncestor;
        if (!a || facts.ancestorIsShared) return startupFile(files, std::nullopt, "");
        return startupFile(files, a, "");
    }
    if (contains(installerFolders(), entry.path)) return createFolder(entry, inStandardList);
    std::string leftover;
    if (facts.nearestAncestor && facts.ancestorIsShared) {
        leftover = " Nothing of what it was for is left: the nearest folder still on disk is " + *facts.nearestAncestor +
                   ", which no single tool owns, so it is most likely left over from something uninstalled.";
    }
    if (startupOnly.empty()) {
        if (inStandardList) {
            return nothing(Reason::standardList,
                           "macOS's own /etc/paths lists this folder, and it is not on disk. Tavrick leaves that file as macOS ships it.",
                           harmless);
        }
        return nothing(Reason::undeclared,
                       "Tavrick found no line that names this folder in your startup files or in /etc/paths.d. Something "
                       "added it while your shell started: often a line in ~/.zprofile or ~/.zshrc that runs or reads another "
                       "file, such as a version manager's eval or an installer's env script, or one that builds the folder "
                       "from a variable. If you no longer use what it was for, taking that line out is the fix." + leftover,
                       harmless);
    }
    return startupFile(startupOnly, std::nullopt, leftover);
}

} // namespace tavrick
