#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavrick {

// One line of the menu as every face draws it (the terminal menu, the tray menu). Faces keep
// no state of their own: they draw the latest snapshot and hand commands back by `id`.
struct MenuEntry {
    enum class Kind {
        command,   // runs something when chosen
        toggle,    // a switch; `isOn` says its state, choosing it flips it
        submenu,   // opens `children`
        label,     // text only (a reading, a status line)
        separator, // a divider between sections
        field,     // a value the user types; `value` holds it now, `submit` takes the new text
    };

    // Stable across snapshots while the line means the same thing ("pomodoro.start",
    // "clipboard.item.3"), so a face can keep its cursor and a tray host can send events for it.
    std::string id;
    Kind kind = Kind::command;
    std::string title;
    bool isOn = false;
    bool isEnabled = true;
    // The letter a keyboard face may offer for the line, when the model has a preference.
    std::optional<char> shortcut;
    std::vector<MenuEntry> children;
    // A field's current text, and whether a face must hide what is typed (a passphrase).
    std::string value;
    bool isSecret = false;

    friend bool operator==(const MenuEntry&, const MenuEntry&) = default;

    static MenuEntry make(std::string id, Kind kind, std::string title) {
        MenuEntry e;
        e.id = std::move(id);
        e.kind = kind;
        e.title = std::move(title);
        return e;
    }
};

struct MenuSnapshot {
    // The menu bar item's own text: the glyph's name or the readout ("2,400 rpm").
    std::string label;
    std::vector<MenuEntry> entries;
    friend bool operator==(const MenuSnapshot&, const MenuSnapshot&) = default;
};

// What a face draws and where it sends the user's choices. Confined to the main queue.
class MenuSource {
public:
    virtual ~MenuSource() = default;

    // The menu as it stands now. Cheap enough to call on every change.
    virtual MenuSnapshot snapshot() const = 0;

    // The user chose the line `id`. Unknown or stale ids are ignored (a host may ask for a line
    // that has gone away); returns false for them.
    virtual bool activate(const std::string& id) = 0;

    // The user typed `text` into the field `id`. False for unknown ids and for text the field
    // refuses; the source says why through a toast.
    virtual bool submit(const std::string& id, const std::string& text) {
        (void)id;
        (void)text;
        return false;
    }

    // A face calls these when its menu shows and goes away, so that readings are taken only
    // while somebody looks.
    virtual void menuWillOpen() {}
    virtual void menuDidClose() {}

    // Called when the snapshot may have changed. One observer per face; returns a token that
    // the face keeps while it listens.
    virtual int addChangeObserver(std::function<void()> observer) = 0;
    virtual void removeChangeObserver(int token) = 0;

    // Short confirmations and warnings the menu shows after a command ("Finder relaunched").
    // A face that can show them installs this; otherwise they go to the log.
    std::function<void(const std::string& title, const std::string& detail)> onToast;
};

} // namespace tavrick
