#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// What the services need to know about user text, answered by ICU: characters are grapheme
// clusters (what a person counts), white space is Unicode's, and folding ignores case and
// diacritics. All of it takes and gives UTF-8.
namespace UnicodeText {

bool isValidUTF8(std::string_view text);
// Each ill-formed sequence becomes U+FFFD, so nothing else of the text is lost.
std::string repairedUTF8(std::string_view text);

// The number of characters, counting stops once it passes `limit` (the answer is then
// `limit + 1`), so an enormous text costs no more than the limit.
std::size_t characterCount(std::string_view text, std::size_t limit = static_cast<std::size_t>(-1) - 1);
// The first `count` characters.
std::string_view prefix(std::string_view text, std::size_t count);

// Without white space and line ends at either end.
std::string_view trimmed(std::string_view text);
// The pieces between runs of white space and line ends, empty ones left out.
std::vector<std::string_view> words(std::string_view text);

// Case folded with diacritics removed, for a search that ignores both.
std::string folded(std::string_view text);

} // namespace UnicodeText

} // namespace tavrick
