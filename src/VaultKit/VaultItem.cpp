#include "VaultKit/VaultItem.h"

#include "CoreKit/UnicodeText.h"

#include <nlohmann/json.hpp>

#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace tavrick {

namespace {

const std::string bullet = "•";
const std::string ellipsis = "…";

// The user-perceived characters of a UTF-8 text, as views into it.
std::vector<std::string_view> characters(std::string_view text) {
    std::vector<std::string_view> out;
    if (text.empty()) return out;
    UErrorCode status = U_ZERO_ERROR;
    UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
    UBreakIterator* it = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
    if (U_SUCCESS(status)) ubrk_setUText(it, utext, &status);
    if (U_FAILURE(status)) {
        // Without ICU's rules fall back to one character a byte rather than lose the text.
        for (std::size_t i = 0; i < text.size(); ++i) out.push_back(text.substr(i, 1));
    } else {
        int32_t start = ubrk_first(it);
        for (int32_t end = ubrk_next(it); end != UBRK_DONE; start = end, end = ubrk_next(it)) {
            out.push_back(text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
        }
    }
    ubrk_close(it);
    utext_close(utext);
    return out;
}

UChar32 firstCodePoint(std::string_view character) {
    UChar32 c = 0;
    int32_t i = 0;
    U8_NEXT(reinterpret_cast<const uint8_t*>(character.data()), i, static_cast<int32_t>(character.size()), c);
    return c;
}

bool isSignificant(std::string_view character) {
    const UChar32 c = firstCodePoint(character);
    return c >= 0 && (U_GET_GC_MASK(c) & (U_GC_L_MASK | U_GC_N_MASK)) != 0;
}

// The decimal value of a digit character, -1 for anything else.
int digitValue(std::string_view character) {
    const UChar32 c = firstCodePoint(character);
    return c >= 0 ? u_charDigitValue(c) : -1;
}

std::vector<std::string_view> digitCharacters(std::string_view value) {
    std::vector<std::string_view> out;
    for (auto c : characters(value))
        if (digitValue(c) >= 0) out.push_back(c);
    return out;
}

// The digits as ASCII, so that brand rules compare one way whatever script typed them.
std::string asciiDigits(std::string_view value) {
    std::string out;
    for (auto c : digitCharacters(value)) out += static_cast<char>('0' + digitValue(c));
    return out;
}

std::string repeated(const std::string& piece, std::size_t count) {
    std::string out;
    for (std::size_t i = 0; i < count; ++i) out += piece;
    return out;
}

std::string joined(const std::vector<std::string_view>& parts, std::size_t from, std::size_t to) {
    std::string out;
    for (std::size_t i = from; i < to && i < parts.size(); ++i) out += parts[i];
    return out;
}

} // namespace

namespace Masking {

std::string mask(std::string_view value, Style style) {
    if (style == Style::grouped) {
        auto chars = characters(value);
        const auto significant =
            static_cast<std::size_t>(std::count_if(chars.begin(), chars.end(), [](auto c) { return isSignificant(c); }));
        std::size_t keep = significant >= 5 ? visibleTail : 0;
        std::vector<std::string> out(chars.size());
        for (std::size_t i = chars.size(); i-- > 0;) {
            if (!isSignificant(chars[i])) {
                out[i] = chars[i];
            } else if (keep > 0) {
                out[i] = chars[i];
                --keep;
            } else {
                out[i] = bullet;
            }
        }
        std::string text;
        for (auto& piece : out) text += piece;
        return text;
    }
    auto chars = characters(UnicodeText::trimmed(value));
    const std::size_t n = chars.size();
    if (n < 5) return repeated(bullet, n);
    return repeated(bullet, std::min<std::size_t>(n, 20) - visibleTail) + joined(chars, n - visibleTail, n);
}

std::string lastFour(std::string_view value) {
    std::vector<std::string_view> kept;
    for (auto c : characters(value))
        if (isSignificant(c)) kept.push_back(c);
    if (kept.size() < 5) return {};
    return repeated(bullet, 4) + " " + joined(kept, kept.size() - 4, kept.size());
}

std::string bothEnds(std::string_view value) {
    const std::string_view trimmed = UnicodeText::trimmed(value);
    auto chars = characters(trimmed);
    if (chars.size() < 13) return std::string(trimmed);
    return joined(chars, 0, 6) + ellipsis + joined(chars, chars.size() - 4, chars.size());
}

std::string formatCardNumber(std::string_view value) {
    auto digits = digitCharacters(value);
    if (digits.empty()) return {};
    const std::string ascii = asciiDigits(value);
    const bool amex = ascii.starts_with("34") || ascii.starts_with("37");
    const std::vector<std::size_t> sizes = amex ? std::vector<std::size_t>{4, 6, 5} : std::vector<std::size_t>{4, 4, 4, 4, 4};
    std::vector<std::string> groups;
    std::size_t at = 0;
    for (std::size_t size : sizes) {
        if (at >= digits.size()) break;
        groups.push_back(joined(digits, at, at + size));
        at += size;
    }
    if (at < digits.size()) groups.push_back(joined(digits, at, digits.size()));
    std::string out;
    for (std::size_t i = 0; i < groups.size(); ++i) out += (i ? " " : "") + groups[i];
    return out;
}

std::string formatExpiry(std::string_view value) {
    auto digits = digitCharacters(value);
    if (digits.size() > 4) digits.resize(4);
    if (digits.size() < 3) return joined(digits, 0, digits.size());
    return joined(digits, 0, 2) + "/" + joined(digits, 2, digits.size());
}

std::optional<std::string> cardBrand(std::string_view value) {
    const std::string d = asciiDigits(value);
    if (d.size() < 2) return std::nullopt;
    const int two = std::stoi(d.substr(0, 2));
    const int three = d.size() >= 3 ? std::stoi(d.substr(0, 3)) : -1;
    const int four = d.size() >= 4 ? std::stoi(d.substr(0, 4)) : -1;
    if (d.starts_with("4")) return "Visa";
    if (two == 34 || two == 37) return "American Express";
    if (two >= 51 && two <= 55) return "Mastercard";
    if (four >= 2221 && four <= 2720) return "Mastercard";
    if (d.starts_with("6011")) return "Discover";
    if (two == 65) return "Discover";
    if (two == 62) return "UnionPay";
    if (four >= 3528 && four <= 3589) return "JCB";
    if (two == 36 || two == 38) return "Diners Club";
    if (three >= 300 && three <= 305) return "Diners Club";
    return std::nullopt;
}

bool passesLuhn(std::string_view value) {
    const std::string d = asciiDigits(value);
    if (d.size() < 12) return false;
    int sum = 0;
    for (std::size_t index = 0; index < d.size(); ++index) {
        const int digit = d[d.size() - 1 - index] - '0';
        sum += index % 2 == 0 ? digit : (digit >= 5 ? digit * 2 - 9 : digit * 2);
    }
    return sum % 10 == 0;
}

std::string guardedBullets(std::string_view value) {
    return repeated(bullet, std::clamp<std::size_t>(characters(value).size(), 3, 8));
}

} // namespace Masking

int VaultField::revealSeconds() const {
    if (std::holds_alternative<Masked>(secrecy)) return 30;
    if (std::holds_alternative<Guarded>(secrecy)) return 10;
    return 0;
}

std::string VaultField::formatted(std::string_view value) const {
    return format == Format::expiry ? Masking::formatExpiry(value) : std::string(value);
}

namespace VaultKinds {

std::string_view id(VaultKind kind) {
    switch (kind) {
    case VaultKind::card: return "card";
    case VaultKind::bank: return "bank";
    case VaultKind::wallet: return "wallet";
    case VaultKind::apiKey: return "apiKey";
    }
    return "card";
}

std::optional<VaultKind> fromRaw(std::string_view raw) {
    for (VaultKind kind : allCases)
        if (id(kind) == raw) return kind;
    return std::nullopt;
}

std::string_view title(VaultKind kind) {
    switch (kind) {
    case VaultKind::card: return "Card";
    case VaultKind::bank: return "Bank Account";
    case VaultKind::wallet: return "Wallet Address";
    case VaultKind::apiKey: return "API Key";
    }
    return "Card";
}

std::string_view symbol(VaultKind kind) {
    switch (kind) {
    case VaultKind::card: return "creditcard";
    case VaultKind::bank: return "building.columns";
    case VaultKind::wallet: return "bitcoinsign.circle";
    case VaultKind::apiKey: return "key";
    }
    return "creditcard";
}

HintStyle hint(VaultKind kind) {
    switch (kind) {
    case VaultKind::card: return LastFour{"number"};
    case VaultKind::bank: return LastFour{"iban"};
    case VaultKind::wallet: return BothEnds{"address"};
    case VaultKind::apiKey: return LastFour{"key"};
    }
    return LastFour{"number"};
}

std::string_view titleFallbackField(VaultKind kind) {
    switch (kind) {
    case VaultKind::card: return "issuer";
    case VaultKind::bank: return "bank";
    case VaultKind::wallet: return "label";
    case VaultKind::apiKey: return "service";
    }
    return "issuer";
}

const std::vector<VaultField>& fields(VaultKind kind) {
    using F = VaultField;
    const F::Secrecy plain = F::Plain{}, guarded = F::Guarded{};
    const F::Secrecy grouped = F::Masked{Masking::Style::grouped}, tail = F::Masked{Masking::Style::tail};
    const F note{"note", "Note", plain, std::nullopt, true, F::Format::asTyped};
    static const std::vector<F> card{
        {"cardholder", "Cardholder", plain, std::nullopt, false, F::Format::asTyped},
        {"number", "Number", grouped, "4111 1111 1111 1111", false, F::Format::asTyped},
        {"expiry", "Expires", plain, "MM/YY", false, F::Format::expiry},
        {"cvv", "Security Code", guarded, std::nullopt, false, F::Format::asTyped},
        {"issuer", "Issuer", plain, "Bank or card brand", false, F::Format::asTyped},
        note};
    static const std::vector<F> bank{
        {"accountName", "Account Name", plain, std::nullopt, false, F::Format::asTyped},
        {"bank", "Bank", plain, std::nullopt, false, F::Format::asTyped},
        {"iban", "IBAN", grouped, std::nullopt, false, F::Format::asTyped},
        {"accountNumber", "Account Number", tail, std::nullopt, false, F::Format::asTyped},
        {"routing", "Sort Code / Routing", tail, std::nullopt, false, F::Format::asTyped},
        {"swift", "SWIFT / BIC", plain, std::nullopt, false, F::Format::asTyped},
        note};
    static const std::vector<F> wallet{
        {"chain", "Chain", plain, "Bitcoin, Ethereum…", false, F::Format::asTyped},
        {"label", "Label", plain, "Cold storage, exchange…", false, F::Format::asTyped},
        {"address", "Address", plain, std::nullopt, true, F::Format::asTyped},
        note};
    static const std::vector<F> apiKey{
        {"service", "Service", plain, "Anthropic, Stripe…", false, F::Format::asTyped},
        {"label", "Label", plain, "Which project", false, F::Format::asTyped},
        {"environment", "Environment", plain, "live, test…", false, F::Format::asTyped},
        {"key", "Key", tail, std::nullopt, true, F::Format::asTyped},
        note};
    switch (kind) {
    case VaultKind::card: return card;
    case VaultKind::bank: return bank;
    case VaultKind::wallet: return wallet;
    case VaultKind::apiKey: return apiKey;
    }
    return card;
}

} // namespace VaultKinds

std::optional<std::string> VaultItem::value(const std::string& field) const {
    auto it = values.find(field);
    if (it == values.end()) return std::nullopt;
    return it->second;
}

void VaultItem::set(const std::string& field, std::string value) {
    if (UnicodeText::trimmed(value).empty()) {
        values.erase(field);
    } else {
        values[field] = std::move(value);
    }
}

std::string VaultItem::effectiveTitle() const {
    const std::string_view own = UnicodeText::trimmed(title);
    if (!own.empty()) return std::string(own);
    if (auto fallback = value(std::string(VaultKinds::titleFallbackField(kind)))) {
        const std::string_view trimmed = UnicodeText::trimmed(*fallback);
        if (!trimmed.empty()) return std::string(trimmed);
    }
    return std::string(VaultKinds::title(kind));
}

std::string VaultItem::listHint() const {
    return std::visit(
        [this](auto style) {
            const std::string text = value(std::string(style.field)).value_or("");
            if constexpr (std::is_same_v<decltype(style), VaultKinds::LastFour>) {
                return Masking::lastFour(text);
            } else {
                return Masking::bothEnds(text);
            }
        },
        VaultKinds::hint(kind));
}

VaultItem VaultItem::tidied() const {
    VaultItem copy = *this;
    copy.title = std::string(UnicodeText::trimmed(title));
    copy.values.clear();
    for (const auto& [field, text] : values) {
        const std::string_view trimmed = UnicodeText::trimmed(text);
        if (!trimmed.empty()) copy.values[field] = std::string(trimmed);
    }
    return copy;
}

VaultEntry VaultItem::entry() const { return {id, kind, effectiveTitle(), listHint(), updated}; }

nlohmann::json toJSON(const VaultItem& item) {
    nlohmann::json values = nlohmann::json::object();
    for (const auto& [field, text] : item.values) values[field] = text;
    return {{"id", item.id.uuidString()},
            {"kind", std::string(VaultKinds::id(item.kind))},
            {"title", item.title},
            {"values", std::move(values)},
            {"updated", item.updated - VaultItem::referenceDateOffset}};
}

VaultItem vaultItemFromJSON(const nlohmann::json& json) {
    if (!json.is_object() || json.size() != 5) throw std::invalid_argument("an item needs exactly its five keys");
    VaultItem item;
    const auto& id = json.at("id");
    auto uuid = id.is_string() ? UUID::parse(id.get<std::string>()) : std::nullopt;
    if (!uuid) throw std::invalid_argument("bad id");
    item.id = *uuid;
    const auto& kind = json.at("kind");
    auto parsed = kind.is_string() ? VaultKinds::fromRaw(kind.get<std::string>()) : std::nullopt;
    if (!parsed) throw std::invalid_argument("unknown kind");
    item.kind = *parsed;
    if (!json.at("title").is_string()) throw std::invalid_argument("bad title");
    item.title = json.at("title").get<std::string>();
    const auto& values = json.at("values");
    if (!values.is_object()) throw std::invalid_argument("bad values");
    for (const auto& [field, text] : values.items()) {
        if (!text.is_string()) throw std::invalid_argument("bad value");
        item.set(field, text.get<std::string>());
    }
    if (!json.at("updated").is_number()) throw std::invalid_argument("bad date");
    item.updated = json.at("updated").get<double>() + VaultItem::referenceDateOffset;
    return item;
}

std::string encodeItems(const std::vector<VaultItem>& items) {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& item : items) array.push_back(toJSON(item));
    return array.dump();
}

std::vector<VaultItem> decodeItems(std::string_view text) {
    const auto json = nlohmann::json::parse(text.begin(), text.end());
    if (!json.is_array()) throw std::invalid_argument("not an array of items");
    std::vector<VaultItem> items;
    for (const auto& element : json) items.push_back(vaultItemFromJSON(element));
    return items;
}

} // namespace tavrick
