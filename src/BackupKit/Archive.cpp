#include "BackupKit/Archive.h"

#include <nlohmann/json.hpp>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cmath>
#include <cstdio>
#include <ctime>

namespace tavrick {

using nlohmann::json;

ArchiveError ArchiveError::fromANewerVersion(std::int64_t version) {
    return ArchiveError(Case::fromANewerVersion,
                        "That backup was written by a newer version of Tavrick (format " + std::to_string(version) +
                            "). Update and try again.",
                        version);
}
ArchiveError ArchiveError::notAnArchive() { return ArchiveError(Case::notAnArchive, "That is not a Tavrick backup."); }
ArchiveError ArchiveError::damaged() {
    return ArchiveError(Case::damaged, "That backup could not be read. It may be incomplete or damaged.");
}
ArchiveError ArchiveError::wrongPassphrase() {
    return ArchiveError(Case::wrongPassphrase, "That passphrase does not open this backup's secrets.");
}
ArchiveError ArchiveError::nothingSelected() {
    return ArchiveError(Case::nothingSelected, "Nothing was chosen to restore.");
}

Archive::Contents Archive::contents() const {
    Contents c;
    c.settings = settings.has_value();
    c.bindings = bindings ? static_cast<int>(bindings->size()) : 0;
    c.tweaks = tweaks ? static_cast<int>(tweaks->size()) : 0;
    c.notepad = notepad && !notepad->empty();
    c.secrets = secrets.has_value();
    return c;
}

BackupPlan BackupPlan::offered(const Archive::Contents& contents) {
    return BackupPlan{contents.settings, contents.bindings > 0, contents.tweaks > 0, contents.notepad, contents.secrets};
}

namespace {

// A whole number held by any of JSON's number forms.
std::optional<std::int64_t> integral(const json& value) {
    if (value.is_number_integer()) return value.get<std::int64_t>();
    if (value.is_number_unsigned()) {
        auto u = value.get<std::uint64_t>();
        return u > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<std::int64_t>(u);
    }
    if (value.is_number_float()) {
        double d = value.get<double>();
        if (std::isfinite(d) && std::trunc(d) == d && std::fabs(d) < 9.2e18) return static_cast<std::int64_t>(d);
    }
    return std::nullopt;
}

const json& required(const json& object, const char* key) {
    auto at = object.find(key);
    if (at == object.end()) throw ArchiveError::damaged();
    return *at;
}

std::string textOf(const json& value) {
    if (!value.is_string()) throw ArchiveError::damaged();
    return value.get<std::string>();
}

bool isLetterOrDigit(UChar32 c) { return u_isalpha(c) || u_isdigit(c) || u_hasBinaryProperty(c, UCHAR_ALPHABETIC); }

} // namespace

namespace ArchiveFile {

std::string isoDate(double seconds) {
    std::time_t whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm parts{};
    gmtime_r(&whole, &parts);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return buffer;
}

std::optional<double> parseISODate(std::string_view t) {
    // yyyy-MM-ddTHH:mm:ss then Z or ±HH:mm, nothing else.
    auto digits = [&](std::size_t at, std::size_t count) -> std::optional<int> {
        if (at + count > t.size()) return std::nullopt;
        int value = 0;
        for (std::size_t i = at; i < at + count; ++i) {
            if (t[i] < '0' || t[i] > '9') return std::nullopt;
            value = value * 10 + (t[i] - '0');
        }
        return value;
    };
    auto is = [&](std::size_t at, char c) { return at < t.size() && t[at] == c; };
    auto year = digits(0, 4), month = digits(5, 2), day = digits(8, 2), hour = digits(11, 2), minute = digits(14, 2),
         second = digits(17, 2);
    if (!year || !month || !day || !hour || !minute || !second || !is(4, '-') || !is(7, '-') || !is(10, 'T') ||
        !is(13, ':') || !is(16, ':'))
        return std::nullopt;
    if (*month < 1 || *month > 12 || *day < 1 || *day > 31 || *hour > 23 || *minute > 59 || *second > 60)
        return std::nullopt;
    int offset = 0;
    if (t.size() == 20 && t[19] == 'Z') {
        offset = 0;
    } else if (t.size() == 25 && (t[19] == '+' || t[19] == '-') && is(22, ':')) {
        auto oh = digits(20, 2), om = digits(23, 2);
        if (!oh || !om || *oh > 23 || *om > 59) return std::nullopt;
        offset = (*oh * 3600 + *om * 60) * (t[19] == '-' ? -1 : 1);
    } else {
        return std::nullopt;
    }
    std::tm parts{};
    parts.tm_year = *year - 1900;
    parts.tm_mon = *month - 1;
    parts.tm_mday = *day;
    parts.tm_hour = *hour;
    parts.tm_min = *minute;
    parts.tm_sec = *second;
    std::tm check = parts;
    const std::time_t seconds = timegm(&parts);
    // timegm normalises 31 February into March; such a date is not a date.
    if (parts.tm_mday != check.tm_mday || parts.tm_mon != check.tm_mon) return std::nullopt;
    return static_cast<double>(seconds - offset);
}

std::string encode(const Archive& archive) {
    json object = json::object();
    object["format"] = archive.format;
    object["version"] = archive.version;
    object["createdAt"] = isoDate(archive.createdAt);
    object["app"] = archive.app;
    object["machine"] = archive.machine;
    if (archive.settings) {
        VaultCrypto::Bytes bytes(archive.settings->begin(), archive.settings->end());
        object["settings"] = VaultCrypto::base64(bytes);
    }
    if (archive.bindings) {
        json array = json::array();
        for (const auto& mapping : *archive.bindings) array.push_back(mapping.toJSON());
        object["bindings"] = std::move(array);
    }
    if (archive.tweaks) object["tweaks"] = *archive.tweaks;
    if (archive.notepad) object["notepad"] = *archive.notepad;
    if (archive.secrets) object["secrets"] = VaultCrypto::toJSON(*archive.secrets);
    // nlohmann keeps object keys sorted, at every depth.
    return object.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

Archive decode(std::string_view bytes) {
    json object;
    try {
        object = json::parse(bytes.begin(), bytes.end());
    } catch (const json::exception&) {
        throw ArchiveError::notAnArchive();
    }
    if (!object.is_object()) throw ArchiveError::notAnArchive();
    auto format = object.find("format");
    if (format == object.end() || !format->is_string() || format->get<std::string>() != Archive::magic)
        throw ArchiveError::notAnArchive();
    // A newer layout is reported as newer before anything else about it can fail.
    if (auto version = object.find("version"); version != object.end()) {
        if (auto number = integral(*version); number && *number >= 2) throw ArchiveError::fromANewerVersion(*number);
    }

    Archive archive;
    try {
        auto version = integral(required(object, "version"));
        if (!version) throw ArchiveError::damaged();
        archive.version = *version;
        auto created = parseISODate(textOf(required(object, "createdAt")));
        if (!created) throw ArchiveError::damaged();
        archive.createdAt = *created;
        archive.app = textOf(required(object, "app"));
        archive.machine = textOf(required(object, "machine"));
        if (auto at = object.find("settings"); at != object.end()) {
            auto decoded = VaultCrypto::fromBase64(textOf(*at));
            if (!decoded) throw ArchiveError::damaged();
            archive.settings = std::string(decoded->begin(), decoded->end());
        }
        if (auto at = object.find("bindings"); at != object.end()) {
            if (!at->is_array()) throw ArchiveError::damaged();
            archive.bindings.emplace();
            // One binding this build cannot read leaves the rest readable.
            for (const auto& element : *at) {
                try {
                    archive.bindings->push_back(Mapping::fromJSON(element));
                } catch (const std::exception&) {
                    archive.skippedBindings += 1;
                }
            }
        }
        if (auto at = object.find("tweaks"); at != object.end()) {
            if (!at->is_array()) throw ArchiveError::damaged();
            archive.tweaks.emplace();
            for (const auto& id : *at) archive.tweaks->push_back(textOf(id));
        }
        if (auto at = object.find("notepad"); at != object.end()) archive.notepad = textOf(*at);
        if (auto at = object.find("secrets"); at != object.end()) archive.secrets = VaultCrypto::envelopeFromJSON(*at);
    } catch (const ArchiveError&) {
        throw;
    } catch (const std::exception&) {
        throw ArchiveError::damaged();
    }
    if (archive.version >= 2) throw ArchiveError::fromANewerVersion(archive.version);
    return archive;
}

std::string suggestedName(double date, std::string_view machine) {
    std::time_t whole = static_cast<std::time_t>(std::floor(date));
    std::tm parts{};
    localtime_r(&whole, &parts);
    char day[16];
    std::strftime(day, sizeof day, "%Y-%m-%d", &parts);
    std::string cleaned;
    for (std::int32_t i = 0; i < static_cast<std::int32_t>(machine.size());) {
        const std::int32_t start = i;
        UChar32 c = 0;
        U8_NEXT(reinterpret_cast<const std::uint8_t*>(machine.data()), i, static_cast<std::int32_t>(machine.size()), c);
        if (c < 0) continue;
        if (u_isWhitespace(c) || c == ' ' || c == 0xA0) {
            cleaned += '-';
        } else if (c == '-' || isLetterOrDigit(c)) {
            cleaned.append(machine.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
        }
    }
    std::string name = std::string("Tavrick-") + day;
    if (!cleaned.empty()) name += "-" + cleaned;
    return name + "." + std::string(Archive::fileExtension);
}

} // namespace ArchiveFile

namespace ArchiveBuilder {

std::string encodeSecrets(const Archive::Secrets& secrets) {
    json vault = json::array();
    for (const auto& item : secrets.vault) vault.push_back(toJSON(item));
    json object = {{"vault", std::move(vault)}, {"apiKeys", secrets.apiKeys}};
    return object.dump(-1, ' ', false, json::error_handler_t::strict);
}

Archive::Secrets decodeSecrets(std::string_view text) {
    try {
        json object = json::parse(text.begin(), text.end());
        if (!object.is_object()) throw ArchiveError::damaged();
        const json& vault = required(object, "vault");
        const json& keys = required(object, "apiKeys");
        if (!vault.is_array() || !keys.is_object()) throw ArchiveError::damaged();
        Archive::Secrets secrets;
        for (const auto& item : vault) secrets.vault.push_back(vaultItemFromJSON(item));
        for (const auto& [account, key] : keys.items()) secrets.apiKeys[account] = textOf(key);
        return secrets;
    } catch (const ArchiveError&) {
        throw;
    } catch (const std::exception&) {
        throw ArchiveError::damaged();
    }
}

Archive build(double date, std::string app, std::string machine, std::optional<std::string> settings,
              std::optional<std::vector<Mapping>> bindings, std::optional<std::vector<std::string>> tweaks,
              std::optional<std::string> notepad, std::optional<Archive::Secrets> secrets,
              std::string_view passphrase, std::int64_t rounds) {
    Archive archive;
    if (secrets && !secrets->isEmpty()) {
        if (passphrase.empty()) throw ArchiveError::wrongPassphrase();
        std::string content;
        try {
            content = encodeSecrets(*secrets);
        } catch (const std::exception&) {
            throw ArchiveError::damaged();
        }
        VaultCrypto::Bytes bytes(content.begin(), content.end());
        VaultCrypto::wipe(content);
        try {
            archive.secrets = VaultCrypto::sealed(bytes, passphrase, rounds);
        } catch (...) {
            VaultCrypto::wipe(bytes);
            throw;
        }
        VaultCrypto::wipe(bytes);
    }
    if (notepad && notepad->empty()) notepad.reset();
    archive.format = std::string(Archive::magic);
    archive.version = Archive::currentVersion;
    archive.createdAt = date;
    archive.app = std::move(app);
    archive.machine = std::move(machine);
    archive.settings = std::move(settings);
    archive.bindings = std::move(bindings);
    archive.tweaks = std::move(tweaks);
    archive.notepad = std::move(notepad);
    if (archive.contents().isEmpty()) throw ArchiveError::nothingSelected();
    return archive;
}

Archive::Secrets secrets(const Archive& archive, std::string_view passphrase) {
    if (!archive.secrets) return {};
    VaultCrypto::Bytes content;
    try {
        content = VaultCrypto::opened(*archive.secrets, passphrase);
    } catch (const VaultCrypto::Error& error) {
        if (error.failure() == VaultCrypto::Failure::wrongPassphrase) throw ArchiveError::wrongPassphrase();
        throw ArchiveError::damaged();
    } catch (const std::exception&) {
        throw ArchiveError::damaged();
    }
    std::string text(content.begin(), content.end());
    VaultCrypto::wipe(content);
    try {
        auto result = decodeSecrets(text);
        VaultCrypto::wipe(text);
        return result;
    } catch (...) {
        VaultCrypto::wipe(text);
        throw;
    }
}

bool opens(const Archive& archive, std::string_view passphrase) {
    if (!archive.secrets) return true;
    try {
        VaultCrypto::unlock(*archive.secrets, passphrase);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace ArchiveBuilder

} // namespace tavrick
