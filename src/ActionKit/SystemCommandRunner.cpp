#include "ActionKit/SystemCommandRunner.h"

#include "ActionKit/AppLauncher.h"
#include "ActionKit/FileURL.h"
#include "ActionKit/FinderOpener.h"
#include "ActionKit/KeystrokeSender.h"
#include "CoreKit/Log.h"

namespace tavrick::SystemCommandRunner {

void run(const ActionEnvironment& env, SystemCommand command) {
    switch (command) {
    case SystemCommand::openFinder: FinderOpener::open(env); return;
    case SystemCommand::closeWindow: KeystrokeSender::send(env, HotkeySpec{13, Modifiers::command}); return;
    case SystemCommand::quitApplication: quitFrontmost(env); return;
    case SystemCommand::missionControl:
        AppLauncher::open(env, FileURL::fromPath(missionControlPath).value_or(URL{"file:///"}));
        return;
    case SystemCommand::copy: KeystrokeSender::send(env, HotkeySpec{8, Modifiers::command}); return;
    case SystemCommand::nextFullScreenApp: KeystrokeSender::send(env, HotkeySpec{124, Modifiers::control}); return;
    case SystemCommand::previousFullScreenApp:
        KeystrokeSender::send(env, HotkeySpec{123, Modifiers::control});
        return;
    }
}

void quitFrontmost(const ActionEnvironment& env) {
    auto frontmost = env.workspace.frontmostApplication();
    if (!frontmost) return;
    if (frontmost->processIdentifier == env.ownProcessIdentifier) {
        Log::action.notice("Refusing to quit Tavrick itself");
        return;
    }
    const std::string name = frontmost->localizedName.value_or("?");
    Log::action.notice("Quitting %s", name.c_str());
    // In capitals on purpose: the one action that ends another program must stand out in the log.
    env.log.note("action", "QUIT '" + name + "' (terminating the process)");
    env.workspace.terminate(frontmost->processIdentifier);
}

} // namespace tavrick::SystemCommandRunner
