#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// An exact decimal number for sums of money: a whole-number mantissa and a count of fraction
// digits, so 0.1 + 0.2 is 0.3. Holds 38 significant digits; operations that would lose one
// report an overflow instead.
class Decimal {
public:
    __extension__ using Mantissa = __int128;
    static constexpr int maximumScale = 18;

    Decimal() = default;
    static Decimal integer(std::int64_t value) { return Decimal(value, 0); }

    // Digits with at most one "." between them and an optional leading "-", as under the
    // POSIX locale; nothing for anything else or for more digits than fit.
    static std::optional<Decimal> parse(std::string_view text);

    std::optional<Decimal> plus(const Decimal& other) const;
    std::optional<Decimal> times(std::int64_t factor) const;

    bool isZero() const { return mantissa_ == 0; }
    bool isNegative() const { return mantissa_ < 0; }
    // The value without trailing fraction zeros: "1502", "-0.3", "1234.5".
    std::string description() const;
    // Grouped by thousands with ",", "." before the fraction: "1,234,567.25".
    std::string grouped() const;

    friend bool operator==(const Decimal& a, const Decimal& b) { return a.sameValue(b); }

private:
    Decimal(Mantissa mantissa, int scale) : mantissa_(mantissa), scale_(scale) {}
    bool sameValue(const Decimal& other) const;
    std::optional<Decimal> rescaled(int scale) const;
    Decimal normalised() const;

    Mantissa mantissa_ = 0;
    int scale_ = 0;
};

} // namespace tavrick
