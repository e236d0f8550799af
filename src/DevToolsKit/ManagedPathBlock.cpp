#include "DevToolsKit/ManagedPathBlock.h"

#include "CoreKit/FileIO.h"

#include <cerrno>
#include <cstring>

namespace tavrick::ManagedPathBlock {

namespace {

struct Line {
    std::size_t start = 0;
    std::size_t end = 0;      // after the line end
    std::string_view body;    // without "\n" or "\r\n"
};

std::vector<Line> lines(std::string_view text) {
    std::vector<Line> result;
    std::size_t at = 0;
    while (at < text.size()) {
        auto newline = text.find('\n', at);
        std::size_t end = newline == std::string_view::npos ? text.size() : newline + 1;
        auto body = text.substr(at, (newline == std::string_view::npos ? text.size() : newline) - at);
        if (!body.empty() && body.back() == '\r') body.remove_suffix(1);
        result.push_back({at, end, body});
        at = end;
    }
    return result;
}

struct Block {
    std::size_t start = 0;
    std::size_t end = 0;
    std::string lineEnd;
};

// Every complete block; `open` is set when a begin marker has no end after it.
std::vector<Block> blocks(std::string_view text, bool& open) {
    std::vector<Block> found;
    open = false;
    std::optional<Line> begin;
    for (const auto& line : lines(text)) {
        if (line.body == beginMarker) {
            if (begin) {
                open = true;  // two begins in a row: the first was never closed
                return found;
            }
            begin = line;
        } else if (line.body == endMarker && begin) {
            auto ending = text.substr(begin->start + begin->body.size(), begin->end - begin->start - begin->body.size());
            found.push_back({begin->start, line.end, ending.empty() ? std::string("\n") : std::string(ending)});
            begin.reset();
        }
    }
    open = begin.has_value();
    return found;
}

} // namespace

std::string render(const std::vector<std::string>& folders, std::string_view lineEnd) {
    std::string text;
    text += beginMarker;
    text += lineEnd;
    text += "# Remove this block, or use Tavrick's Developer Tools, to undo.";
    for (const auto& folder : folders) {
        text += lineEnd;
        text += "export PATH=\"" + folder + ":$PATH\"";
    }
    text += lineEnd;
    text += endMarker;
    return text;
}

std::vector<std::string> folders(std::string_view text) {
    std::vector<std::string> result;
    bool inside = false;
    constexpr std::string_view prefix = "export PATH=\"";
    constexpr std::string_view suffix = ":$PATH\"";
    for (const auto& line : lines(text)) {
        if (line.body == beginMarker) {
            inside = true;
        } else if (line.body == endMarker) {
            inside = false;
        } else if (inside && line.body.starts_with(prefix) && line.body.ends_with(suffix) &&
                   line.body.size() > prefix.size() + suffix.size()) {
            result.emplace_back(line.body.substr(prefix.size(), line.body.size() - prefix.size() - suffix.size()));
        }
    }
    return result;
}

std::optional<std::string> apply(const std::vector<std::string>& wanted, std::string_view text, std::string* problem) {
    bool open = false;
    auto found = blocks(text, open);
    if (open) {
        if (problem) *problem = "its Tavrick block has a start marker and no end marker, so it was left as it is";
        return std::nullopt;
    }
    if (found.empty()) {
        if (wanted.empty()) return std::string(text);
        std::string lineEnd = text.find("\r\n") != std::string_view::npos ? "\r\n" : "\n";
        std::string result(text);
        if (!result.empty()) {
            if (result.back() != '\n') result += lineEnd;
            result += lineEnd;
        }
        return result + render(wanted, lineEnd) + lineEnd;
    }
    std::string result;
    std::size_t at = 0;
    for (std::size_t i = 0; i < found.size(); ++i) {
        const auto& block = found[i];
        result.append(text.substr(at, block.start - at));
        if (i == 0 && !wanted.empty()) {
            result += render(wanted, block.lineEnd);
            // Keep whatever ended the old end marker's line: a line end, or nothing at the end of
            // the file.
            auto old = text.substr(block.start, block.end - block.start);
            if (old.ends_with("\n")) result += block.lineEnd;
        }
        at = block.end;
    }
    result.append(text.substr(at));
    return result;
}

bool setFolders(const std::vector<std::string>& wanted, const std::filesystem::path& file, DiagnosticLog* log) {
    auto note = [log](const std::string& message) {
        if (log) log->note("path", message);
    };
    int error = 0;
    auto current = FileIO::readAll(file, error);
    if (!current && error != ENOENT) {
        note("could not write " + file.string() + ": it could not be read (" + std::strerror(error) + ")");
        return false;
    }
    std::string problem;
    auto next = apply(wanted, current.value_or(""), &problem);
    if (!next) {
        note("could not write " + file.string() + ": " + problem);
        return false;
    }
    if (current && *next == *current) {
        note("wrote " + std::to_string(wanted.size()) + " folder(s) into " + file.string());
        return true;
    }
    if (auto failure = FileIO::writeAtomically(file, *next, 0644)) {
        note("could not write " + file.string() + ": could not " + failure->step + " it (" + std::strerror(failure->error) + ")");
        return false;
    }
    note("wrote " + std::to_string(wanted.size()) + " folder(s) into " + file.string());
    return true;
}

std::filesystem::path profileURL(const std::filesystem::path& home) { return home / ".zprofile"; }

} // namespace ManagedPathBlock
