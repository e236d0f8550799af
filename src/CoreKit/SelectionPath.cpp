#include "CoreKit/SelectionPath.h"

#include "CoreKit/UnicodeText.h"

#include <curl/curl.h>

#include <filesystem>
#include <memory>

namespace tavrick::SelectionPath {

namespace {

constexpr std::string_view wrappers = "\"'`";
constexpr std::string_view sentenceEnders = ".,;:!?";
constexpr std::string_view shellEscaped = " \\'\"`()[]{}&;|<>$*?!#~";

char openerOf(char closing) {
    switch (closing) {
    case ')': return '(';
    case ']': return '[';
    case '}': return '{';
    case '>': return '<';
    default: return 0;
    }
}

bool tooLong(std::string_view text) { return UnicodeText::characterCount(text, maxLength) > maxLength; }

std::string unwrapped(std::string text) {
    if (text.size() >= 2 && text.front() == text.back() && wrappers.find(text.front()) != std::string_view::npos)
        return text.substr(1, text.size() - 2);
    return text;
}

std::string withoutTrailingPunctuation(std::string text) {
    while (!text.empty()) {
        char last = text.back();
        if (sentenceEnders.find(last) != std::string_view::npos) {
            text.pop_back();
            continue;
        }
        // A closing bracket counts as punctuation only when its partner is not in the text, so
        // "/tmp/a (1)" keeps its bracket and "(see /tmp/a)" loses it.
        if (char opener = openerOf(last); opener && text.find(opener) == std::string::npos) {
            text.pop_back();
            continue;
        }
        break;
    }
    return text;
}

std::string fileURLPath(std::string text) {
    if (text.rfind("file://", 0) != 0) return text;
    struct Deleter {
        void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
    };
    std::unique_ptr<CURLU, Deleter> handle(curl_url());
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return text;
    char* path = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_PATH, &path, CURLU_URLDECODE) != CURLUE_OK || !path) return text;
    std::string decoded(path);
    curl_free(path);
    return decoded;
}

std::string unescaped(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size() && shellEscaped.find(text[i + 1]) != std::string_view::npos) {
            out.push_back(text[++i]);
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::string expandingTilde(std::string text, const std::string& home) {
    if (text == "~") return home;
    if (text.rfind("~/", 0) == 0) {
        std::string base = home;
        while (base.size() > 1 && base.back() == '/') base.pop_back();
        return base + text.substr(1);
    }
    return text;
}

} // namespace

std::optional<std::string> resolve(std::string_view text, const std::string& home) {
    std::string candidate(UnicodeText::trimmed(text));
    if (candidate.empty() || tooLong(candidate)) return std::nullopt;
    if (candidate.find_first_of("\n\r") != std::string::npos) return std::nullopt;
    candidate = unwrapped(std::move(candidate));
    candidate = withoutTrailingPunctuation(std::move(candidate));
    candidate = fileURLPath(std::move(candidate));
    candidate = unescaped(candidate);
    candidate = expandingTilde(std::move(candidate), home);
    // Only absolute paths count: a bare word must not open anything.
    if (candidate.empty() || candidate.front() != '/') return std::nullopt;
    if (tooLong(candidate)) return std::nullopt;
    return candidate;
}

std::optional<Kind> kindOnDisk(const std::string& path) {
    std::error_code error;
    auto status = std::filesystem::status(path, error);
    if (error || !std::filesystem::exists(status)) return std::nullopt;
    return std::filesystem::is_directory(status) ? Kind::folder : Kind::file;
}

std::optional<Target> target(std::string_view text, const std::string& home,
                             const std::function<std::optional<Kind>(const std::string&)>& kind) {
    auto path = resolve(text, home);
    if (!path || !kind) return std::nullopt;
    auto found = kind(*path);
    if (!found) return std::nullopt;
    return Target{*path, *found};
}

} // namespace tavrick::SelectionPath
