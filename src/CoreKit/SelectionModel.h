#pragma once

#include "CoreKit/JSONValue.h"
#include "CoreKit/Models.h"
#include "CoreKit/SettingsTypes.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tavrick {

// What the selection bar needs to know about the disk: whether a path is a folder or a file.
enum class SelectionPathKind { folder, file };
std::string_view rawValue(SelectionPathKind kind);

// ---- Search engines ----

class SearchEngine {
public:
    enum class Case { duckDuckGo, google, bing, brave, startpage, ecosia, kagi, wikipedia, custom };

    SearchEngine() = default;
    SearchEngine(Case engine) : case_(engine) {}
    static SearchEngine custom(std::string templateText);

    Case kind() const { return case_; }
    // The user's template of a custom engine; empty for the others.
    const std::string& customTemplate() const { return template_; }

    std::string_view id() const;
    std::string_view displayName() const;
    // The whole template with "{text}" where the selection goes.
    std::string templateText() const;
    // The sentence under the engine in the pane; empty for most.
    std::string_view note() const;

    // The template with "{text}" replaced by the selection percent-encoded; nothing when the
    // result is not a URL.
    std::optional<URL> url(const std::string& text) const;
    static bool isValidTemplate(std::string_view text);

    // The eight named engines, without `custom`.
    static const std::vector<SearchEngine>& allCases();

    // {"duckDuckGo":{}} or {"custom":{"template":"…"}}; throws DecodingError.
    JSONValue toJSON() const;
    static SearchEngine fromJSON(const JSONValue& json);

    friend bool operator==(const SearchEngine&, const SearchEngine&) = default;

private:
    Case case_ = Case::duckDuckGo;
    std::string template_;
};

// ---- Buttons ----

class SelectionAction {
public:
    enum class Case { copy, search, openLink, lookUp, sum, askAI, translate, sendToNotepad, revealInFinder, custom };

    SelectionAction(Case action) : case_(action) {}
    static SelectionAction custom(std::string title, std::string urlTemplate);

    Case kind() const { return case_; }
    const std::string& customTitle() const { return title_; }
    const std::string& urlTemplate() const { return urlTemplate_; }

    std::string id() const;
    std::string title() const;
    std::string shortTitle() const;
    std::string_view systemImageName() const;
    // The button the bar emphasises.
    bool isDefault() const { return case_ == Case::copy; }
    // The answer goes to the result window rather than somewhere else.
    bool showsResultInPlace() const;

    // A new user's bar, in order.
    static const std::vector<SelectionAction>& defaults();
    // Everything the pane can offer, in order: the nine plain cases.
    static const std::vector<SelectionAction>& builtIns();
    static constexpr std::int64_t currentGeneration = 1;

    // Adds the built-in buttons introduced since `seenGeneration`, so a button the user removed
    // after seeing it stays removed.
    static std::vector<SelectionAction> addingBuiltIns(std::vector<SelectionAction> actions,
                                                       std::int64_t seenGeneration);

    // Percent-encoding that leaves only ASCII letters and digits as they are; "" when the text
    // is not UTF-8.
    static std::string encode(std::string_view text);
    std::optional<URL> url(const std::string& text, const SearchEngine& search) const;
    // The first link a person would see in the text, when it is a web address.
    static std::optional<URL> link(std::string_view text);

    using ItemKind = std::function<std::optional<SelectionPathKind>(const std::string& path)>;
    // Whether the bar offers this button for `text`. `itemKind` is asked only for the
    // Open-in-Finder button, so the disk is touched only when needed.
    bool applies(const std::string& text, const std::string& home, const ItemKind& itemKind) const;

    // {"copy":{}} or {"custom":{"title":"…","urlTemplate":"…"}}; throws DecodingError.
    JSONValue toJSON() const;
    static SelectionAction fromJSON(const JSONValue& json);

    friend bool operator==(const SelectionAction&, const SelectionAction&) = default;

private:
    Case case_;
    std::string title_;
    std::string urlTemplate_;
};

// The stored list of buttons, with the entries this build could not read kept to be written back.
struct SelectionActionList {
    std::vector<SelectionAction> actions;
    std::vector<JSONValue> unknown;

    SelectionActionList() = default;
    explicit SelectionActionList(std::vector<SelectionAction> known) : actions(std::move(known)) {}

    std::size_t unknownCount() const { return unknown.size(); }
    // "3 buttons this build cannot read; they are saved back unchanged"
    std::string unknownDescription() const;

    // The known buttons, then the unknown ones with sorted keys; nothing when encoding fails.
    std::optional<std::string> encoded() const;
    // Nothing only when the bytes are not a JSON array.
    static std::optional<SelectionActionList> decode(std::string_view bytes);
    SelectionActionList replacingActions(std::vector<SelectionAction> list) const;

    friend bool operator==(const SelectionActionList&, const SelectionActionList&) = default;
};

// ---- How the bar looks ----

enum class SelectionBarSize { small, medium, large };
std::string_view rawValue(SelectionBarSize size);
std::string_view displayName(SelectionBarSize size);
template <>
std::optional<SelectionBarSize> fromRaw<SelectionBarSize>(std::string_view raw);

enum class SelectionBarLabels { icon, text, both };
std::string_view rawValue(SelectionBarLabels labels);
std::string_view displayName(SelectionBarLabels labels);
template <>
std::optional<SelectionBarLabels> fromRaw<SelectionBarLabels>(std::string_view raw);

struct SelectionAppearance {
    SelectionBarSize size = SelectionBarSize::medium;
    SelectionBarLabels labels = SelectionBarLabels::icon;
    bool isBold = false;

    // {"size":…,"labels":…,"isBold":…}, all three required; throws DecodingError.
    std::string encoded() const;
    static SelectionAppearance decode(std::string_view bytes);

    friend bool operator==(const SelectionAppearance&, const SelectionAppearance&) = default;
};

// Whether a selection is copied the moment it is made, and if not, why not.
struct CopyOnSelectDecision {
    bool shouldCopy = false;
    std::string reason;

    CopyOnSelectDecision(bool isEnabled, SelectionMode mode);
};

} // namespace tavrick
