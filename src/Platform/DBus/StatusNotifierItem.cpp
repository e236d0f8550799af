#include "Platform/DBus/StatusNotifierItem.h"

#include "CoreKit/Dispatch.h"
#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/TrayIcon.h"

#include <unistd.h>

#include <atomic>
#include <chrono>

namespace tavrick {

namespace {

constexpr const char* itemInterface = "org.kde.StatusNotifierItem";
constexpr const char* menuInterface = "com.canonical.dbusmenu";
constexpr const char* unknownID = "com.canonical.dbusmenu.Error.UnknownId";

using Properties = std::map<std::string, sdbus::Variant>;
using Layout = sdbus::Struct<std::int32_t, Properties, std::vector<sdbus::Variant>>;
using Pixmap = sdbus::Struct<std::int32_t, std::int32_t, std::vector<std::uint8_t>>;
using ToolTip = sdbus::Struct<std::string, std::vector<Pixmap>, std::string, std::string>;

Properties toVariants(const DBusMenuProperties& properties, const std::vector<std::string>& names) {
    Properties out;
    for (const auto& [name, value] : properties) {
        if (!names.empty() && std::find(names.begin(), names.end(), name) == names.end()) continue;
        std::visit([&, key = name](const auto& v) { out.emplace(key, sdbus::Variant(v)); }, value);
    }
    return out;
}

Layout toLayout(const DBusMenuItem& item, std::int32_t depth, const std::vector<std::string>& names) {
    Layout layout;
    std::get<0>(layout) = item.id;
    std::get<1>(layout) = toVariants(item.properties, names);
    if (depth != 0) {
        for (const auto& child : item.children) {
            std::get<2>(layout).emplace_back(toLayout(child, depth < 0 ? -1 : depth - 1, names));
        }
    }
    return layout;
}

std::vector<Pixmap> iconPixmaps() {
    std::vector<Pixmap> out;
    for (auto size : TrayIcon::sizes()) {
        auto drawn = TrayIcon::draw(size);
        out.emplace_back(drawn.width, drawn.height, std::move(drawn.argb));
    }
    return out;
}

std::string nextBusName() {
    static std::atomic<int> counter{0};
    return "org.kde.StatusNotifierItem-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
}

} // namespace

StatusNotifierItem::StatusNotifierItem(BusLoop& loop, sdbus::IConnection& session, Scheduler& main, Note note)
    : loop_(loop), session_(session), main_(main), note_(std::move(note)), busName_(nextBusName()) {}

StatusNotifierItem::~StatusNotifierItem() {
    *alive_ = false;
    if (source_) source_->removeChangeObserver(observer_);
    // Everything posted before runs first; then the objects leave the bus.
    loop_.sync([this] {
        watcherOwner_.reset();
        hostRegistered_.reset();
        item_.reset();
        menu_.reset();
        if (loop_.isAlive(session_)) {
            try {
                session_.releaseName(busName_);
            } catch (const sdbus::Error&) {
            }
        }
    });
}

void StatusNotifierItem::setSource(MenuSource* source) {
    if (source_) source_->removeChangeObserver(observer_);
    source_ = source;
    if (source_) {
        observer_ = source_->addChangeObserver([this, alive = std::weak_ptr<bool>(alive_)] {
            if (alive.lock()) refresh();
        });
    }
    refresh();
}

void StatusNotifierItem::refresh() {
    auto snapshot = source_ ? source_->snapshot() : MenuSnapshot{};
    loop_.post([this, snapshot = std::move(snapshot)] { apply(snapshot); });
}

std::string StatusNotifierItem::title() const {
    return label_.empty() ? "Tavrick" : "Tavrick — " + label_;
}

void StatusNotifierItem::apply(const MenuSnapshot& snapshot) {
    const auto update = layout_.update(snapshot);
    const bool labelChanged = snapshot.label != label_;
    label_ = snapshot.label;
    if (!menu_ || !loop_.isAlive(session_)) return;
    try {
        if (update.change == DBusMenuLayout::Change::layout) {
            menu_->emitSignal("LayoutUpdated").onInterface(menuInterface).withArguments(layout_.revision(), std::int32_t{0});
        } else if (update.change == DBusMenuLayout::Change::properties) {
            std::vector<sdbus::Struct<std::int32_t, Properties>> updated;
            for (auto id : update.changedIDs) {
                if (const auto* item = layout_.find(id)) updated.emplace_back(id, toVariants(item->properties, {}));
            }
            std::vector<sdbus::Struct<std::int32_t, std::vector<std::string>>> removed;
            menu_->emitSignal("ItemsPropertiesUpdated").onInterface(menuInterface).withArguments(updated, removed);
        }
        if (labelChanged) {
            item_->emitSignal("NewTitle").onInterface(itemInterface);
            item_->emitSignal("NewToolTip").onInterface(itemInterface);
        }
    } catch (const sdbus::Error& failure) {
        note_("the tray menu could not tell the host about a change: " + failure.getMessage());
    }
}

void StatusNotifierItem::choose(std::int32_t id, const std::string& eventID) {
    const auto target = layout_.target(id);
    if (!target) {
        note_("the tray host chose item " + std::to_string(id) + ", which the menu no longer has; nothing ran");
        throw sdbus::Error(unknownID, "No menu item with id " + std::to_string(id));
    }
    if (eventID != "clicked") return;
    if (target->kind != MenuEntry::Kind::command && target->kind != MenuEntry::Kind::toggle) return;
    main_.async([this, alive = std::weak_ptr<bool>(alive_), entryID = target->entryID] {
        if (!alive.lock() || !source_) return;
        if (!source_->activate(entryID)) note_("the tray menu's “" + entryID + "” is no longer there; nothing ran");
    });
}

void StatusNotifierItem::exportObjects() {
    menu_ = sdbus::createObject(session_, menuPath);
    menu_->registerMethod("GetLayout")
        .onInterface(menuInterface)
        .implementedAs([this](std::int32_t parentID, std::int32_t depth, const std::vector<std::string>& names) {
            const auto* parent = layout_.find(parentID);
            if (!parent) throw sdbus::Error(unknownID, "No menu item with id " + std::to_string(parentID));
            return std::make_tuple(layout_.revision(), toLayout(*parent, depth, names));
        });
    menu_->registerMethod("GetGroupProperties")
        .onInterface(menuInterface)
        .implementedAs([this](const std::vector<std::int32_t>& ids, const std::vector<std::string>& names) {
            std::vector<sdbus::Struct<std::int32_t, Properties>> out;
            for (auto id : ids) {
                if (const auto* item = layout_.find(id)) out.emplace_back(id, toVariants(item->properties, names));
            }
            return out;
        });
    menu_->registerMethod("GetProperty")
        .onInterface(menuInterface)
        .implementedAs([this](std::int32_t id, const std::string& name) {
            const auto* item = layout_.find(id);
            if (!item) throw sdbus::Error(unknownID, "No menu item with id " + std::to_string(id));
            auto values = toVariants(item->properties, {name});
            if (values.empty()) throw sdbus::Error("com.canonical.dbusmenu.Error.UnknownProperty", "No property " + name);
            return values.begin()->second;
        });
    menu_->registerMethod("Event")
        .onInterface(menuInterface)
        .implementedAs([this](std::int32_t id, const std::string& eventID, const sdbus::Variant&, std::uint32_t) {
            choose(id, eventID);
        });
    menu_->registerMethod("EventGroup")
        .onInterface(menuInterface)
        .implementedAs([this](const std::vector<sdbus::Struct<std::int32_t, std::string, sdbus::Variant, std::uint32_t>>& events) {
            std::vector<std::int32_t> errors;
            for (const auto& event : events) {
                try {
                    choose(std::get<0>(event), std::get<1>(event));
                } catch (const sdbus::Error&) {
                    errors.push_back(std::get<0>(event));
                }
            }
            if (!events.empty() && errors.size() == events.size()) {
                throw sdbus::Error(unknownID, "None of the chosen items is in the menu");
            }
            return errors;
        });
    // The layout is sent whole on every change, so nothing needs refreshing before a menu opens.
    menu_->registerMethod("AboutToShow").onInterface(menuInterface).implementedAs([this](std::int32_t id) {
        if (!layout_.find(id)) throw sdbus::Error(unknownID, "No menu item with id " + std::to_string(id));
        return false;
    });
    menu_->registerMethod("AboutToShowGroup")
        .onInterface(menuInterface)
        .implementedAs([this](const std::vector<std::int32_t>& ids) {
            std::vector<std::int32_t> errors;
            for (auto id : ids) {
                if (!layout_.find(id)) errors.push_back(id);
            }
            return std::make_tuple(std::vector<std::int32_t>{}, errors);
        });
    menu_->registerSignal("ItemsPropertiesUpdated")
        .onInterface(menuInterface)
        .withParameters<std::vector<sdbus::Struct<std::int32_t, Properties>>,
                        std::vector<sdbus::Struct<std::int32_t, std::vector<std::string>>>>();
    menu_->registerSignal("LayoutUpdated").onInterface(menuInterface).withParameters<std::uint32_t, std::int32_t>();
    menu_->registerSignal("ItemActivationRequested").onInterface(menuInterface).withParameters<std::int32_t, std::uint32_t>();
    menu_->registerProperty("Version").onInterface(menuInterface).withGetter([] { return std::uint32_t{3}; });
    menu_->registerProperty("TextDirection").onInterface(menuInterface).withGetter([] { return std::string("ltr"); });
    menu_->registerProperty("Status").onInterface(menuInterface).withGetter([] { return std::string("normal"); });
    menu_->registerProperty("IconThemePath").onInterface(menuInterface).withGetter([] { return std::vector<std::string>{}; });
    menu_->finishRegistration();

    item_ = sdbus::createObject(session_, itemPath);
    auto text = [this](const char* name, auto getter) {
        item_->registerProperty(name).onInterface(itemInterface).withGetter(getter);
    };
    text("Category", [] { return std::string("ApplicationStatus"); });
    text("Id", [] { return std::string("tavrick"); });
    text("Title", [this] { return title(); });
    text("Status", [] { return std::string("Active"); });
    text("IconName", [] { return std::string(); });
    text("IconThemePath", [] { return std::string(); });
    text("OverlayIconName", [] { return std::string(); });
    text("AttentionIconName", [] { return std::string(); });
    text("AttentionMovieName", [] { return std::string(); });
    item_->registerProperty("WindowId").onInterface(itemInterface).withGetter([] { return std::int32_t{0}; });
    item_->registerProperty("ItemIsMenu").onInterface(itemInterface).withGetter([] { return true; });
    item_->registerProperty("Menu").onInterface(itemInterface).withGetter([] { return sdbus::ObjectPath(menuPath); });
    item_->registerProperty("IconPixmap").onInterface(itemInterface).withGetter([] { return iconPixmaps(); });
    item_->registerProperty("OverlayIconPixmap").onInterface(itemInterface).withGetter([] { return std::vector<Pixmap>{}; });
    item_->registerProperty("AttentionIconPixmap").onInterface(itemInterface).withGetter([] { return std::vector<Pixmap>{}; });
    item_->registerProperty("ToolTip").onInterface(itemInterface).withGetter([this] {
        return ToolTip(std::string(), std::vector<Pixmap>{}, title(), std::string());
    });
    auto toMain = [this](std::function<void()> action) {
        main_.async([alive = std::weak_ptr<bool>(alive_), action = std::move(action)] {
            if (alive.lock()) action();
        });
    };
    item_->registerMethod("Activate").onInterface(itemInterface).implementedAs([this, toMain](std::int32_t, std::int32_t) {
        toMain([this] {
            if (onActivate) onActivate();
        });
    });
    item_->registerMethod("SecondaryActivate").onInterface(itemInterface).implementedAs([](std::int32_t, std::int32_t) {});
    // The menu is exported, so the host draws it itself; there is nothing to pop up from here.
    item_->registerMethod("ContextMenu").onInterface(itemInterface).implementedAs([](std::int32_t, std::int32_t) {});
    item_->registerMethod("Scroll").onInterface(itemInterface).implementedAs([](std::int32_t, const std::string&) {});
    for (const char* signal : {"NewTitle", "NewIcon", "NewAttentionIcon", "NewOverlayIcon", "NewToolTip"}) {
        item_->registerSignal(signal).onInterface(itemInterface);
    }
    item_->registerSignal("NewStatus").onInterface(itemInterface).withParameters<std::string>();
    item_->finishRegistration();
}

void StatusNotifierItem::registerWithWatcher(const char* why) {
    try {
        auto watcher = sdbus::createProxy(session_, watcherName, "/StatusNotifierWatcher");
        watcher->callMethod("RegisterStatusNotifierItem")
            .onInterface(watcherName)
            .withTimeout(std::chrono::seconds(5))
            .withArguments(busName_);
        registered_ = true;
        note_("the tray item is registered as " + busName_ + " (" + why + ")");
        bool hostThere = false;
        try {
            hostThere = watcher->getProperty("IsStatusNotifierHostRegistered").onInterface(watcherName).get<bool>();
        } catch (const sdbus::Error&) {
        }
        if (!hostThere) note_("no tray host shows items on this desktop; the menu stays on the terminal");
    } catch (const sdbus::Error& failure) {
        registered_ = false;
        if (failure.getName() == "org.freedesktop.DBus.Error.ServiceUnknown" ||
            failure.getName() == "org.freedesktop.DBus.Error.NameHasNoOwner") {
            note_("no StatusNotifierWatcher on the session bus, so no tray host; the menu stays on the terminal "
                  "and the item registers when a watcher appears");
        } else {
            note_("the StatusNotifierWatcher refused the tray item: " + failure.getMessage());
        }
    }
}

void StatusNotifierItem::start() {
    loop_.post([this] {
        try {
            exportObjects();
            session_.requestName(busName_);
        } catch (const sdbus::Error& failure) {
            note_("the tray item could not be put on the session bus: " + failure.getMessage());
            return;
        }
        watcherOwner_ = session_.addMatch(
            std::string("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                        "member='NameOwnerChanged',arg0='") + watcherName + "'",
            [this](sdbus::Message& message) {
                std::string name, oldOwner, newOwner;
                message >> name >> oldOwner >> newOwner;
                if (newOwner.empty()) {
                    registered_ = false;
                    note_("the StatusNotifierWatcher went away; the menu stays on the terminal until it is back");
                    return;
                }
                loop_.post([this] { registerWithWatcher("the StatusNotifierWatcher came back"); });
            });
        hostRegistered_ = session_.addMatch(
            std::string("type='signal',interface='") + watcherName + "',member='StatusNotifierHostRegistered'",
            [this](sdbus::Message&) { note_("a tray host appeared; the menu shows in the tray"); });
        registerWithWatcher("at launch");
    });
}

} // namespace tavrick
