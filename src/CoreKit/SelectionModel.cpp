#include "CoreKit/SelectionModel.h"

#include "CoreKit/SelectionPath.h"
#include "CoreKit/UnicodeText.h"

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>

namespace tavrick {

namespace {

struct CurlURLDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using CurlURL = std::unique_ptr<CURLU, CurlURLDeleter>;

struct ParsedURL {
    std::string scheme;
    std::string host;
};

// libcurl's URL parser decides what parses; schemes it cannot fetch (dict:, mailto:) still count.
std::optional<ParsedURL> parseURL(const std::string& text) {
    if (text.empty()) return std::nullopt;
    CurlURL handle(curl_url());
    if (!handle) return std::nullopt;
    if (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
        return std::nullopt;
    ParsedURL parsed;
    char* part = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_SCHEME, &part, 0) == CURLUE_OK && part) {
        parsed.scheme = part;
        curl_free(part);
    }
    part = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_HOST, &part, 0) == CURLUE_OK && part) {
        parsed.host = part;
        curl_free(part);
    }
    return parsed;
}

std::string replacingAll(std::string text, std::string_view what, std::string_view with) {
    std::size_t at = 0;
    while ((at = text.find(what, at)) != std::string::npos) {
        text.replace(at, what.size(), with);
        at += with.size();
    }
    return text;
}

std::string lowercased(std::string text) {
    for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

constexpr std::string_view placeholder = "{text}";

// One-key objects, with the failure words every case enumeration shares.
std::pair<std::string, const nlohmann::json*> singleCase(const nlohmann::json& json) {
    if (!json.is_object() || json.size() != 1) throw DecodingError("Invalid number of keys found, expected one.");
    auto it = json.begin();
    if (!it.value().is_object())
        throw DecodingError("Expected to decode an object for key “" + it.key() + "”.");
    return {it.key(), &it.value()};
}

std::string requiredString(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end()) throw DecodingError(std::string("No value for key “") + key + "”.");
    if (!it->is_string()) throw DecodingError(std::string("Expected text for key “") + key + "”.");
    return it->get<std::string>();
}

struct EngineRow {
    SearchEngine::Case engine;
    std::string_view caseName;
    std::string_view id;
    std::string_view displayName;
    std::string_view base;
    std::string_view pathAndQuery;
    std::string_view note;
};

constexpr std::array<EngineRow, 9> engineRows{{
    {SearchEngine::Case::duckDuckGo, "duckDuckGo", "duckduckgo", "DuckDuckGo", "https://duckduckgo.com", "/?q={text}",
     "The default. No account, and no search history tied to one."},
    {SearchEngine::Case::google, "google", "google", "Google", "https://www.google.com", "/search?q={text}", ""},
    {SearchEngine::Case::bing, "bing", "bing", "Bing", "https://www.bing.com", "/search?q={text}", ""},
    {SearchEngine::Case::brave, "brave", "brave", "Brave Search", "https://search.brave.com", "/search?q={text}", ""},
    {SearchEngine::Case::startpage, "startpage", "startpage", "Startpage", "https://www.startpage.com",
     "/sp/search?query={text}", ""},
    {SearchEngine::Case::ecosia, "ecosia", "ecosia", "Ecosia", "https://www.ecosia.org", "/search?q={text}", ""},
    {SearchEngine::Case::kagi, "kagi", "kagi", "Kagi", "https://kagi.com", "/search?q={text}",
     "Kagi is a paid service — searches open its site and it will ask you to sign in."},
    {SearchEngine::Case::wikipedia, "wikipedia", "wikipedia", "Wikipedia", "https://en.wikipedia.org",
     "/w/index.php?search={text}", "Goes straight to Wikipedia's own search rather than the open web."},
    {SearchEngine::Case::custom, "custom", "custom", "Custom", "", "", ""},
}};

const EngineRow& rowOf(SearchEngine::Case engine) { return engineRows[static_cast<std::size_t>(engine)]; }

struct ActionRow {
    SelectionAction::Case action;
    std::string_view id;
    std::string_view title;
    std::string_view shortTitle;
    std::string_view image;
};

constexpr std::array<ActionRow, 10> actionRows{{
    {SelectionAction::Case::copy, "copy", "Copy as Text", "Copy", "doc.on.doc"},
    {SelectionAction::Case::search, "search", "Search", "Search", "magnifyingglass"},
    {SelectionAction::Case::openLink, "openLink", "Open Link", "Open Link", "arrow.up.right.square"},
    {SelectionAction::Case::lookUp, "lookUp", "Look Up", "Look Up", "character.book.closed"},
    {SelectionAction::Case::sum, "sum", "Sum", "Sum", "sum"},
    {SelectionAction::Case::askAI, "askAI", "Ask AI", "Ask AI", "sparkles"},
    {SelectionAction::Case::translate, "translate", "Translate", "Translate", "character.bubble"},
    {SelectionAction::Case::sendToNotepad, "sendToNotepad", "Add to Note", "Add to Note", "note.text.badge.plus"},
    {SelectionAction::Case::revealInFinder, "revealInFinder", "Open in Finder", "Open in Finder", "folder"},
    {SelectionAction::Case::custom, "custom", "", "", "link"},
}};

const ActionRow& rowOf(SelectionAction::Case action) { return actionRows[static_cast<std::size_t>(action)]; }

// ---- Finding a link in running text ----

bool isHTTP(const std::string& scheme) { return scheme == "http" || scheme == "https"; }

// Top-level domains common enough that a bare "example.com" in a sentence is read as a site.
constexpr std::array<std::string_view, 24> knownTopLevelDomains{
    "com", "org", "net", "io", "dev", "app", "edu", "gov", "info", "co", "uk", "de",
    "fr", "nl", "eu", "ca", "au", "jp", "ru", "ch", "se", "tr", "in", "ai"};

std::string_view strippedToken(std::string_view token) {
    constexpr std::string_view leading = "([{<\"'`";
    constexpr std::string_view trailing = ")]}>\"'`.,;:!?";
    while (!token.empty() && leading.find(token.front()) != std::string_view::npos) token.remove_prefix(1);
    while (!token.empty() && trailing.find(token.back()) != std::string_view::npos) token.remove_suffix(1);
    return token;
}

bool isBareDomain(std::string_view token) {
    auto hostEnd = token.find_first_of("/?#:");
    std::string_view host = token.substr(0, hostEnd);
    auto lastDot = host.rfind('.');
    if (lastDot == std::string_view::npos || lastDot == 0) return false;
    for (char c : host) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-') return false;
    }
    if (host.find("..") != std::string_view::npos) return false;
    auto tld = lowercased(std::string(host.substr(lastDot + 1)));
    return std::find(knownTopLevelDomains.begin(), knownTopLevelDomains.end(), tld) != knownTopLevelDomains.end();
}

struct LinkCandidate {
    std::string text;
    std::string scheme;
};

// The first thing in `token` that a link detector would underline, with its scheme.
std::optional<LinkCandidate> linkCandidate(std::string_view token) {
    token = strippedToken(token);
    if (token.empty()) return std::nullopt;
    auto colon = token.find(':');
    if (colon != std::string_view::npos && colon > 0) {
        std::string scheme = lowercased(std::string(token.substr(0, colon)));
        bool schemeLike = std::isalpha(static_cast<unsigned char>(scheme[0])) &&
                          std::all_of(scheme.begin(), scheme.end(), [](char c) {
                              return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
                          });
        bool hasAuthority = token.substr(colon).starts_with("://");
        if (schemeLike && (hasAuthority || scheme == "mailto" || scheme == "tel")) {
            return LinkCandidate{std::string(token), scheme};
        }
    }
    if (auto at = token.find('@'); at != std::string_view::npos && at > 0 && isBareDomain(token.substr(at + 1))) {
        return LinkCandidate{"mailto:" + std::string(token), "mailto"};
    }
    std::string lower = lowercased(std::string(token.substr(0, 4)));
    if (lower == "www." || isBareDomain(token)) return LinkCandidate{"http://" + std::string(token), "http"};
    return std::nullopt;
}

} // namespace

std::string_view rawValue(SelectionPathKind kind) { return kind == SelectionPathKind::folder ? "folder" : "file"; }

// ---- SearchEngine ----

SearchEngine SearchEngine::custom(std::string templateText) {
    SearchEngine engine(Case::custom);
    engine.template_ = std::move(templateText);
    return engine;
}

std::string_view SearchEngine::id() const { return rowOf(case_).id; }
std::string_view SearchEngine::displayName() const { return rowOf(case_).displayName; }
std::string_view SearchEngine::note() const { return rowOf(case_).note; }

std::string SearchEngine::templateText() const {
    if (case_ == Case::custom) return template_;
    const auto& row = rowOf(case_);
    return std::string(row.base) + std::string(row.pathAndQuery);
}

std::optional<URL> SearchEngine::url(const std::string& text) const {
    // Everything but letters and digits is escaped, "&" and "=" included, so a selection cannot
    // add keys to the query.
    std::string built = replacingAll(templateText(), placeholder, SelectionAction::encode(text));
    if (!parseURL(built)) return std::nullopt;
    return URL::fromString(std::move(built));
}

bool SearchEngine::isValidTemplate(std::string_view text) {
    constexpr std::string_view fixedWord = "tavrickplaceholderhost";
    std::string trimmed(UnicodeText::trimmed(text));
    if (trimmed.find(placeholder) == std::string::npos) return false;
    auto parsed = parseURL(replacingAll(trimmed, placeholder, fixedWord));
    if (!parsed) return false;
    auto scheme = lowercased(parsed->scheme);
    if (scheme != "https" && scheme != "http") return false;
    if (parsed->host.empty()) return false;
    // The selection may not decide where the request goes.
    return lowercased(parsed->host).find(fixedWord) == std::string::npos;
}

const std::vector<SearchEngine>& SearchEngine::allCases() {
    static const std::vector<SearchEngine> cases{Case::duckDuckGo, Case::google, Case::bing,   Case::brave,
                                                 Case::startpage,  Case::ecosia, Case::kagi, Case::wikipedia};
    return cases;
}

JSONValue SearchEngine::toJSON() const {
    JSONValue::Object payload;
    if (case_ == Case::custom) payload.emplace("template", template_);
    return JSONValue::Object{{std::string(rowOf(case_).caseName), JSONValue(std::move(payload))}};
}

SearchEngine SearchEngine::fromJSON(const JSONValue& json) {
    auto value = json.toJSON();
    auto [name, payload] = singleCase(value);
    for (const auto& row : engineRows) {
        if (row.caseName != name) continue;
        if (row.engine == Case::custom) return custom(requiredString(*payload, "template"));
        return SearchEngine(row.engine);
    }
    throw DecodingError("Cannot initialize SearchEngine from invalid key " + name);
}

// ---- SelectionAction ----

SelectionAction SelectionAction::custom(std::string title, std::string urlTemplate) {
    SelectionAction action(Case::custom);
    action.title_ = std::move(title);
    action.urlTemplate_ = std::move(urlTemplate);
    return action;
}

std::string SelectionAction::id() const {
    if (case_ == Case::custom) return "custom:" + title_ + ":" + urlTemplate_;
    return std::string(rowOf(case_).id);
}
std::string SelectionAction::title() const {
    return case_ == Case::custom ? title_ : std::string(rowOf(case_).title);
}
std::string SelectionAction::shortTitle() const {
    return case_ == Case::custom ? title_ : std::string(rowOf(case_).shortTitle);
}
std::string_view SelectionAction::systemImageName() const { return rowOf(case_).image; }

bool SelectionAction::showsResultInPlace() const {
    return case_ == Case::sum || case_ == Case::askAI || case_ == Case::translate;
}

const std::vector<SelectionAction>& SelectionAction::defaults() {
    static const std::vector<SelectionAction> list{Case::copy, Case::search, Case::openLink,
                                                   Case::lookUp, Case::sum,  Case::revealInFinder};
    return list;
}

const std::vector<SelectionAction>& SelectionAction::builtIns() {
    static const std::vector<SelectionAction> list{Case::copy,      Case::search,        Case::openLink,
                                                   Case::lookUp,    Case::sum,           Case::askAI,
                                                   Case::translate, Case::sendToNotepad, Case::revealInFinder};
    return list;
}

std::vector<SelectionAction> SelectionAction::addingBuiltIns(std::vector<SelectionAction> actions,
                                                             std::int64_t seenGeneration) {
    if (seenGeneration >= 1) return actions;
    // Open in Finder is the one button added since the first generation.
    const SelectionAction added(Case::revealInFinder);
    bool present = std::any_of(actions.begin(), actions.end(),
                               [&](const SelectionAction& action) { return action.id() == added.id(); });
    if (!present) actions.push_back(added);
    return actions;
}

// Our own loop: libcurl's escaping also leaves "-._~" alone, and these URLs must carry nothing
// but letters and digits unescaped.
std::string SelectionAction::encode(std::string_view text) {
    if (!UnicodeText::isValidUTF8(text)) return "";
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size() * 3);
    for (unsigned char c : text) {
        if (std::isalnum(c) && c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 0x0F]);
        }
    }
    return out;
}

std::optional<URL> SelectionAction::url(const std::string& text, const SearchEngine& search) const {
    switch (case_) {
    case Case::search: return search.url(text);
    case Case::openLink: return link(text);
    case Case::lookUp: {
        std::string built = "dict://" + encode(text);
        if (!parseURL(built)) return std::nullopt;
        return URL::fromString(std::move(built));
    }
    case Case::custom: {
        std::string built = replacingAll(urlTemplate_, placeholder, encode(text));
        if (!parseURL(built)) return std::nullopt;
        return URL::fromString(std::move(built));
    }
    default: return std::nullopt;
    }
}

std::optional<URL> SelectionAction::link(std::string_view text) {
    auto trimmed = UnicodeText::trimmed(text);
    if (trimmed.empty()) return std::nullopt;
    for (auto word : UnicodeText::words(trimmed)) {
        auto candidate = linkCandidate(word);
        if (!candidate) continue;
        // Only the first link counts, and only a web one: mail and file links do not open here.
        if (!isHTTP(candidate->scheme)) return std::nullopt;
        auto parsed = parseURL(candidate->text);
        if (!parsed || parsed->host.empty()) return std::nullopt;
        return URL::fromString(std::move(candidate->text));
    }
    return std::nullopt;
}

bool SelectionAction::applies(const std::string& text, const std::string& home, const ItemKind& itemKind) const {
    switch (case_) {
    case Case::revealInFinder: {
        auto path = SelectionPath::resolve(text, home);
        return path && itemKind && itemKind(*path).has_value();
    }
    case Case::openLink: return link(text).has_value();
    default: return !UnicodeText::trimmed(text).empty();
    }
}

JSONValue SelectionAction::toJSON() const {
    JSONValue::Object payload;
    if (case_ == Case::custom) {
        payload.emplace("title", title_);
        payload.emplace("urlTemplate", urlTemplate_);
    }
    return JSONValue::Object{{std::string(rowOf(case_).id), JSONValue(std::move(payload))}};
}

SelectionAction SelectionAction::fromJSON(const JSONValue& json) {
    auto value = json.toJSON();
    auto [name, payload] = singleCase(value);
    for (const auto& row : actionRows) {
        if (row.id != name) continue;
        if (row.action == Case::custom)
            return custom(requiredString(*payload, "title"), requiredString(*payload, "urlTemplate"));
        return SelectionAction(row.action);
    }
    throw DecodingError("Cannot initialize SelectionAction from invalid key " + name);
}

// ---- SelectionActionList ----

std::string SelectionActionList::unknownDescription() const {
    return std::to_string(unknownCount()) + " buttons this build cannot read; they are saved back unchanged";
}

std::optional<std::string> SelectionActionList::encoded() const {
    try {
        nlohmann::json array = nlohmann::json::array();
        for (const auto& action : actions) array.push_back(action.toJSON().toJSON());
        for (const auto& entry : unknown) array.push_back(entry.toJSON());
        return array.dump();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<SelectionActionList> SelectionActionList::decode(std::string_view bytes) {
    nlohmann::json array;
    try {
        array = nlohmann::json::parse(bytes);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (!array.is_array()) return std::nullopt;
    SelectionActionList list;
    for (const auto& element : array) {
        JSONValue value;
        try {
            value = JSONValue::fromJSON(element);
        } catch (const DecodingError&) {
            return std::nullopt;
        }
        try {
            list.actions.push_back(SelectionAction::fromJSON(value));
        } catch (const DecodingError&) {
            list.unknown.push_back(std::move(value));
        }
    }
    return list;
}

SelectionActionList SelectionActionList::replacingActions(std::vector<SelectionAction> list) const {
    SelectionActionList copy = *this;
    copy.actions = std::move(list);
    return copy;
}

// ---- Appearance ----

std::string_view rawValue(SelectionBarSize size) {
    switch (size) {
    case SelectionBarSize::small: return "small";
    case SelectionBarSize::medium: return "medium";
    case SelectionBarSize::large: return "large";
    }
    return "medium";
}
std::string_view displayName(SelectionBarSize size) {
    switch (size) {
    case SelectionBarSize::small: return "Small";
    case SelectionBarSize::medium: return "Medium";
    case SelectionBarSize::large: return "Large";
    }
    return "Medium";
}
template <>
std::optional<SelectionBarSize> fromRaw<SelectionBarSize>(std::string_view raw) {
    for (auto size : {SelectionBarSize::small, SelectionBarSize::medium, SelectionBarSize::large})
        if (rawValue(size) == raw) return size;
    return std::nullopt;
}

std::string_view rawValue(SelectionBarLabels labels) {
    switch (labels) {
    case SelectionBarLabels::icon: return "icon";
    case SelectionBarLabels::text: return "text";
    case SelectionBarLabels::both: return "both";
    }
    return "icon";
}
std::string_view displayName(SelectionBarLabels labels) {
    switch (labels) {
    case SelectionBarLabels::icon: return "Icons";
    case SelectionBarLabels::text: return "Words";
    case SelectionBarLabels::both: return "Icons and words";
    }
    return "Icons";
}
template <>
std::optional<SelectionBarLabels> fromRaw<SelectionBarLabels>(std::string_view raw) {
    for (auto labels : {SelectionBarLabels::icon, SelectionBarLabels::text, SelectionBarLabels::both})
        if (rawValue(labels) == raw) return labels;
    return std::nullopt;
}

std::string SelectionAppearance::encoded() const {
    nlohmann::json json{{"size", rawValue(size)}, {"labels", rawValue(labels)}, {"isBold", isBold}};
    return json.dump();
}

SelectionAppearance SelectionAppearance::decode(std::string_view bytes) {
    auto json = JSONRead::parse(bytes);
    JSONRead::object(json);
    auto sizeText = JSONRead::string(JSONRead::field(json, "size"), "size");
    auto labelsText = JSONRead::string(JSONRead::field(json, "labels"), "labels");
    SelectionAppearance appearance;
    auto size = fromRaw<SelectionBarSize>(sizeText);
    if (!size) throw JSONRead::invalidRawValue("SelectionBarSize", sizeText);
    auto labels = fromRaw<SelectionBarLabels>(labelsText);
    if (!labels) throw JSONRead::invalidRawValue("SelectionBarLabels", labelsText);
    appearance.size = *size;
    appearance.labels = *labels;
    appearance.isBold = JSONRead::boolean(JSONRead::field(json, "isBold"), "isBold");
    return appearance;
}

// ---- Copy on select ----

CopyOnSelectDecision::CopyOnSelectDecision(bool isEnabled, SelectionMode mode) {
    if (!isEnabled) {
        reason = "“Copy every selection automatically” is off in Settings › Selection";
    } else if (mode != SelectionMode::automatic) {
        reason = "the bar is set to “" + std::string(tavrick::displayName(mode)) + "”, and this applies only to “" +
                 std::string(tavrick::displayName(SelectionMode::automatic)) + "”";
    } else {
        shouldCopy = true;
    }
}

} // namespace tavrick
