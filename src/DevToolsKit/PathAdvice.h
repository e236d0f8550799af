#pragma once

#include "DevToolsKit/PathModel.h"

#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// A verdict on one search-path entry, in plain words. No button is offered on a guess: a missing
// folder on the path costs nothing, and deleting the wrong line costs a working tool.
struct PathAdvice {
    enum class Reason {
        systemManaged, waitingForTool, sharedDeclaration, startupFile, standardList, undeclared,
        notEnoughEvidence, driveNotConnected, brokenLink, relativeEntry,
    };
    struct Verdict {
        enum class Kind { nothingToDo, createFolder, removeDeclaration, removeFromTavrickBlock, duplicate, healthy };
        Kind kind = Kind::healthy;
        std::optional<Reason> reason;  // nothingToDo only
        bool operator==(const Verdict&) const = default;
    };

    Verdict verdict;
    std::string why;
    std::string ifLeft;
    std::optional<PathFix> fix;
    std::optional<std::string> whatItChanges;
    std::optional<std::string> undo;
    std::optional<std::string> undoNote;
    bool operator==(const PathAdvice&) const = default;

    // `home` tells a folder many tools share from a tool's own.
    static PathAdvice advise(const PathEntry& entry, const std::string& home);
    static bool isProblem(const PathAdvice& advice);

    static const std::vector<std::string>& installerFolders();
    // "a", "a and b", "a, b and c".
    static std::string list(const std::vector<std::string>& items);
    // A medium date without the time, "Mar 4, 2024", in local time.
    static std::string day(double date);
};

// The heading over the list and the labels of the rows Tavrick wrote.
namespace PathTexts {
constexpr const char* heading = "These are the folders your shell searches, in order, and the file that put each one there.";
constexpr const char* managedMissing = "added by Tavrick; Remove takes it out of that block in ~/.zprofile";
constexpr const char* managedPresent = "added by Tavrick in ~/.zprofile";
} // namespace PathTexts

} // namespace tavrick
