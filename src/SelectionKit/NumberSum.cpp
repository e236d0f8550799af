#include "SelectionKit/NumberSum.h"

#include "CoreKit/UnicodeText.h"

#include <array>
#include <cstdint>

namespace tavrick::NumberSum {

namespace {

constexpr std::array<std::string_view, 7> currencySymbols{"$", "£", "€", "¥", "₺", "₹", "₽"};
constexpr std::string_view wrapping = "()[]{}\"'`";
constexpr std::string_view sentenceMarks = ".,;:!?";
// A hyphen-minus, and the minus sign a word processor writes.
constexpr std::array<std::string_view, 2> minusSigns{"-", "\xE2\x88\x92"};

bool consumePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}
bool consumeSuffix(std::string_view& text, std::string_view suffix) {
    if (!text.ends_with(suffix)) return false;
    text.remove_suffix(suffix.size());
    return true;
}

std::string_view stripWrapping(std::string_view token) {
    // Wrapping characters are ASCII, so trimming bytes never splits a character.
    for (;;) {
        bool changed = false;
        if (!token.empty() && wrapping.find(token.front()) != std::string_view::npos) {
            token.remove_prefix(1);
            changed = true;
        }
        if (!token.empty() && (wrapping.find(token.back()) != std::string_view::npos ||
                               sentenceMarks.find(token.back()) != std::string_view::npos)) {
            token.remove_suffix(1);
            changed = true;
        }
        if (!changed) return token;
    }
}

std::optional<std::string> takeCurrency(std::string_view& token) {
    for (auto symbol : currencySymbols) {
        if (consumePrefix(token, symbol) || consumeSuffix(token, symbol)) return std::string(symbol);
    }
    return std::nullopt;
}

bool takeMinus(std::string_view& token) {
    for (auto minus : minusSigns) {
        if (consumePrefix(token, minus)) return true;
    }
    return false;
}

// "1.000,50" → "1000.50"; "1,000,000" → "1000000"; "2,5" → "2.5"; "1,000" → "1000".
std::optional<std::string> normaliseSeparators(std::string_view digits) {
    auto lastComma = digits.rfind(',');
    auto lastPoint = digits.rfind('.');
    std::size_t commas = 0, points = 0;
    for (char c : digits) {
        commas += c == ',';
        points += c == '.';
    }
    auto without = [&](char removed, char decimal) {
        std::string out;
        for (char c : digits) {
            if (c == removed) continue;
            out.push_back(c == decimal ? '.' : c);
        }
        return out;
    };
    if (commas && points) {
        // The mark that comes last is the decimal mark, and it may appear only once.
        if (lastComma > lastPoint) return commas == 1 ? std::optional(without('.', ',')) : std::nullopt;
        return points == 1 ? std::optional(without(',', '.')) : std::nullopt;
    }
    if (commas == 1) {
        // A single comma with exactly three digits after it groups thousands ("1,000"); with
        // other digits after it, it is a decimal comma ("2,5").
        std::size_t after = digits.size() - lastComma - 1;
        if (after == 3 && lastComma > 0) return without(',', 0);
        return after > 0 ? std::optional(without(0, ',')) : std::nullopt;
    }
    if (commas > 1) return without(',', 0);
    if (points > 1) return without('.', 0);
    return std::string(digits);
}

} // namespace

std::optional<Number> number(std::string_view token) {
    token = stripWrapping(token);
    bool negative = takeMinus(token);
    auto currency = takeCurrency(token);
    if (!negative) negative = takeMinus(token);
    if (token.starts_with('+')) token.remove_prefix(1);
    if (!currency) currency = takeCurrency(token);

    std::int64_t factor = 1;
    if (token.size() >= 2 && token[token.size() - 2] >= '0' && token[token.size() - 2] <= '9') {
        switch (token.back()) {
        case 'k': case 'K': factor = 1'000; break;
        case 'm': case 'M': factor = 1'000'000; break;
        case 'b': case 'B': factor = 1'000'000'000; break;
        default: break;
        }
        if (factor != 1) token.remove_suffix(1);
    }
    bool hasDigit = false;
    for (char c : token) {
        if (c >= '0' && c <= '9') {
            hasDigit = true;
        } else if (c != ',' && c != '.') {
            return std::nullopt;
        }
    }
    if (!hasDigit) return std::nullopt;
    auto normalised = normaliseSeparators(token);
    if (!normalised) return std::nullopt;
    auto value = Decimal::parse(*normalised);
    if (!value) return std::nullopt;
    auto scaled = value->times(negative ? -factor : factor);
    if (!scaled) return std::nullopt;
    return Number{*scaled, currency};
}

std::optional<Result> sum(std::string_view text) {
    Result result;
    bool currencyDiffers = false;
    for (auto token : UnicodeText::words(text)) {
        auto found = number(token);
        if (!found) continue;
        auto total = result.total.plus(found->value);
        if (!total) return std::nullopt;
        result.total = *total;
        ++result.count;
        if (found->currency && !currencyDiffers) {
            if (!result.currency) {
                result.currency = found->currency;
            } else if (*result.currency != *found->currency) {
                currencyDiffers = true;
                result.currency.reset();
            }
        }
    }
    // The sum of one number is not a sum.
    if (result.count < 2) return std::nullopt;
    return result;
}

std::string Result::formatted() const {
    if (total.isZero()) return "0";
    std::string grouped = total.grouped();
    if (!currency) return grouped;
    if (total.isNegative()) return "-" + *currency + grouped.substr(1);
    return *currency + grouped;
}

} // namespace tavrick::NumberSum
