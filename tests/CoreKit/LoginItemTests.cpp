#include "CoreKit/LoginItem.h"
#include "CoreKit/ManualScheduler.h"
#include "Support/LogCapture.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {
const char* notFoundText =
    "macOS does not recognise this copy of Tavrick, so it cannot open at login. If it was just updated or moved, quit "
    "and reopen it. Otherwise make sure Tavrick is in your Applications folder.";

struct Fixture {
    ManualScheduler scheduler;
    int status = 0;
    int reads = 0;
    std::optional<std::string> failure;
    std::vector<std::string> calls;
    LoginItemController controller{
        LoginItemService{[this] {
                             ++reads;
                             return status;
                         },
                         [this] {
                             calls.push_back("register");
                             if (!failure) status = 1;
                             return failure;
                         },
                         [this] {
                             calls.push_back("unregister");
                             if (!failure) status = 0;
                             return failure;
                         },
                         [this] { calls.push_back("settings"); }},
        scheduler};
};
} // namespace

TEST(LoginItem, StatusesMapToStatesWithTheirNotes) {
    struct Case {
        int status;
        LoginItemState::Kind kind;
        bool isOn;
        std::optional<std::string> note;
    };
    const Case cases[] = {
        {0, LoginItemState::Kind::disabled, false, std::nullopt},
        {1, LoginItemState::Kind::enabled, true, std::nullopt},
        {2, LoginItemState::Kind::requiresApproval, false,
         "Tavrick is set to open at login, but macOS is holding it back. Allow it in System Settings › General › Login "
         "Items."},
        {3, LoginItemState::Kind::unavailable, false, std::string(notFoundText)},
        {4, LoginItemState::Kind::unavailable, false, "unrecognised status"},
        {-1, LoginItemState::Kind::unavailable, false, "unrecognised status"},
    };
    for (const auto& c : cases) {
        auto state = LoginItemController::state(c.status);
        EXPECT_EQ(state.kind, c.kind) << c.status;
        EXPECT_EQ(state.isOn(), c.isOn) << c.status;
        EXPECT_EQ(state.note(), c.note) << c.status;
    }
}

TEST(LoginItem, NotFoundIsReadOnceMoreAfterAWaitAndOnlyOnce) {
    Fixture f;
    f.status = 3;
    f.controller.refresh();
    EXPECT_TRUE(f.controller.isRetryingNotFound());
    EXPECT_EQ(f.reads, 1);
    f.controller.refresh();  // a refresh meanwhile does not start a second retry
    f.scheduler.advance(LoginItemController::notFoundRetrySeconds - 0.01);
    EXPECT_EQ(f.reads, 2);
    f.scheduler.advance(0.01);
    EXPECT_EQ(f.reads, 3);
    EXPECT_FALSE(f.controller.isRetryingNotFound());
    f.scheduler.advance(60);
    EXPECT_EQ(f.reads, 3);
    EXPECT_EQ(f.controller.state().get().kind, LoginItemState::Kind::unavailable);

    // Cleared by itself, as it often is after an update.
    f.controller.refresh();
    f.status = 1;
    f.scheduler.advance(LoginItemController::notFoundRetrySeconds);
    EXPECT_TRUE(f.controller.state().get().isOn());
}

TEST(LoginItem, ChangesAreLoggedAndReadBack) {
    Fixture f;
    LogCapture logs;
    f.controller.setEnabled(true);
    EXPECT_TRUE(f.controller.state().get().isOn());
    f.controller.setEnabled(false);
    EXPECT_FALSE(f.controller.state().get().isOn());
    f.failure = "the autostart folder is read-only";
    f.controller.setEnabled(true);
    EXPECT_FALSE(f.controller.state().get().isOn());
    EXPECT_EQ(logs.messages("core"), (std::vector<std::string>{"Login item registered", "Login item unregistered",
                                                              "Login item change failed: the autostart folder is read-only"}));
    f.controller.openLoginItemsSettings();
    EXPECT_EQ(f.calls, (std::vector<std::string>{"register", "unregister", "register", "settings"}));
    EXPECT_EQ(f.reads, 3);
}
