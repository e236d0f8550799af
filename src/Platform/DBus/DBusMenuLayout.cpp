#include "Platform/DBus/DBusMenuLayout.h"

namespace tavrick {

namespace {

std::string escapedLabel(const std::string& title) {
    std::string out;
    out.reserve(title.size());
    for (char c : title) {
        if (c == '_') out += '_';
        out += c;
    }
    return out;
}

} // namespace

DBusMenuLayout::DBusMenuLayout() {
    root_.properties = {{"children-display", std::string("submenu")}};
    index(root_);
}

DBusMenuProperties DBusMenuLayout::properties(const MenuEntry& entry) {
    if (entry.kind == MenuEntry::Kind::separator) return {{"type", std::string("separator")}};
    DBusMenuProperties out{
        {"type", std::string("standard")},
        {"label", escapedLabel(entry.title)},
        // A text line is shown but cannot be chosen.
        {"enabled", entry.isEnabled && entry.kind != MenuEntry::Kind::label},
        {"visible", true},
    };
    if (entry.kind == MenuEntry::Kind::toggle) {
        out["toggle-type"] = std::string("checkmark");
        out["toggle-state"] = std::int32_t{entry.isOn ? 1 : 0};
    }
    if (entry.kind == MenuEntry::Kind::submenu) out["children-display"] = std::string("submenu");
    return out;
}

DBusMenuItem DBusMenuLayout::build(const MenuEntry& entry, const std::string& key) {
    auto [found, inserted] = numbers_.try_emplace(key, nextID_);
    if (inserted) ++nextID_;
    DBusMenuItem item{found->second, properties(entry), {}};
    for (std::size_t i = 0; i < entry.children.size(); ++i) {
        const auto& child = entry.children[i];
        // Lines without an id (dividers) are named by their place under their parent.
        item.children.push_back(build(child, child.id.empty() ? key + "/#" + std::to_string(i) : child.id));
    }
    targets_[item.id] = Target{entry.id, entry.kind};
    return item;
}

bool DBusMenuLayout::sameShape(const DBusMenuItem& a, const DBusMenuItem& b) {
    if (a.id != b.id || a.children.size() != b.children.size()) return false;
    if (a.properties.count("type") && b.properties.count("type") && a.properties.at("type") != b.properties.at("type")) {
        return false;
    }
    if (a.properties.count("children-display") != b.properties.count("children-display")) return false;
    for (std::size_t i = 0; i < a.children.size(); ++i) {
        if (!sameShape(a.children[i], b.children[i])) return false;
    }
    return true;
}

void DBusMenuLayout::collectChanged(const DBusMenuItem& before, const DBusMenuItem& after, std::vector<std::int32_t>& out) {
    if (before.properties != after.properties) out.push_back(after.id);
    for (std::size_t i = 0; i < after.children.size(); ++i) collectChanged(before.children[i], after.children[i], out);
}

void DBusMenuLayout::index(const DBusMenuItem& item) {
    byID_[item.id] = &item;
    for (const auto& child : item.children) index(child);
}

DBusMenuLayout::Update DBusMenuLayout::update(const MenuSnapshot& snapshot) {
    DBusMenuItem root{0, root_.properties, {}};
    targets_.clear();
    for (std::size_t i = 0; i < snapshot.entries.size(); ++i) {
        const auto& entry = snapshot.entries[i];
        root.children.push_back(build(entry, entry.id.empty() ? "/#" + std::to_string(i) : entry.id));
    }
    Update update;
    if (!sameShape(root_, root)) {
        update.change = Change::layout;
    } else {
        collectChanged(root_, root, update.changedIDs);
        if (!update.changedIDs.empty()) update.change = Change::properties;
    }
    root_ = std::move(root);
    byID_.clear();
    index(root_);
    if (update.change != Change::none) ++revision_;
    return update;
}

const DBusMenuItem* DBusMenuLayout::find(std::int32_t id) const {
    auto found = byID_.find(id);
    return found == byID_.end() ? nullptr : found->second;
}

std::optional<DBusMenuLayout::Target> DBusMenuLayout::target(std::int32_t id) const {
    auto found = targets_.find(id);
    if (found == targets_.end()) return std::nullopt;
    return found->second;
}

} // namespace tavrick
