#pragma once

#include "CoreKit/UUID.h"

#include <nlohmann/json_fwd.hpp>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tavrick {

// What hides a value and how much of it shows.
namespace Masking {
inline constexpr std::size_t visibleTail = 4;
inline constexpr std::size_t maximumBullets = 16;
enum class Style { grouped, tail };

std::string mask(std::string_view value, Style style);
std::string lastFour(std::string_view value);
std::string bothEnds(std::string_view value);
std::string formatCardNumber(std::string_view value);
std::string formatExpiry(std::string_view value);
std::optional<std::string> cardBrand(std::string_view value);
bool passesLuhn(std::string_view value);
// A guarded value shows as bullets whose number says little about its length: 3 to 8.
std::string guardedBullets(std::string_view value);
} // namespace Masking

struct VaultField {
    struct Masked {
        Masking::Style style;
        friend bool operator==(const Masked&, const Masked&) = default;
    };
    struct Plain {
        friend bool operator==(const Plain&, const Plain&) = default;
    };
    struct Guarded {
        friend bool operator==(const Guarded&, const Guarded&) = default;
    };
    using Secrecy = std::variant<Masked, Plain, Guarded>;
    enum class Format { asTyped, expiry };

    std::string id;
    std::string label;
    Secrecy secrecy = Plain{};
    std::optional<std::string> placeholder;
    bool isMultiline = false;
    Format format = Format::asTyped;

    bool isSecret() const { return !std::holds_alternative<Plain>(secrecy); }
    // How long a revealed value stays on screen: 30 s masked, 10 s guarded, 0 plain.
    int revealSeconds() const;
    std::string formatted(std::string_view value) const;
    friend bool operator==(const VaultField&, const VaultField&) = default;
};

enum class VaultKind { card, bank, wallet, apiKey };

namespace VaultKinds {
inline constexpr VaultKind allCases[] = {VaultKind::card, VaultKind::bank, VaultKind::wallet, VaultKind::apiKey};
std::string_view id(VaultKind kind);
std::optional<VaultKind> fromRaw(std::string_view raw);
std::string_view title(VaultKind kind);
std::string_view symbol(VaultKind kind);
struct LastFour {
    std::string_view field;
};
struct BothEnds {
    std::string_view field;
};
using HintStyle = std::variant<LastFour, BothEnds>;
HintStyle hint(VaultKind kind);
std::string_view titleFallbackField(VaultKind kind);
const std::vector<VaultField>& fields(VaultKind kind);
} // namespace VaultKinds

// The listing's view of an item: never a secret in the clear.
struct VaultEntry {
    UUID id;
    VaultKind kind;
    std::string title;
    std::string hint;
    double updated = 0;
};

struct VaultItem {
    UUID id = UUID::random();
    VaultKind kind = VaultKind::card;
    std::string title;
    std::map<std::string, std::string> values;
    // Seconds since 1970; the JSON form counts from 2001 as the original encoder did.
    double updated = 0;
    // Seconds between 1970 and 2001-01-01, the epoch of the stored `updated`.
    static constexpr double referenceDateOffset = 978307200.0;

    std::optional<std::string> value(const std::string& field) const;
    // An empty value once trimmed removes the key; anything else is kept exactly as given.
    void set(const std::string& field, std::string value);
    std::string effectiveTitle() const;
    std::string listHint() const;
    VaultItem tidied() const;
    VaultEntry entry() const;
    friend bool operator==(const VaultItem&, const VaultItem&) = default;
};

nlohmann::json toJSON(const VaultItem& item);
// Throws std::invalid_argument for anything that is not exactly an item.
VaultItem vaultItemFromJSON(const nlohmann::json& json);
std::string encodeItems(const std::vector<VaultItem>& items);
std::vector<VaultItem> decodeItems(std::string_view text);

} // namespace tavrick
