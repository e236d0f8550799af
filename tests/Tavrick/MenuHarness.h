#pragma once

// The menu drawn over a started coordinator, past the launch announcement, on virtual time: the
// lines looked up by id anywhere in the menu.
#include "Platform/Simulated/InMemoryPowerAssertions.h"
#include "Platform/Simulated/SimulatedPasteboard.h"
#include "Tavrick/CoordinatorHarness.h"
#include "Tavrick/MenuBarContent.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick::testing {

class MenuHarness : public CoordinatorHarness {
protected:
    void adjust(AppEnvironment& environment) override {
        environment.supportDirectory = root / "support";
        environment.pasteboard = pasteboard;
        environment.powerAssertions = std::make_shared<InMemoryPowerAssertions>();
        environment.processes = std::make_shared<NoProcesses>();
    }
    // The suite's own settings of a fresh menu.
    virtual void prepare(MenuBarContent&) {}
    MenuBarContent& menu() {
        if (!content) {
            CoordinatorHarness::make()->start();
            content = std::make_unique<MenuBarContent>(*coordinator);
            prepare(*content);
            // Past the launch announcement, so that each test sees only its own toasts.
            scheduler.advance(2.5);
            presenter->lines.clear();
        }
        return *content;
    }
    void TearDown() override {
        content.reset();
        CoordinatorHarness::TearDown();
    }
    // The line `id` anywhere in the menu.
    std::optional<MenuEntry> find(const std::string& id) {
        std::function<std::optional<MenuEntry>(const std::vector<MenuEntry>&)> walk =
            [&](const std::vector<MenuEntry>& entries) -> std::optional<MenuEntry> {
            for (const auto& e : entries) {
                if (e.id == id) return e;
                if (auto inner = walk(e.children)) return inner;
            }
            return std::nullopt;
        };
        return walk(menu().snapshot().entries);
    }
    std::string title(const std::string& id) {
        auto e = find(id);
        return e ? e->title : "<absent " + id + ">";
    }
    bool enabled(const std::string& id) {
        auto e = find(id);
        return e && e->isEnabled;
    }

    std::shared_ptr<SimulatedPasteboard> pasteboard = std::make_shared<SimulatedPasteboard>();
    std::unique_ptr<MenuBarContent> content;
};

}  // namespace tavrick::testing
