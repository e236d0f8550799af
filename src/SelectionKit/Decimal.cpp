#include "SelectionKit/Decimal.h"

#include <algorithm>

namespace tavrick {

namespace {

using Mantissa = Decimal::Mantissa;

// 10^38 - 1 fits in a signed 128-bit number with room for one more addition's carry check.
constexpr int maximumDigits = 38;

Mantissa powerOfTen(int exponent) {
    Mantissa value = 1;
    for (int i = 0; i < exponent; ++i) value *= 10;
    return value;
}

std::string digitsOf(Mantissa value) {
    if (value == 0) return "0";
    std::string digits;
    while (value > 0) {
        digits.push_back(static_cast<char>('0' + static_cast<int>(value % 10)));
        value /= 10;
    }
    std::reverse(digits.begin(), digits.end());
    return digits;
}

} // namespace

std::optional<Decimal> Decimal::parse(std::string_view text) {
    bool negative = false;
    if (!text.empty() && text.front() == '-') {
        negative = true;
        text.remove_prefix(1);
    }
    Mantissa mantissa = 0;
    int scale = 0;
    int digits = 0;
    bool sawPoint = false;
    for (char c : text) {
        if (c == '.') {
            if (sawPoint) return std::nullopt;
            sawPoint = true;
            continue;
        }
        if (c < '0' || c > '9') return std::nullopt;
        if (digits > 0 || c != '0') ++digits;
        if (sawPoint) {
            if (scale == maximumScale) {
                // Digits past the finest scale are dropped only when they are zeros.
                if (c != '0') return std::nullopt;
                continue;
            }
            ++scale;
        }
        if (digits > maximumDigits) return std::nullopt;
        mantissa = mantissa * 10 + (c - '0');
    }
    if (text.empty() || text == ".") return std::nullopt;
    return Decimal(negative ? -mantissa : mantissa, scale).normalised();
}

std::optional<Decimal> Decimal::rescaled(int scale) const {
    if (scale < scale_) return std::nullopt;
    Mantissa factor = powerOfTen(scale - scale_);
    Mantissa limit = powerOfTen(maximumDigits) / factor;
    if (mantissa_ >= limit || mantissa_ <= -limit) return std::nullopt;
    return Decimal(mantissa_ * factor, scale);
}

Decimal Decimal::normalised() const {
    Decimal value = *this;
    while (value.scale_ > 0 && value.mantissa_ % 10 == 0) {
        value.mantissa_ /= 10;
        --value.scale_;
    }
    return value;
}

std::optional<Decimal> Decimal::plus(const Decimal& other) const {
    int scale = std::max(scale_, other.scale_);
    auto a = rescaled(scale);
    auto b = other.rescaled(scale);
    if (!a || !b) return std::nullopt;
    Mantissa sum = a->mantissa_ + b->mantissa_;
    Mantissa limit = powerOfTen(maximumDigits);
    if (sum >= limit || sum <= -limit) return std::nullopt;
    return Decimal(sum, scale).normalised();
}

std::optional<Decimal> Decimal::times(std::int64_t factor) const {
    Mantissa limit = powerOfTen(maximumDigits);
    Mantissa magnitude = factor < 0 ? -static_cast<Mantissa>(factor) : static_cast<Mantissa>(factor);
    if (magnitude != 0 && (mantissa_ >= limit / magnitude || mantissa_ <= -limit / magnitude)) return std::nullopt;
    return Decimal(mantissa_ * factor, scale_).normalised();
}

bool Decimal::sameValue(const Decimal& other) const {
    Decimal a = normalised();
    Decimal b = other.normalised();
    return a.mantissa_ == b.mantissa_ && a.scale_ == b.scale_;
}

std::string Decimal::description() const {
    Decimal value = normalised();
    std::string digits = digitsOf(value.mantissa_ < 0 ? -value.mantissa_ : value.mantissa_);
    if (static_cast<int>(digits.size()) <= value.scale_) digits.insert(0, value.scale_ + 1 - digits.size(), '0');
    std::string text = value.mantissa_ < 0 ? "-" : "";
    text += digits.substr(0, digits.size() - value.scale_);
    if (value.scale_ > 0) text += "." + digits.substr(digits.size() - value.scale_);
    return text;
}

std::string Decimal::grouped() const {
    std::string plain = description();
    bool negative = !plain.empty() && plain.front() == '-';
    if (negative) plain.erase(0, 1);
    auto point = plain.find('.');
    std::string whole = plain.substr(0, point);
    std::string fraction = point == std::string::npos ? "" : plain.substr(point);
    std::string out;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        if (i > 0 && (whole.size() - i) % 3 == 0) out.push_back(',');
        out.push_back(whole[i]);
    }
    return (negative ? "-" : "") + out + fraction;
}

} // namespace tavrick
