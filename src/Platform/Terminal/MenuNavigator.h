#pragma once

#include "CoreKit/MenuModel.h"

#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// Where the user is in a menu drawn as text, and what each key does there. Plain logic over
// snapshots: it keeps ids, never entries, so a new snapshot (a ticking timer, a section moved)
// leaves the cursor on the same line, and a submenu that went away closes by itself.
class MenuNavigator {
public:
    enum class KeyKind { up, down, enter, back, forward, escape, character, backspace, pageUp, pageDown };
    struct Key {
        KeyKind kind;
        char character = 0;
        static Key of(KeyKind kind) { return {kind, 0}; }
        static Key letter(char c) { return {KeyKind::character, c}; }
    };

    // What the host must do after a key.
    struct Outcome {
        enum class Kind { none, activate, submit, quit };
        Kind kind = Kind::none;
        std::string id;
        std::string text;
        friend bool operator==(const Outcome&, const Outcome&) = default;
    };

    // The letter of each line of `entries` (0 for lines that take none): a line's own preference
    // when free, else the first free letter of its title, else the first free letter a–z, then
    // 0–9. "q" always quits, so no line gets it.
    static std::vector<char> letters(const std::vector<MenuEntry>& entries);
    static bool isSelectable(const MenuEntry& entry);

    // The entries shown now, and the ids of the submenus leading to them.
    const std::vector<MenuEntry>& visible(const MenuSnapshot& snapshot);
    std::vector<std::string> path(const MenuSnapshot& snapshot);
    // The id under the cursor; empty when the level has nothing to choose.
    std::string cursor(const MenuSnapshot& snapshot);

    Outcome press(const MenuSnapshot& snapshot, Key key);

    // Opens the submenus `ids`, from the top level down; those that do not exist are dropped.
    void open(std::vector<std::string> ids);

    // While a field is being typed into: its id and the text so far.
    bool isEditing() const { return editing_.has_value(); }
    const std::string& editedID() const { return editing_->id; }
    const std::string& editText() const { return editing_->text; }
    bool editIsSecret() const { return editing_ && editing_->secret; }
    // The editor's question: the field's title.
    const std::string& editTitle() const { return editing_->title; }

private:
    struct Edit {
        std::string id;
        std::string title;
        std::string text;
        bool secret = false;
    };
    // Drops levels whose submenu is gone, and puts the cursor on a line that can be chosen.
    void settle(const MenuSnapshot& snapshot);
    Outcome choose(const MenuEntry& entry);
    void move(const std::vector<MenuEntry>& entries, int step);

    std::vector<std::string> stack_;
    // The chosen line's id at each level, the top level first.
    std::vector<std::string> cursors_{std::string()};
    std::optional<Edit> editing_;
    std::vector<MenuEntry> empty_;
};

} // namespace tavrick
