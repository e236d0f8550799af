#pragma once

#include "CoreKit/MenuModel.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tavrick {

// A value of a menu item's property as a tray host reads it.
using DBusMenuProperty = std::variant<bool, std::int32_t, std::string>;
using DBusMenuProperties = std::map<std::string, DBusMenuProperty>;

struct DBusMenuItem {
    std::int32_t id = 0;
    DBusMenuProperties properties;
    std::vector<DBusMenuItem> children;
    friend bool operator==(const DBusMenuItem&, const DBusMenuItem&) = default;
};

// The menu model turned into the tree a tray host asks for: numbered items (0 is the root) with
// their properties. A line keeps its number for as long as the model keeps its id, so a host
// that sends an event for an older layout still reaches the same line, and a number is never
// given to another line. Plain data: the bus adapter serves it.
class DBusMenuLayout {
public:
    enum class Change {
        none,       // nothing a host can see
        properties, // same items in the same places; some properties changed (`changedIDs`)
        layout,     // items came, went or moved
    };
    struct Update {
        Change change = Change::none;
        std::vector<std::int32_t> changedIDs;
    };

    DBusMenuLayout();

    // Takes the latest snapshot; the revision moves on every change a host can see.
    Update update(const MenuSnapshot& snapshot);

    const DBusMenuItem& root() const { return root_; }
    std::uint32_t revision() const { return revision_; }
    const DBusMenuItem* find(std::int32_t id) const;
    // The model's id and kind of a numbered line, for events.
    struct Target {
        std::string entryID;
        MenuEntry::Kind kind;
    };
    std::optional<Target> target(std::int32_t id) const;

    // The properties of one entry: its type, its label (underscores doubled, since a single one
    // marks an access key), whether it can be chosen, and for switches their check mark.
    static DBusMenuProperties properties(const MenuEntry& entry);

private:
    DBusMenuItem build(const MenuEntry& entry, const std::string& key);
    static bool sameShape(const DBusMenuItem& a, const DBusMenuItem& b);
    static void collectChanged(const DBusMenuItem& before, const DBusMenuItem& after, std::vector<std::int32_t>& out);
    void index(const DBusMenuItem& item);

    DBusMenuItem root_;
    std::uint32_t revision_ = 0;
    std::int32_t nextID_ = 1;
    std::map<std::string, std::int32_t> numbers_;
    std::map<std::int32_t, const DBusMenuItem*> byID_;
    std::map<std::int32_t, Target> targets_;
};

} // namespace tavrick
