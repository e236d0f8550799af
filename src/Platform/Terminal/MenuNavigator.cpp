#include "Platform/Terminal/MenuNavigator.h"

#include <algorithm>
#include <cctype>

namespace tavrick {

namespace {

const MenuEntry* findChild(const std::vector<MenuEntry>& entries, const std::string& id) {
    for (const auto& e : entries) {
        if (e.id == id) return &e;
    }
    return nullptr;
}

} // namespace

bool MenuNavigator::isSelectable(const MenuEntry& entry) {
    if (!entry.isEnabled) return false;
    return entry.kind != MenuEntry::Kind::label && entry.kind != MenuEntry::Kind::separator;
}

std::vector<char> MenuNavigator::letters(const std::vector<MenuEntry>& entries) {
    std::vector<char> result(entries.size(), 0);
    bool taken[128] = {};
    taken[static_cast<unsigned char>('q')] = true;
    auto take = [&](char c) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))) return char(0);
        if (taken[static_cast<unsigned char>(c)]) return char(0);
        taken[static_cast<unsigned char>(c)] = true;
        return c;
    };
    // Preferences first, so that a later line cannot take a letter an earlier model asked for.
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (isSelectable(entries[i]) && entries[i].shortcut) result[i] = take(*entries[i].shortcut);
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (!isSelectable(entries[i]) || result[i]) continue;
        for (char c : entries[i].title) {
            if (std::isalpha(static_cast<unsigned char>(c)) && (result[i] = take(c))) break;
        }
        for (char c = 'a'; !result[i] && c <= 'z'; ++c) result[i] = take(c);
        for (char c = '0'; !result[i] && c <= '9'; ++c) result[i] = take(c);
    }
    return result;
}

void MenuNavigator::settle(const MenuSnapshot& snapshot) {
    const std::vector<MenuEntry>* level = &snapshot.entries;
    std::size_t depth = 0;
    for (; depth < stack_.size(); ++depth) {
        const MenuEntry* sub = findChild(*level, stack_[depth]);
        if (!sub || sub->kind != MenuEntry::Kind::submenu) break;
        level = &sub->children;
    }
    if (depth < stack_.size()) {
        stack_.resize(depth);
        cursors_.resize(depth + 1);
        editing_.reset();
    }
    // A field that went away takes its editor with it.
    if (editing_ && !findChild(*level, editing_->id)) editing_.reset();
    auto& cursor = cursors_.back();
    const MenuEntry* at = findChild(*level, cursor);
    if (at && isSelectable(*at)) return;
    for (const auto& e : *level) {
        if (isSelectable(e)) {
            cursor = e.id;
            return;
        }
    }
    cursor.clear();
}

const std::vector<MenuEntry>& MenuNavigator::visible(const MenuSnapshot& snapshot) {
    settle(snapshot);
    const std::vector<MenuEntry>* level = &snapshot.entries;
    for (const auto& id : stack_) level = &findChild(*level, id)->children;
    return *level;
}

std::vector<std::string> MenuNavigator::path(const MenuSnapshot& snapshot) {
    settle(snapshot);
    std::vector<std::string> titles;
    const std::vector<MenuEntry>* level = &snapshot.entries;
    for (const auto& id : stack_) {
        const MenuEntry* sub = findChild(*level, id);
        titles.push_back(sub->title);
        level = &sub->children;
    }
    return titles;
}

std::string MenuNavigator::cursor(const MenuSnapshot& snapshot) {
    settle(snapshot);
    return cursors_.back();
}

void MenuNavigator::move(const std::vector<MenuEntry>& entries, int step) {
    auto& cursor = cursors_.back();
    const auto n = static_cast<int>(entries.size());
    int at = -1;
    for (int i = 0; i < n; ++i) {
        if (entries[static_cast<std::size_t>(i)].id == cursor) at = i;
    }
    if (at < 0) return;
    // Up from the first line goes to the last, and down from the last to the first.
    for (int k = 1; k <= n; ++k) {
        const int i = ((at + step * k) % n + n) % n;
        if (isSelectable(entries[static_cast<std::size_t>(i)])) {
            cursor = entries[static_cast<std::size_t>(i)].id;
            return;
        }
    }
}

MenuNavigator::Outcome MenuNavigator::choose(const MenuEntry& entry) {
    cursors_.back() = entry.id;
    switch (entry.kind) {
    case MenuEntry::Kind::submenu:
        stack_.push_back(entry.id);
        cursors_.emplace_back();
        return {};
    case MenuEntry::Kind::field:
        editing_ = Edit{entry.id, entry.title, entry.isSecret ? std::string() : entry.value, entry.isSecret};
        return {};
    case MenuEntry::Kind::command:
    case MenuEntry::Kind::toggle: return {Outcome::Kind::activate, entry.id, {}};
    case MenuEntry::Kind::label:
    case MenuEntry::Kind::separator: break;
    }
    return {};
}

void MenuNavigator::open(std::vector<std::string> ids) {
    editing_.reset();
    stack_ = std::move(ids);
    cursors_.assign(stack_.size() + 1, std::string());
    // Each opened submenu's line stays chosen at the level above it.
    for (std::size_t i = 0; i < stack_.size(); ++i) cursors_[i] = stack_[i];
}

MenuNavigator::Outcome MenuNavigator::press(const MenuSnapshot& snapshot, Key key) {
    const auto& entries = visible(snapshot);
    if (editing_) {
        switch (key.kind) {
        case KeyKind::enter: {
            Outcome out{Outcome::Kind::submit, editing_->id, editing_->text};
            editing_.reset();
            return out;
        }
        case KeyKind::escape: editing_.reset(); return {};
        case KeyKind::backspace:
            if (!editing_->text.empty()) {
                // Whole characters, not the last byte of one.
                auto& t = editing_->text;
                std::size_t cut = t.size() - 1;
                while (cut > 0 && (static_cast<unsigned char>(t[cut]) & 0xC0) == 0x80) --cut;
                t.erase(cut);
            }
            return {};
        case KeyKind::character:
            if (static_cast<unsigned char>(key.character) >= 0x20 && key.character != 0x7F) editing_->text += key.character;
            return {};
        default: return {};
        }
    }
    switch (key.kind) {
    case KeyKind::up: move(entries, -1); return {};
    case KeyKind::down: move(entries, 1); return {};
    case KeyKind::pageUp:
    case KeyKind::pageDown: {
        for (int i = 0; i < 10; ++i) move(entries, key.kind == KeyKind::pageUp ? -1 : 1);
        return {};
    }
    case KeyKind::enter:
    case KeyKind::forward: {
        const MenuEntry* at = findChild(entries, cursors_.back());
        if (!at) return {};
        // Right opens a submenu and does nothing else, so it never flips a switch by accident.
        if (key.kind == KeyKind::forward && at->kind != MenuEntry::Kind::submenu) return {};
        return choose(*at);
    }
    case KeyKind::back:
    case KeyKind::escape:
        if (!stack_.empty()) {
            stack_.pop_back();
            cursors_.pop_back();
        }
        return {};
    case KeyKind::backspace: return {};
    case KeyKind::character: {
        const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(key.character)));
        if (c == 'q') return {Outcome::Kind::quit, {}, {}};
        const auto marks = letters(entries);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (marks[i] && marks[i] == c) return choose(entries[i]);
        }
        return {};
    }
    }
    return {};
}

} // namespace tavrick
