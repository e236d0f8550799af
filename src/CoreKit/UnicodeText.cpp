#include "CoreKit/UnicodeText.h"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <memory>

namespace tavrick::UnicodeText {

namespace {

// A character break iterator over UTF-8 in place; its indexes are byte offsets.
class Graphemes {
public:
    explicit Graphemes(std::string_view text) {
        UErrorCode status = U_ZERO_ERROR;
        utext_openUTF8(&utext_, text.data(), static_cast<std::int64_t>(text.size()), &status);
        iterator_.reset(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
        if (U_FAILURE(status) || !iterator_) {
            iterator_.reset();
            return;
        }
        iterator_->setText(&utext_, status);
        if (U_FAILURE(status)) iterator_.reset();
    }
    ~Graphemes() { utext_close(&utext_); }
    Graphemes(const Graphemes&) = delete;
    Graphemes& operator=(const Graphemes&) = delete;

    bool isValid() const { return iterator_ != nullptr; }
    // The byte offset of the next boundary, or -1 at the end.
    std::int32_t next() { return iterator_->next(); }

private:
    UText utext_ = UTEXT_INITIALIZER;
    std::unique_ptr<icu::BreakIterator> iterator_;
};

bool isSpace(UChar32 c) {
    return c >= 0 && u_isUWhiteSpace(c);
}

} // namespace

bool isValidUTF8(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    std::int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, text.data(), static_cast<std::int32_t>(text.size()), &status);
    return status != U_INVALID_CHAR_FOUND && status != U_ILLEGAL_ARGUMENT_ERROR;
}

std::string repairedUTF8(std::string_view text) {
    const auto size = static_cast<std::int32_t>(text.size());
    UErrorCode status = U_ZERO_ERROR;
    std::int32_t units = 0;
    u_strFromUTF8WithSub(nullptr, 0, &units, text.data(), size, 0xFFFD, nullptr, &status);
    std::u16string wide(static_cast<std::size_t>(units), u'\0');
    status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(wide.data(), units, &units, text.data(), size, 0xFFFD, nullptr, &status);
    if (U_FAILURE(status)) return std::string();
    std::int32_t bytes = 0;
    status = U_ZERO_ERROR;
    u_strToUTF8(nullptr, 0, &bytes, wide.data(), units, &status);
    std::string out(static_cast<std::size_t>(bytes), '\0');
    status = U_ZERO_ERROR;
    u_strToUTF8(out.data(), bytes, &bytes, wide.data(), units, &status);
    return U_FAILURE(status) ? std::string() : out;
}

std::size_t characterCount(std::string_view text, std::size_t limit) {
    if (text.empty()) return 0;
    Graphemes graphemes(text);
    if (!graphemes.isValid()) return text.size();
    std::size_t count = 0;
    while (graphemes.next() != icu::BreakIterator::DONE) {
        if (++count > limit) break;
    }
    return count;
}

std::string_view prefix(std::string_view text, std::size_t count) {
    if (count == 0) return text.substr(0, 0);
    Graphemes graphemes(text);
    if (!graphemes.isValid()) return text.substr(0, count);
    std::size_t seen = 0;
    for (std::int32_t end = graphemes.next(); end != icu::BreakIterator::DONE; end = graphemes.next()) {
        if (++seen == count) return text.substr(0, static_cast<std::size_t>(end));
    }
    return text;
}

std::string_view trimmed(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::int32_t start = 0;
    while (start < length) {
        std::int32_t i = start;
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        if (!isSpace(c)) break;
        start = i;
    }
    std::int32_t end = length;
    while (end > start) {
        std::int32_t i = end;
        UChar32 c;
        U8_PREV(bytes, start, i, c);
        if (!isSpace(c)) break;
        end = i;
    }
    return text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start));
}

std::vector<std::string_view> words(std::string_view text) {
    std::vector<std::string_view> out;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::int32_t i = 0;
    std::int32_t wordStart = -1;
    while (i < length) {
        const std::int32_t at = i;
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        if (isSpace(c)) {
            if (wordStart >= 0) out.push_back(text.substr(static_cast<std::size_t>(wordStart), static_cast<std::size_t>(at - wordStart)));
            wordStart = -1;
        } else if (wordStart < 0) {
            wordStart = at;
        }
    }
    if (wordStart >= 0) out.push_back(text.substr(static_cast<std::size_t>(wordStart)));
    return out;
}

std::string folded(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    if (U_FAILURE(status)) return std::string(text);
    icu::UnicodeString source = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
    source.foldCase();
    icu::UnicodeString decomposed;
    nfd->normalize(source, decomposed, status);
    if (U_FAILURE(status)) return std::string(text);
    // Diacritics are the non-spacing marks that decomposition split off their letters.
    icu::UnicodeString bare;
    bare.getBuffer(decomposed.length());
    bare.releaseBuffer(0);
    for (std::int32_t i = 0; i < decomposed.length();) {
        const UChar32 c = decomposed.char32At(i);
        if (u_charType(c) != U_NON_SPACING_MARK) bare.append(c);
        i += U16_LENGTH(c);
    }
    std::string out;
    bare.toUTF8String(out);
    return out;
}

} // namespace tavrick::UnicodeText
